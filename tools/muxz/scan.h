// Reads one file and collects what its name and its bytes say.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "tools/muxz/listing.h"
#include "tools/muxz/model.h"

namespace muxz {

struct ScanOptions {
    Depth depth = Depth::kHeaders;
    // Length in bytes of a header of unknown layout, if the other files of the folder agree on it.
    std::optional<uint64_t> foreign_header;
    // Called at intervals, with the number of bytes of the file read since the last call.
    std::function<void(uint64_t bytes)> progress;
};

// Thread-safe: reads only `file`, and shares no state.
FileFacts ScanFile(const FoundFile& file, const ScanOptions& options);

}  // namespace muxz
