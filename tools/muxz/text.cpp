#include "tools/muxz/text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "tools/muxz/times.h"

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

std::string ProgressLine(uint64_t bytes, uint64_t total, double seconds) {
    constexpr double kMib = 1024 * 1024;
    const auto done = static_cast<double>(bytes), all = static_cast<double>(total);
    const double rate = seconds > 0 ? done / seconds : 0;
    std::array<char, 128> text{};
    if (total == 0) {
        snprintf(text.data(), text.size(), "%.0f MiB, %.0f MiB/s", done / kMib, rate / kMib);
        return text.data();
    }
    snprintf(text.data(), text.size(), "%3.0f%%  %.0f of %.0f MiB, %.0f MiB/s",
             std::min(100 * done / all, 100.0), done / kMib, all / kMib, rate / kMib);
    if (rate <= 0) return text.data();
    const double left = std::max(all - done, 0.0) / rate;
    return text.data() + (", " + ShowDuration(std::llround(left)) + " left");
}

}  // namespace muxz
