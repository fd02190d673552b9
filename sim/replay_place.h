// Where a replay stands: kept in a file of the modem's folder, so that it outlives the process.
//
//   replay_place = place as 20 decimal digits + blank + path of the replayed file + newline
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sim/modem.h"

namespace sim {

// The place kept in `folder` for the file `path`; 0 when none or another file's is kept, or when
// the file has become shorter than that.
uint64_t ReadReplayPlace(const std::string& folder, const std::string& path);

// A replay source that keeps its place in `folder`: whatever a read has handed over is counted
// before the read returns, a kill -9 included. Null, with errno set, when either file cannot be
// opened.
std::unique_ptr<LogSource> MakeKeptReplaySource(const std::string& folder, const std::string& path,
                                                uint64_t offset);

}  // namespace sim
