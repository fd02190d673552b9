// What the fuzz targets share. A target is one file: `SetUp`, and one input at a time to
// `LLVMFuzzerTestOneInput`. It runs in a box (sim/box), whose folders it may fill and empty.
//
// Texts of the Android log are formatted and dropped, and pauses of the program end at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Each target's own; called once.
void SetUp();

// What the daemon's `main` makes before it serves anybody: folders, modem layer, modem IPC.
void StartPhone();

// Whether a path in this text may lead out of the box's own folders to those of the machine, of
// which /tmp can be written to.
bool LeavesBox(std::string_view text);

inline std::string_view Text(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The text up to the next newline or the end, which are taken off its front.
inline std::string TakeLine(std::string_view& text) {
    const size_t end = text.find('\n');
    std::string line(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

// What must hold for every input.
inline void Check(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
