// The lines of text that steer a running phone: the same in a scenario file and on the console.
//
// A line is words parted by blanks; double quotes hold a word with blanks together. Empty lines and
// lines that begin with # do nothing. `help` lists the commands; each is a row of one table.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

constexpr size_t kMaxLine = 8192;  // bytes, without the newline
constexpr size_t kMaxWords = 32;

// What the console sends after a reply's text, as a line of its own; no line of text begins so.
constexpr std::string_view kOkMark = "= ok";
constexpr std::string_view kErrorMark = "= error: ";

struct Reply {
    bool ok = true;
    std::string text;  // lines, each with its newline; of a refusal, one line without
};

// Splits a line into words. False, with `error` set, when it is malformed or out of bounds.
bool SplitLine(std::string_view line, std::vector<std::string>* words, std::string* error);

// Executes lines on the modem, one at a time.
class Console {
  public:
    // `folder`: where the modem keeps what outlives a restart; empty: nowhere.
    explicit Console(std::string folder) : folder_(std::move(folder)) {}

    // A refused line has changed nothing.
    Reply Execute(std::string_view line) const;
    // Why a line would be refused whatever the phone is like; empty: it is well formed. Does
    // nothing to the phone, and needs none.
    std::string Check(std::string_view line) const;

    struct Fault {
        int line;  // from 1
        std::string why;
    };
    // The same for the lines of a file.
    std::vector<Fault> CheckScenario(const std::string& path) const;

    // Executes the lines of a file; what is refused goes to the Android log with its line number,
    // and the rest is executed all the same. Nothing happens when there is no such file. Of lines
    // "after TIME ...", those whose time was before this process (another one of the same phone
    // read the file then) are left out, but for settings, which are in force again.
    void RunScenario(const std::string& path) const;

    const std::string& folder() const { return folder_; }

  private:
    const std::string folder_;
};

}  // namespace sim
