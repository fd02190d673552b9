// A JSON text, built member by member. quarnctl runs on phones too, so it brings no library for it.
#pragma once

#include <string>
#include <string_view>

namespace quarnctl {

// A JSON string. Bytes below 0x20, and those of a text that is no UTF-8, become \u escapes.
std::string JsonString(std::string_view text);

// A number when `text` is a decimal one of 32 bits, else a string.
std::string JsonValue(std::string_view text);

class JsonObject {
  public:
    // `json` is a JSON text already.
    JsonObject& Add(std::string_view name, std::string_view json);
    std::string Text() const { return '{' + members + '}'; }

  private:
    std::string members;
};

}  // namespace quarnctl
