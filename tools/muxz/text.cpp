#include "tools/muxz/text.h"

#include <cstdio>

namespace muxz {

std::string Printable(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            out += c;
        } else {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned char>(c));
            out += hex;
        }
    }
    return out;
}

std::string PrintablePath(std::string_view path) {
    std::string out(path);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
    }
    return out;
}

std::string Size(uint64_t bytes, bool exact) {
    if (exact || bytes < 1024) return std::to_string(bytes);
    const char* unit = "KMGTPE";
    double value = static_cast<double>(bytes) / 1024;
    while (value >= 1024) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof(text), "%.1f%c", value, *unit);
    return text;
}

}  // namespace muxz
