// The commands of muxz. Each one reads a model, prints it, tells of faults, and returns the exit
// status; what a command shows goes to standard output.
//
// The raw stream goes to `output_path`, or to standard output when that is empty. An error of the
// output ends the program with status 2. A log file is not overwritten.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/muxz/model.h"

namespace muxz {

// What the files of several phones mean to a command: none was chosen, or the choice.
using Phones = std::optional<PhoneChoice>;

// `all`: the modem record and unknown entries whole.
int Info(const std::vector<std::string>& paths, bool all);

int Cat(const std::vector<std::string>& paths, const std::string& output_path,
        const Phones& phones);
// `first`: tells the first fault and looks no further.
int Verify(const std::vector<std::string>& paths, bool first);
int RecoverFiles(const std::vector<std::string>& paths, const std::string& output_path);
// `quick`: reads the lengths of the blocks, but does not unpack them.
int Check(const std::vector<std::string>& paths, bool quick, const Phones& phones);

struct LsOptions {
    bool raw = false;    // the unpacked sizes too
    bool exact = false;  // sizes in bytes
    bool files = false;  // every file of each capture
};
int Ls(const std::vector<std::string>& paths, LsOptions options);

}  // namespace muxz
