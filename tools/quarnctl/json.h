// Builds JSON texts. quarnctl also runs on phones, so it uses no JSON library.
#pragma once

#include <string>
#include <string_view>

namespace quarnctl {

// Returns `text` as a JSON string. Control characters, and bytes that are not valid UTF-8, become
// \u escapes.
std::string JsonString(std::string_view text);

// Returns a JSON number if `text` is a decimal number that fits 32 bits, else a JSON string.
std::string JsonValue(std::string_view text);

class JsonObject {
  public:
    // Adds a member. `json` is its value as JSON text.
    JsonObject& Add(std::string_view name, std::string_view json);
    std::string Text() const { return '{' + members + '}'; }

  private:
    std::string members;
};

}  // namespace quarnctl
