// Takes a file apart of which nothing is known: what header it has, and which bytes are whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tools/muxz/header.h"
#include "tools/muxz/source.h"

namespace muxz {

// Bytes that belong to no block that could be found.
struct Gap {
    uint64_t offset;
    uint64_t length;
};

struct Recovery {
    HeaderState header;
    uint64_t blocks = 0;
    uint64_t raw_bytes = 0;
    uint64_t gaps = 0;
    uint64_t skipped = 0;   // bytes in gaps
    uint64_t end = 0;       // offset where the file ended
    size_t trailing = 0;    // 0 to 5 bytes behind the last block, not counted as skipped
    bool ends_cut = false;  // the last gap looks like the front of a block
    int error = 0;          // errno of a failed read, after which nothing was looked at
};

struct RecoverySinks {
    std::function<void(uint64_t offset, Bytes raw)> block;
    std::function<void(Gap)> gap;
    std::function<void(uint64_t offset)> progress;  // now and then, while nothing is found
};

// Finds every block that still unpacks, whatever lies before, between and behind them.
//
// Where one block ends the next is expected. When there is none, each following offset is tried:
// the raw length must stand again at the front of the Snappy block, the packed length must be one
// that Snappy can produce from it, and all of it must unpack. A block of a few bytes may look like
// one by chance (tables of small numbers do), so one of under 64 raw bytes counts only when another
// block or the end of the file follows it, and an empty one never does. Work on candidates that
// fail is limited to a multiple of the bytes gone by.
Recovery Recover(Source& source, const RecoverySinks& sinks);

}  // namespace muxz
