#include "tools/muxz/block.h"

#include <snappy-c.h>

#include <algorithm>
#include <cstring>

namespace muxz {

using quarn::log_file::BlockHeader;
using quarn::log_file::GetBlockHeader;
using quarn::log_file::kBlockHeaderSize;
using quarn::log_file::kLengthSize;

namespace {

const char* AsChars(Bytes bytes) { return reinterpret_cast<const char*>(bytes.data()); }

}  // namespace

std::optional<Varint> GetVarint(Bytes in) {
    uint64_t value = 0;
    for (size_t i = 0; i < std::min(in.size(), kMaxVarint); ++i) {
        value |= static_cast<uint64_t>(in[i] & 0x7f) << (7 * i);
        if ((in[i] & 0x80) == 0) {
            if (value > UINT32_MAX) return std::nullopt;
            return Varint{static_cast<uint32_t>(value), i + 1};
        }
    }
    return std::nullopt;
}

bool UnpackTo(Bytes packed, size_t raw_length, uint8_t* out) {
    size_t length = raw_length;
    return snappy_uncompress(AsChars(packed), packed.size(), reinterpret_cast<char*>(out),
                             &length) == SNAPPY_OK &&
           length == raw_length;
}

bool IsPacked(Bytes packed) {
    return snappy_validate_compressed_buffer(AsChars(packed), packed.size()) == SNAPPY_OK;
}

// Snappy produces at most `snappy_max_compressed_length` bytes, and three packed bytes make at most
// 64 raw bytes.
bool LooksLikeBlock(Bytes bytes) {
    if (bytes.size() < kLeastBlock) return false;
    const BlockHeader lengths = GetBlockHeader(bytes.data());
    if (lengths.raw_length == 0 || lengths.packed_length < kLeastBlock - kBlockHeaderSize)
        return false;
    const std::optional<Varint> length = GetVarint(bytes.subspan(kBlockHeaderSize));
    if (!length || length->value != lengths.raw_length) return false;
    if (length->size > 1 && length->value >> (7 * (length->size - 1)) == 0) return false;
    return lengths.packed_length <= snappy_max_compressed_length(lengths.raw_length) &&
           lengths.raw_length <= uint64_t{lengths.packed_length - length->size} * 64 / 3;
}

size_t FirstCandidate(Bytes bytes) {
    const size_t end = bytes.size() - kLeastBlock + 1;
    size_t i = 0;
    while (i < end) {
        // Skip long runs of zeros fast, as in sparse files. A block with raw length 0 does not
        // count.
        uint64_t word;
        memcpy(&word, bytes.data() + i, sizeof(word));
        if (word == 0) {
            i += sizeof(word) - kLengthSize + 1;
            continue;
        }
        // Nearly all other offsets fail this fast test of the low bits of the two raw lengths.
        if (((bytes[i] ^ bytes[i + kBlockHeaderSize]) & 0x7f) == 0 &&
            LooksLikeBlock(bytes.subspan(i)))
            return i;
        ++i;
    }
    return end;
}

}  // namespace muxz
