// Formats bytes and sizes for people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace muxz {

// Returns `text` with every byte that is not printable ASCII in hex. Bytes from files may contain
// commands for the terminal.
std::string Printable(std::string_view text);
// As Printable, but keeps letters beyond ASCII, which paths may contain.
std::string PrintablePath(std::string_view path);

// Returns a number of bytes as "1.5M", or with all digits if `exact`.
std::string Size(uint64_t bytes, bool exact);

// Returns the progress of an operation that has read `bytes` of `total` bytes after `seconds`.
// `total` is 0 if it is unknown.
std::string ProgressLine(uint64_t bytes, uint64_t total, double seconds);

}  // namespace muxz
