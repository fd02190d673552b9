#include "core/path_utility.h"

#include <algorithm>

namespace quarn::zorvex {

bool HasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

std::string NormalizePathSlash(const std::string& path) {
    std::string normalized;
    normalized.reserve(path.size());
    for (const char c : path) {
        if (c != '/' || normalized.empty() || normalized.back() != '/') normalized += c;
    }
    return normalized;
}

bool IsUnderFirstLevelSubfolder(const std::string& path, const std::string& base) {
    std::string child = NormalizePathSlash(path);
    std::string parent = NormalizePathSlash(base);
    if (child.empty() || parent.empty()) return false;
    if (child.back() == '/') child.pop_back();
    if (parent.back() == '/') parent.pop_back();
    if (child == parent) return true;
    const size_t last_slash = child.rfind('/');
    return last_slash != std::string::npos && child.compare(0, last_slash, parent) == 0;
}

}  // namespace quarn::zorvex
