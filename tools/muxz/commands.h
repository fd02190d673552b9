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
#include "tools/muxz/stretch.h"

namespace muxz {

// What the files of several phones mean to a command: none was chosen, or the choice.
using Phones = std::optional<PhoneChoice>;

// `json`: prints the model for programs, and tells nothing else.
// `all`: the modem record and unknown entries whole.
int Info(const Selection& selection, bool all, bool json);

int Cat(const Selection& selection, const std::string& output_path, const Phones& phones);
// The newest capture of the tree at `path`, or the capture at `path`, and what comes after it,
// until a signal ends that.
int Follow(const std::string& path, const std::string& output_path);
// `first`: tells the first fault and looks no further.
int Verify(const Selection& selection, bool first, bool json);
int RecoverFiles(const std::vector<std::string>& paths, const std::string& output_path);
// `quick`: reads the lengths of the blocks, but does not unpack them.
int Check(const Selection& selection, bool quick, const Phones& phones, bool json);

struct LsOptions {
    bool raw = false;    // the unpacked sizes too
    bool exact = false;  // sizes in bytes
    bool files = false;  // every file of each capture
    bool json = false;
};
int Ls(const Selection& selection, LsOptions options);

// Every block is read. A page on standard output when `output_path` is empty.
int WriteReport(const Selection& selection, const std::string& output_path, const Phones& phones);

}  // namespace muxz
