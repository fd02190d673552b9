// Helpers of all tests: the captured Android log, waits and programs with time limits, files.
#pragma once

#include <android/log.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// Captures every log message of this process while it lives. One object at a time. Any thread may
// log.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();

    struct Message {
        android_LogPriority priority;
        std::string text;
    };
    std::vector<Message> messages() const;
    // Counts the messages that are equal to `text`. If `text` ends in "...", counts those that
    // contain the part before it.
    size_t Count(std::string_view text) const;
    bool Has(android_LogPriority priority, std::string_view text) const;
    // Waits until `count` such messages have come. Returns false if the time limit passes first.
    bool WaitFor(std::string_view text, size_t count = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    void Clear();
};

// Waits until the predicate holds, and checks it every few milliseconds. Returns its last value.
bool WaitUntil(const std::function<bool()>& predicate,
               std::chrono::milliseconds limit = std::chrono::seconds(20));

// What a program printed, and how it ended.
struct Ran {
    int status;  // exit status; 124: it was killed after 100 s
    std::string out, err;
};
// Runs a command line in a shell.
Ran Run(const std::string& line);
// The same, with standard output and error in one text.
struct Result {
    int status;
    std::string text;
};
Result RunMerged(const std::string& line);
// Returns the status of a child process, in the form of waitpid. Kills the child if it does not end
// within 60 s.
int WaitForChild(pid_t child);

// Installs a handler for the signal that interrupts a thread's system call, as the daemon does.
void HandleStopSignal();

// Returns "" if there is no such file.
std::string ReadFile(const std::filesystem::path& path);
// Creates missing folders, too.
void WriteFile(const std::filesystem::path& path, std::string_view bytes);
// Returns the names in a folder, sorted; none if the folder cannot be read.
std::vector<std::string> List(const std::filesystem::path& folder);
// Returns the size of all files below a folder. The folder may change meanwhile.
uintmax_t TreeSize(const std::filesystem::path& folder);

// Returns `size` bytes that resemble a log stream: they repeat themselves, but no two lines are
// equal.
std::string StreamBytes(size_t size, uint64_t seed = 1);

// The raw stream of one log file, and how it ends.
struct DecodedFile {
    std::string bytes;
    bool whole = false;       // ends with a whole block, or with one byte after it
    bool stray_byte = false;  // ends with such a byte
};
DecodedFile DecodeFile(const std::filesystem::path& path);

// The raw stream of a log tree in capture order, or of one capture folder. `torn` names the files
// that end in the middle of a block or of their header.
struct Decoded {
    std::string bytes;
    std::vector<std::string> torn;
};
Decoded Decode(const std::filesystem::path& tree);
// Returns the stream of a tree. The test fails if a file is torn.
std::string DecodeTree(const std::filesystem::path& tree);

}  // namespace test
