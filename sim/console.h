// The commands that control a running phone: lines of text in a scenario file or on the console.
//
// A line consists of words separated by blanks. A word with blanks stands in double quotes. Empty
// lines and lines that begin with # do nothing. The command `help` lists all commands.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// In bytes, without the newline.
constexpr size_t kMaxLine = 8192;
constexpr size_t kMaxWords = 32;

// The console sends one of these marks as a line after the text of a reply. No line of the text
// begins with a mark.
constexpr std::string_view kOkMark = "= ok";
constexpr std::string_view kErrorMark = "= error: ";

struct Reply {
    bool ok = true;
    // If `ok`: lines, each with a newline. Else the reason: one line without a newline.
    std::string text;
};

// Splits a line into words. Returns false, with `error` set, if the line is malformed, too long or
// has too many words.
bool SplitLine(std::string_view line, std::vector<std::string>* words, std::string* error);

// Executes lines on the modem, one at a time.
class Console {
  public:
    // The modem keeps the state that survives a restart in `folder`. If it is empty, that state is
    // not kept.
    explicit Console(std::string folder) : folder_(std::move(folder)) {}

    // Executes one line. A line that is refused changes nothing.
    Reply Execute(std::string_view line) const;
    // Returns the reason why a line would be refused in any state of the phone, or an empty string
    // if it is well formed. Does not use or change the phone.
    std::string Check(std::string_view line) const;

    struct Fault {
        int line;  // the first line is 1
        std::string why;
    };
    // Checks the lines of a file.
    std::vector<Fault> CheckScenario(const std::string& path) const;

    // Executes the lines of a file. Does nothing if the file does not exist. A refused line is
    // reported in the Android log with its number, and the next lines are still executed.
    //
    // After a restart of the daemon, a new process executes the same file. It skips each line
    // "after TIME ..." whose time has passed, unless the command is a setting: that is applied
    // again.
    void RunScenario(const std::string& path) const;

    const std::string& folder() const { return folder_; }

  private:
    const std::string folder_;
};

}  // namespace sim
