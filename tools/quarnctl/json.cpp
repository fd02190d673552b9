#include "json.h"

#include <cstdint>
#include <cstdio>

#include "commands.h"

namespace quarnctl {

namespace {

// Returns the number of bytes of the UTF-8 sequence at the start of `text`, or 0 if there is none.
// REQUIRES: `text` is not empty.
size_t SequenceLength(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto continues = [&](size_t i) { return i < text.size() && (byte(i) & 0xC0) == 0x80; };
    if (byte(0) < 0x80) return 1;
    if (byte(0) >= 0xC2 && byte(0) < 0xE0) return continues(1) ? 2 : 0;
    if (byte(0) >= 0xE0 && byte(0) < 0xF0) {
        const bool overlong = byte(0) == 0xE0 && continues(1) && byte(1) < 0xA0;
        const bool surrogate = byte(0) == 0xED && continues(1) && byte(1) >= 0xA0;
        return continues(1) && continues(2) && !overlong && !surrogate ? 3 : 0;
    }
    if (byte(0) >= 0xF0 && byte(0) < 0xF5) {
        const bool overlong = byte(0) == 0xF0 && continues(1) && byte(1) < 0x90;
        const bool too_large = byte(0) == 0xF4 && continues(1) && byte(1) >= 0x90;
        return continues(1) && continues(2) && continues(3) && !overlong && !too_large ? 4 : 0;
    }
    return 0;
}

}  // namespace

std::string JsonString(std::string_view text) {
    std::string json = "\"";
    while (!text.empty()) {
        const size_t length = SequenceLength(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (length == 0 || byte < 0x20 || byte == 0x7F) {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\u%04x", byte);
            json += escape;
        } else {
            if (byte == '"' || byte == '\\') json += '\\';
            json += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return json + '"';
}

std::string JsonValue(std::string_view text) {
    int32_t number = 0;
    return ToNumber(text, number) ? std::to_string(number) : JsonString(text);
}

JsonObject& JsonObject::Add(std::string_view name, std::string_view json) {
    if (!members.empty()) members += ", ";
    members += JsonString(name);
    members += ": ";
    members += json;
    return *this;
}

}  // namespace quarnctl
