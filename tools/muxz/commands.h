// The commands of muxz. Each one does its work, tells of it, and returns the exit status; what a
// command shows goes to standard output.
//
// The raw stream goes to `output_path`, or to standard output when that is empty. An error of the
// output ends the program with status 2. A log file is not overwritten.
#pragma once

#include <string>
#include <vector>

namespace muxz {

// `all`: the modem record and unknown entries whole.
int Info(const std::vector<std::string>& paths, bool all);

int Cat(const std::vector<std::string>& paths, const std::string& output_path);
int Verify(const std::vector<std::string>& paths);
int RecoverFile(const std::string& path, const std::string& output_path);

struct LsOptions {
    bool raw = false;    // the unpacked sizes too
    bool exact = false;  // sizes in bytes
    bool files = false;  // every file of each capture
};
// Of a tree, or of one capture.
int Ls(const std::string& root, LsOptions options);

}  // namespace muxz
