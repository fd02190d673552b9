// How bytes and sizes are shown to people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace muxz {

// Bytes from files and headers may hold anything, a terminal's commands among it: what is no
// printable ASCII is shown in hex.
std::string Printable(std::string_view text);
// Paths may well hold letters beyond ASCII.
std::string PrintablePath(std::string_view path);

// Bytes for people, as "1.5M", or all digits when it is to be exact.
std::string Size(uint64_t bytes, bool exact);

// How far a work on `total` bytes is after that many seconds; 0: how many they are is not known.
std::string ProgressLine(uint64_t bytes, uint64_t total, double seconds);

}  // namespace muxz
