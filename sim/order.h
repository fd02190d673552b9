// The parts of the console's commands: orders, the parsers of their words, and the command table.
#pragma once

#include <charconv>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "sim/console.h"

namespace sim {

using Words = std::span<const std::string>;

// The result of parsing a line: a refusal, or a function that executes the line. Making an order
// changes nothing, so that a scenario can be checked without a phone. `act` owns everything that it
// uses, so it may be called later.
struct Order {
    std::string refusal;
    std::function<Reply()> act;

    bool ok() const { return act != nullptr; }
};

inline Order Refuse(std::string why) { return {std::move(why), nullptr}; }
inline Order Do(std::function<Reply()> act) { return {"", std::move(act)}; }

inline Reply Ok(std::string text = "") { return {true, std::move(text)}; }
inline Reply Failed(std::string why) { return {false, std::move(why)}; }

// Parses a whole number, optionally with a unit: k, M, G (powers of 1,000) or Ki, Mi, Gi (powers of
// 1,024).
std::optional<uint64_t> Number(std::string_view word, uint64_t max);
Order BadNumber(std::string_view what, const std::string& word, uint64_t max);
Order NotAbsolute(const std::string& path);

// Parses a time of at most ten years: "500ms", "5s", "2m", "3h" or "7d". "5" is 5 s.
std::optional<std::chrono::milliseconds> Duration(std::string_view word);

inline std::optional<int> Integer(std::string_view word) {
    int value = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

struct Command {
    // What happens after a restart of the daemon to a scenario line whose time has passed.
    enum Kind {
        kEvent,    // skipped
        kSetting,  // applied again
    };
    std::string_view name;
    size_t min_words;  // the name included
    size_t max_words;
    Kind kind;
    std::string_view arguments;
    std::string_view help;
    Order (*order)(const Console&, Words);
};

std::span<const Command> Commands();
// The figures that a line "expect" of a scenario can name.
std::span<const std::string_view> Figures();
// Returns null if there is no command of that name.
const Command* FindCommand(std::string_view name);
// Makes the order for the words of a line. Its refusal, and the text of a failed reply, begin with
// the name of the command.
Order MakeOrder(const Console& console, Words words);

// The commands for time, for other programs of the phone, and for what only ./run uses.
Order AfterOrder(const Console&, Words words);
Order ClientOrder(const Console&, Words words);
Order ClockOrder(const Console&, Words words);
Order FreeSpaceOrder(const Console&, Words words);
Order EndOrder(const Console&, Words words);
Order ExpectOrder(const Console&, Words words);
Order StorageOrder(const Console&, Words words);

// A parsed line "after TIME COMMAND...".
struct Later {
    std::chrono::milliseconds delay;
    Command::Kind kind;
    Order order;
};
// If the line is malformed, `order` is a refusal.
Later MakeLater(const Console& console, Words words);

}  // namespace sim
