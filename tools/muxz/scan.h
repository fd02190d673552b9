// What one file says of itself.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "tools/muxz/listing.h"
#include "tools/muxz/model.h"

namespace muxz {

struct ScanOptions {
    Depth depth = Depth::kHeaders;
    // Bytes that a header of another writer has, when the files beside it agree on that.
    std::optional<uint64_t> foreign_header;
    // Called now and then, with the bytes of the file gone by since the last call.
    std::function<void(uint64_t bytes)> progress;
};

// Thread-safe: reads `file` and nothing else.
FileFacts ScanFile(const FoundFile& file, const ScanOptions& options);

}  // namespace muxz
