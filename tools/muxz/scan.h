// What one file says of itself.
#pragma once

#include <functional>

#include "tools/muxz/listing.h"
#include "tools/muxz/model.h"

namespace muxz {

struct ScanOptions {
    Depth depth = Depth::kHeaders;
    // Called now and then, with the bytes of the file gone by since the last call. Returns false to
    // stop the scan there.
    std::function<bool(uint64_t bytes)> progress;
};

// Thread-safe: reads `file` and nothing else.
FileFacts ScanFile(const FoundFile& file, const ScanOptions& options);

}  // namespace muxz
