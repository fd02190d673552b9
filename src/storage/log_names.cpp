#include "storage/log_names.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace quarn::log_names {

namespace {

// ASCII digits only, independent of the locale.
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsTimeChar(char c) { return IsDigit(c) || c == '_'; }

// Removes the longest prefix of characters that satisfy `belongs` from `text`, and returns it.
template <typename Predicate>
std::string_view TakeWhile(std::string_view& text, Predicate belongs) {
    const auto end = std::find_if_not(text.begin(), text.end(), belongs);
    const std::string_view run = text.substr(0, static_cast<size_t>(end - text.begin()));
    text.remove_prefix(run.size());
    return run;
}

std::string LocalTime(time_t time) {
    std::array<char, 32> text;
    struct tm local;
    localtime_r(&time, &local);
    return {text.data(), strftime(text.data(), text.size(), kTimeFormat, &local)};
}

// Returns the offset of the last component.
size_t NameStart(std::string_view path) { return path.rfind('/') + 1; }

// Parses the common start of folder and file names: prefix, index, "_", time. Leaves the rest in
// `text`. A time has at least two characters and ends in a digit. A "_" after its last digit
// belongs to the rest, since a suffix may begin with "_".
std::optional<Name> TakeIndexAndTime(std::string_view& text) {
    if (!text.starts_with(kPrefix)) return std::nullopt;
    text.remove_prefix(kPrefix.size());

    Name name{};
    name.index = TakeWhile(text, IsDigit);
    if (name.index.empty() || !text.starts_with('_')) return std::nullopt;
    text.remove_prefix(1);

    const std::string_view rest = text;
    const std::string_view run = TakeWhile(text, IsTimeChar);
    name.time = run.substr(0, run.find_last_not_of('_') + 1);
    if (name.time.size() < 2) return std::nullopt;
    text = rest.substr(name.time.size());
    return name;
}

}  // namespace

std::optional<Name> ParseFolder(std::string_view name) {
    std::optional<Name> parsed = TakeIndexAndTime(name);
    if (!parsed) return std::nullopt;
    if (!name.empty() && name != kUnfinished && name != kException && name != kUnfinishedException)
        return std::nullopt;
    parsed->suffix = name;
    return parsed;
}

std::optional<Name> ParseFile(std::string_view name) {
    std::optional<Name> parsed = TakeIndexAndTime(name);
    if (!parsed) return std::nullopt;
    if (name.starts_with(kException)) {
        parsed->suffix = name.substr(0, kException.size());
        name.remove_prefix(kException.size());
    }
    if (!name.starts_with(kFileEnding)) return std::nullopt;
    const std::string_view after = name.substr(kFileEnding.size());
    if (!after.empty() && after != kOpenEnding) return std::nullopt;
    parsed->ending = name;
    return parsed;
}

std::optional<uint32_t> ParseIndex(std::string_view digits) {
    uint32_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc{} || stop != end) return std::nullopt;
    return value;
}

std::optional<uint32_t> IndexOf(std::string_view name) {
    const size_t first = name.find('_');
    if (first == std::string_view::npos) return std::nullopt;
    const size_t second = name.find('_', first + 1);
    if (second == std::string_view::npos) return std::nullopt;
    return ParseIndex(name.substr(first + 1, second - first - 1)).value_or(0);
}

std::string IndexedName(uint32_t index, time_t time) {
    return std::string(kPrefix) + std::to_string(index) + "_" + LocalTime(time);
}

std::string OpenFileName(uint32_t index, time_t time, std::string_view suffix) {
    return IndexedName(index, time).append(suffix).append(kFileEnding).append(kOpenEnding);
}

std::string_view LastComponent(std::string_view path) {
    while (path.ends_with('/')) path.remove_suffix(1);
    return path.substr(NameStart(path));
}

void FollowRename(std::string& path, const std::string& from, const std::string& to) {
    if (path.starts_with(from + "/")) path.replace(0, from.size(), to);
}

bool HasException(std::string_view path) {
    return path.find(kException, NameStart(path)) != std::string_view::npos;
}

std::string FinishedFolder(std::string_view path) {
    if (HasException(path)) {
        const size_t mark = path.rfind(kException);
        const size_t kept = mark > NameStart(path) ? mark - 1 : mark;  // drops the "t"
        return std::string(path.substr(0, kept)).append(kException);
    }
    if (path.ends_with(kUnfinished)) path.remove_suffix(kUnfinished.size());
    return std::string(path);
}

std::string FinishedFile(std::string_view path) {
    std::string finished(path);
    const size_t mark = finished.find(kOpenEnding, NameStart(path));
    if (mark != std::string::npos) finished.erase(mark, kOpenEnding.size());
    return finished;
}

}  // namespace quarn::log_names
