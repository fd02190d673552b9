// The version of quarn and of its tools. The build reads it from here.
#pragma once

namespace quarn {

inline constexpr const char* kVersion = "1.0.0";

}  // namespace quarn
