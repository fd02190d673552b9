// The commands of muxz. Each function reads a model, prints it on standard output, reports faults,
// and returns the exit status.
//
// A command with `output_path` writes its output to that file, or to standard output if the path is
// empty. If writing fails, the program ends with status 2. A command never overwrites a log file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/muxz/model.h"
#include "tools/muxz/stretch.h"

namespace muxz {

// The user's choice between the files of several phones. No value: the user made no choice.
using Phones = std::optional<PhoneChoice>;

// `json`: prints the model as JSON, and nothing else.
// `all`: shows the modem record and unknown entries completely.
int Info(const Selection& selection, bool all, bool json);

int Cat(const Selection& selection, const std::string& output_path, const Phones& phones);
// Writes the newest capture of the tree at `path`, or the capture at `path`, and everything that
// the daemon adds after it. Returns after SIGINT or SIGTERM.
int Follow(const std::string& path, const std::string& output_path);
// `first`: reports only the first fault, and stops there.
int Verify(const Selection& selection, bool first, bool json);
int RecoverFiles(const std::vector<std::string>& paths, const std::string& output_path);
// `quick`: reads only the lengths of the blocks, and does not unpack them.
int Check(const Selection& selection, bool quick, const Phones& phones, bool json);

struct LsOptions {
    bool raw = false;    // shows the unpacked sizes too
    bool exact = false;  // shows sizes in bytes
    bool files = false;  // shows every file of each capture
    bool json = false;
};
int Ls(const Selection& selection, LsOptions options);

// Writes the report as an HTML page. Reads every block.
int WriteReport(const Selection& selection, const std::string& output_path, const Phones& phones);

}  // namespace muxz
