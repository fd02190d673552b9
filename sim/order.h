// What the console's commands are made of: orders, and the values that their words stand for.
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

// What a line asks for, once its words have been looked at: a refusal, or what is to be done.
// Making an order changes nothing, so that a scenario can be checked without a phone. What is to be
// done owns all it needs, and may be done later.
struct Order {
    std::string refusal;
    std::function<Reply()> act;

    bool ok() const { return act != nullptr; }
};

inline Order Refuse(std::string why) { return {std::move(why), nullptr}; }
inline Order Do(std::function<Reply()> act) { return {"", std::move(act)}; }

inline Reply Ok(std::string text = "") { return {true, std::move(text)}; }
inline Reply Failed(std::string why) { return {false, std::move(why)}; }

// A whole number, with k, M or G for powers of a thousand and Ki, Mi or Gi for powers of 1,024.
std::optional<uint64_t> Number(std::string_view word, uint64_t max);
Order BadNumber(std::string_view what, const std::string& word, uint64_t max);
Order NotAbsolute(const std::string& path);

// "500ms", "5s", "5", "2m", "3h" or "7d"; ten years at most.
std::optional<std::chrono::milliseconds> Duration(std::string_view word);

inline std::optional<int> Integer(std::string_view word) {
    int value = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

struct Command {
    // What becomes of a scenario's line whose time has passed when the daemon starts anew.
    enum Kind {
        kEvent,    // it has happened
        kSetting,  // it is in force again
    };
    std::string_view name;
    size_t min_words;  // the name counts
    size_t max_words;
    Kind kind;
    std::string_view arguments;
    std::string_view help;
    Order (*order)(const Console&, Words);
};

// Null when there is none of that name.
const Command* FindCommand(std::string_view name);
// The order that a line's words make; the name of the command stands before a refusal, and before
// the reason why it could not be done.
Order MakeOrder(const Console& console, Words words);

// The commands of a story: what a phone's owner, other programs and time do to it.
Order AfterOrder(const Console&, Words words);
Order ClientOrder(const Console&, Words words);
Order ClockOrder(const Console&, Words words);
Order FreeSpaceOrder(const Console&, Words words);
Order EndOrder(const Console&, Words words);
Order ExpectOrder(const Console&, Words words);
Order StorageOrder(const Console&, Words words);

// A line "after TIME COMMAND...", taken apart.
struct Later {
    std::chrono::milliseconds delay;
    Command::Kind kind;
    Order order;
};
// With a refused order when the line is wrong.
Later MakeLater(const Console& console, Words words);

}  // namespace sim
