// What people see of a run of muxz beside its output: messages and progress on standard error, and
// the exit status.
//
// A message makes its path fit for a terminal. What of its text comes from a file is the caller's
// to pass through `Printable` of text.h.
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

// How far a long work is, how fast, and how long it still takes, on the terminal that takes the
// messages. Silent without one.
class Progress {
  public:
    explicit Progress(bool wanted);

    void Expect(uint64_t bytes) { total = bytes; }
    void At(uint64_t bytes);
    void Clear();

  private:
    const bool active;
    bool shown = false;
    uint64_t total = 0;  // bytes; 0: not known
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point next = start + std::chrono::milliseconds(500);
};

// Text for standard output, in colour where that is a terminal and NO_COLOR is not set.
enum class Colour { kRed, kGreen };
std::string Coloured(Colour colour, const std::string& text);

// The messages and the exit status of one run. The status never gets better.
class Messages {
  public:
    explicit Messages(bool with_progress) : progress(with_progress) {}

    // Tells, and leaves the status as it is.
    void Note(const std::string& path, const std::string& text);
    void Fault(const std::string& path, const std::string& text);
    void FaultAt(const std::string& path, uint64_t offset, const std::string& text);
    void IoError(const std::string& path, const std::string& text);
    void Tell(const Finding& finding);
    void Tell(const std::vector<Finding>& findings);

    int status = kFine;
    Progress progress;
};

}  // namespace muxz
