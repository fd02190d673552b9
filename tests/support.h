// What the tests share: the captured Android log, bounded waits, files in the box.
#pragma once

#include <android/log.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// Captures every message of this process while it lives; one at a time. Any thread may log.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();

    struct Message {
        android_LogPriority priority;
        std::string text;
    };
    std::vector<Message> messages() const;
    // Messages that are exactly `text`, or hold it when it ends in "...".
    size_t Count(std::string_view text) const;
    bool Has(android_LogPriority priority, std::string_view text) const;
    // Waits until `count` such messages have come; false when they did not within `limit`.
    bool WaitFor(std::string_view text, size_t count = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    void Clear();
};

// Waits until the predicate holds, looking every few milliseconds; its last value.
bool WaitUntil(const std::function<bool()>& predicate,
               std::chrono::milliseconds limit = std::chrono::seconds(20));

// The exit status of a shell command, and its standard output and error together.
struct Result {
    int status;
    std::string text;
};
Result Run(const std::string& command);

// Lets the signal that stops a thread get it out of a call, as the daemon does.
void HandleStopSignal();

std::string ReadFile(const std::filesystem::path& path);                    // "" when there is none
void WriteFile(const std::filesystem::path& path, std::string_view bytes);  // makes its folders
// Names in a folder, sorted; none when it cannot be read.
std::vector<std::string> List(const std::filesystem::path& folder);
// Bytes of all files below a folder, which may change meanwhile.
uintmax_t TreeSize(const std::filesystem::path& folder);

// `size` bytes that look like a log stream: some repetition, no two pieces alike.
std::string StreamBytes(size_t size, uint64_t seed = 1);

// The raw stream of one log file, and how it ends.
struct DecodedFile {
    std::string bytes;
    bool whole = false;       // with a whole block, or with one byte behind that
    bool stray_byte = false;  // with such a byte
};
DecodedFile DecodeFile(const std::filesystem::path& path);

// The raw stream of a log tree in capture order, or of one capture folder, and the files that end
// in the middle of a block or of their header.
struct Decoded {
    std::string bytes;
    std::vector<std::string> torn;
};
Decoded Decode(const std::filesystem::path& tree);
// The stream of a tree in which every file must be whole; else the test fails.
std::string DecodeTree(const std::filesystem::path& tree);

}  // namespace test
