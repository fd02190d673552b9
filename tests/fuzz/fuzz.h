// Functions that the fuzz targets share. A target is one file with `SetUp` and
// `LLVMFuzzerTestOneInput`, which gets one input at a time. A target runs in a box (an isolated
// sandbox, sim/box), and may fill and empty the folders of the box.
//
// Messages of the Android log are formatted and then dropped. Sleeps of the program end at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Defined by each target. Called once.
void SetUp();

// Creates what the daemon's `main` creates before it serves clients: folders, modem layer, modem
// IPC.
void StartPhone();

// Returns true if a path in `text` may lead out of the folders of the box. Of the machine's own
// folders, a program in the box can write to /tmp.
bool LeavesBox(std::string_view text);

inline std::string_view Text(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Removes the first line from `text` and returns it without its newline.
inline std::string TakeLine(std::string_view& text) {
    const size_t end = text.find('\n');
    std::string line(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

// Ends the program with the message `what` unless `holds`.
inline void Check(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
