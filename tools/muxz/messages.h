// Messages and progress on standard error, and the exit status.
//
// The functions here make paths safe for a terminal. They print texts as they are: the caller must
// pass text that comes from a file through `Printable` of text.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/muxz/model.h"
#include "tools/muxz/text.h"

namespace muxz {

// Exit status.
constexpr int kFine = 0;
constexpr int kFaults = 1;
constexpr int kUsageOrIo = 2;

// Shows the progress of a long operation: how much is done, the speed, and the remaining time.
// Prints nothing if standard error is not a terminal.
class Progress {
  public:
    // `wanted`: false to print nothing at all.
    explicit Progress(bool wanted);

    // Sets the number of bytes of the whole operation.
    void Expect(uint64_t bytes) { total = bytes; }
    // Shows that `bytes` are done, at most every 250 ms.
    void At(uint64_t bytes);
    // Removes the progress line from the terminal.
    void Clear();

  private:
    const bool active;
    bool shown = false;
    uint64_t total = 0;  // bytes; 0 if unknown
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point next = start + std::chrono::milliseconds(500);
};

// Returns `text` for standard output. Adds colour if standard output is a terminal and the
// environment variable NO_COLOR is not set.
enum class Colour { kRed, kGreen };
std::string Coloured(Colour colour, const std::string& text);

// Prints messages and keeps the exit status of one run. The status only ever increases.
class Messages {
  public:
    explicit Messages(bool with_progress) : progress(with_progress) {}

    // Prints a message. Does not change the status. An empty `path` is not printed.
    void Note(const std::string& path, const std::string& text);
    // Prints a message and raises the status to at least kFaults.
    void Fault(const std::string& path, const std::string& text);
    void FaultAt(const std::string& path, uint64_t offset, const std::string& text);
    // Prints a message and sets the status to kUsageOrIo.
    void IoError(const std::string& path, const std::string& text);
    // Prints a finding and raises the status according to its kind.
    void Tell(const Finding& finding);
    void Tell(const std::vector<Finding>& findings);

    int status = kFine;
    Progress progress;
};

}  // namespace muxz
