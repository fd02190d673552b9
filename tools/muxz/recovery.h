// Finds the intact blocks of a file about which nothing is known, not even its header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tools/muxz/header.h"
#include "tools/muxz/source.h"

namespace muxz {

// A range of bytes that belongs to no block.
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
    size_t trailing = 0;    // 0 to 5 bytes behind the last block; `skipped` does not include them
    bool ends_cut = false;  // the last gap looks like the beginning of a block
    int error = 0;          // errno of a failed read, which ended the recovery; else 0
};

struct RecoverySinks {
    std::function<void(uint64_t offset, Bytes raw)> block;
    std::function<void(Gap)> gap;
    std::function<void(uint64_t offset)> progress;  // called at intervals while no block is found
};

// Finds every block that still unpacks, and calls the functions in `sinks`. Any bytes may lie
// before, between and behind the blocks.
//
// A block is expected directly behind another block. If there is none, each following offset is
// tried. To count there, a block must pass these tests:
//
// - The raw length stands a second time at the start of the Snappy block.
// - Snappy can produce the packed length from the raw length.
// - The block unpacks, and is not empty.
// - It has at least 64 raw bytes, or another block or the end of the file follows. Tables of small
//   numbers look like a block of a few bytes by chance.
//
// The work for candidates that fail is limited to a multiple of the bytes that the search passed.
Recovery Recover(Source& source, const RecoverySinks& sinks);

}  // namespace muxz
