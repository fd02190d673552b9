// Parses the bytes of one block: its lengths, and the Snappy data behind them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "storage/log_file_format.h"
#include "tools/muxz/source.h"

namespace muxz {

constexpr size_t kMaxVarint = 5;  // bytes of a 32-bit number
// Size of the smallest block that is not empty. Its Snappy data is a varint, a tag and one byte.
constexpr size_t kLeastBlock = quarn::log_file::kBlockHeaderSize + 1 + 1 + 1;

// The number at the start of Snappy data: the size of the unpacked data in bytes.
struct Varint {
    uint32_t value;
    size_t size;  // bytes
};
// Returns no value if `in` does not begin with a complete varint of at most 32 bits.
std::optional<Varint> GetVarint(Bytes in);

// Unpacks `packed` to `out`. Returns true if the result has exactly `raw_length` bytes.
// REQUIRES: `out` has room for `raw_length` bytes.
bool UnpackTo(Bytes packed, size_t raw_length, uint8_t* out);
// Returns true if `packed` is valid Snappy data. Unpacks nothing.
bool IsPacked(Bytes packed);

// Returns true if a block that is not empty may begin at the start of `bytes`. Checks only the
// first bytes: both copies of the raw length are equal, and Snappy can produce the packed length
// from it.
bool LooksLikeBlock(Bytes bytes);

// Returns the first offset in `bytes` where a block may begin. If there is none, returns the first
// offset that has fewer than kLeastBlock bytes behind it. REQUIRES: `bytes` has at least
// kLeastBlock bytes.
size_t FirstCandidate(Bytes bytes);

}  // namespace muxz
