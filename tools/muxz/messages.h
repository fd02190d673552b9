// What people see of a run of muxz: messages and progress on standard error, the exit status, and
// how text and sizes are shown.
//
// A message makes its path fit for a terminal. What of its text comes from a file is the caller's
// to pass through `Printable`.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/muxz/model.h"

namespace muxz {

// Exit status.
constexpr int kFine = 0;
constexpr int kFaults = 1;
constexpr int kUsageOrIo = 2;

// How far a long work is, on the terminal that takes the messages. Silent without one.
class Progress {
  public:
    explicit Progress(bool wanted);

    bool is_active() const { return active; }
    void Expect(uint64_t bytes) { total = bytes; }
    void At(uint64_t bytes);
    void Clear();

  private:
    const bool active;
    bool shown = false;
    uint64_t total = 0;
    std::chrono::steady_clock::time_point next =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
};

// Bytes from files and headers may hold anything, a terminal's commands among it: what is no
// printable ASCII is shown in hex.
std::string Printable(std::string_view text);
// Paths may well hold letters beyond ASCII.
std::string PrintablePath(std::string_view path);

// Bytes for people, as "1.5M", or all digits when it is to be exact.
std::string Size(uint64_t bytes, bool exact);

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
