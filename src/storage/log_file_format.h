// The framing of a log file. docs/log-file-format.md describes the whole format.
//
//   file  = header, block*, and at most one stray byte
//   block = raw length 3 + packed length 3 + one Snappy raw block (packed length)
//
// The log-format library writes the header. The numbers are sizes in bytes; both lengths are
// little-endian. A block holds the bytes of one write to the storage channel. A close that flushes
// adds the stray byte. A reader stops where fewer than `kBlockHeaderSize` bytes remain.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quarn::log_file {

constexpr size_t kLengthSize = 3;
constexpr size_t kBlockHeaderSize = kLengthSize + kLengthSize;
// The size in bytes of the buffer that collects blocks before they are written to the file.
constexpr size_t kCompressBufSize = size_t{1024} * 1024;
// The largest length that fits into a block header.
constexpr uint32_t kMaxLength = (1u << (8 * kLengthSize)) - 1;

struct BlockHeader {
    uint32_t raw_length;     // bytes after decompression
    uint32_t packed_length;  // bytes of the Snappy block that follows
};

inline void PutLength(uint8_t* out, uint32_t length) {
    out[0] = static_cast<uint8_t>(length);
    out[1] = static_cast<uint8_t>(length >> 8);
    out[2] = static_cast<uint8_t>(length >> 16);
}

inline uint32_t GetLength(const uint8_t* in) {
    return in[0] | static_cast<uint32_t>(in[1]) << 8 | static_cast<uint32_t>(in[2]) << 16;
}

// REQUIRES: both lengths <= kMaxLength.
inline void PutBlockHeader(uint8_t* out, BlockHeader header) {
    PutLength(out, header.raw_length);
    PutLength(out + kLengthSize, header.packed_length);
}

inline BlockHeader GetBlockHeader(const uint8_t* in) {
    return {GetLength(in), GetLength(in + kLengthSize)};
}

}  // namespace quarn::log_file
