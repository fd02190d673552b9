// What the bytes of one block say: its lengths, and the Snappy data behind them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "storage/log_file_format.h"
#include "tools/muxz/source.h"

namespace muxz {

constexpr size_t kMaxVarint = 5;  // bytes of a 32-bit number
// A number, a tag and a byte: the shortest Snappy data that is not empty.
constexpr size_t kLeastBlock = quarn::log_file::kBlockHeaderSize + 1 + 1 + 1;

// The number that Snappy data begins with, the size of what it unpacks to.
struct Varint {
    uint32_t value;
    size_t size;  // bytes
};
std::optional<Varint> GetVarint(Bytes in);

// Returns true if `packed` unpacks to exactly `raw_length` bytes, which go to `out`.
bool UnpackTo(Bytes packed, size_t raw_length, uint8_t* out);
// Returns true if `packed` would unpack.
bool IsPacked(Bytes packed);

// Returns true if a block of some raw bytes may begin here, by its first bytes alone: it says its
// raw length twice, and a packed length that Snappy can make of it.
bool LooksLikeBlock(Bytes bytes);

// The first place in `bytes` where a block may begin; where too few bytes remain when there is
// none. REQUIRES: `bytes` hold at least kLeastBlock.
size_t FirstCandidate(Bytes bytes);

}  // namespace muxz
