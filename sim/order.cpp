#include "sim/order.h"

#include <charconv>
#include <span>

namespace sim {

namespace {

struct Unit {
    std::string_view name;
    uint64_t factor;
};

// Parses a number with a unit. Returns its value in the smallest unit, or nothing if it is
// malformed or greater than `max`.
std::optional<uint64_t> WithUnit(std::string_view word, std::span<const Unit> units, uint64_t max) {
    uint64_t value = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc()) return std::nullopt;
    const std::string_view unit(stop, static_cast<size_t>(end - stop));
    for (const auto& [name, factor] : units) {
        if (unit == name && value <= max / factor) return value * factor;
    }
    return std::nullopt;
}

}  // namespace

std::optional<uint64_t> Number(std::string_view word, uint64_t max) {
    static constexpr Unit kUnits[] = {
        {"", 1},         {"k", 1000},     {"M", 1000'000}, {"G", 1000'000'000},
        {"Ki", 1 << 10}, {"Mi", 1 << 20}, {"Gi", 1 << 30}};
    return WithUnit(word, kUnits, max);
}

Order BadNumber(std::string_view what, const std::string& word, uint64_t max) {
    return Refuse(std::string(what) + " is not a number from 0 to " + std::to_string(max) + ": " +
                  word);
}

Order NotAbsolute(const std::string& path) {
    return Refuse("not an absolute path (as it is inside the box): " + path);
}

std::optional<std::chrono::milliseconds> Duration(std::string_view word) {
    static constexpr Unit kUnits[] = {{"ms", 1},     {"", 1000},      {"s", 1000},
                                      {"m", 60'000}, {"h", 3600'000}, {"d", 86'400'000}};
    constexpr uint64_t kMost = 315'360'000'000;  // ten years
    const auto value = WithUnit(word, kUnits, kMost);
    if (!value) return std::nullopt;
    return std::chrono::milliseconds(*value);
}

}  // namespace sim
