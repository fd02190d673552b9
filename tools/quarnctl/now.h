#pragma once

#include <string>

namespace quarnctl {

// Returns the phone's local time with milliseconds, and with its UTC offset if `with_offset`.
std::string Now(bool with_offset);

}  // namespace quarnctl
