#include "storage/log_names.h"

#include <algorithm>
#include <charconv>

namespace quarn::log_names {

namespace {

// Of this alphabet only, whatever the locale.
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsTimeChar(char c) { return IsDigit(c) || c == '_'; }

// Takes the longest run of characters that satisfy `belongs` off the front of `text`.
template <typename Predicate>
std::string_view TakeWhile(std::string_view& text, Predicate belongs) {
    const auto end = std::find_if_not(text.begin(), text.end(), belongs);
    const std::string_view run = text.substr(0, static_cast<size_t>(end - text.begin()));
    text.remove_prefix(run.size());
    return run;
}

// What folder and file names begin with: prefix, index, "_", time. Leaves the rest in `text`.
// A time has two characters or more and ends in a digit: any "_" behind its last digit belongs to
// the rest, where a suffix may begin with it.
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

}  // namespace quarn::log_names
