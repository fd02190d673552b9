// The model for programs. docs/muxz-json.md is the page beside it.
#pragma once

#include <string>

#include "tools/muxz/model.h"

namespace muxz {

// One object, with a line's end behind it. `command`: info, ls, verify or check.
std::string Json(const Model& model, const std::string& command);
// Prints it and returns the exit status.
int PrintJson(const Model& model, const std::string& command);

}  // namespace muxz
