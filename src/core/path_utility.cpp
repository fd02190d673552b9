#include "core/path_utility.h"

namespace quarn::zorvex {

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
