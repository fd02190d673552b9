// Prints the model as JSON. docs/muxz-json.md describes the fields.
#pragma once

#include <string>

#include "tools/muxz/model.h"

namespace muxz {

// Returns one JSON object and a newline. `command` is info, ls, verify or check.
std::string Json(const Model& model, const std::string& command);
// Prints the object on standard output. Returns the exit status.
int PrintJson(const Model& model, const std::string& command);

}  // namespace muxz
