// The place of a replay, which is kept in a file in the modem's folder over a restart of the
// process.
//
//   replay_place = place, 20 decimal digits + blank + path of the replayed file + newline
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sim/modem.h"

namespace sim {

// Returns the place that `folder` has for the file `path`. Returns 0 if it has none or that of
// another file, or if the file is now shorter.
uint64_t ReadReplayPlace(const std::string& folder, const std::string& path);

// Returns a replay source that keeps its place in `folder`. Each read stores the new place before
// it returns, so the place is right even after a kill -9. Returns null with errno set if one of the
// two files cannot be opened.
std::unique_ptr<LogSource> MakeKeptReplaySource(const std::string& folder, const std::string& path,
                                                uint64_t offset);

}  // namespace sim
