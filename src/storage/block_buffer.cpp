#include "storage/block_buffer.h"

#include <snappy-c.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace quarn::zorvex {

using log_file::kBlockHeaderSize;
using log_file::kCompressBufSize;

// The lengths of every block in the buffer fit into a block header.
static_assert(kCompressBufSize <= log_file::kMaxLength);

size_t BlockBuffer::MostNeeded(size_t raw_length) {
    return kBlockHeaderSize + snappy_max_compressed_length(raw_length);
}

// Less than the size, since the stray byte needs one byte of the buffer.
bool BlockBuffer::CanHold(size_t raw_length) { return MostNeeded(raw_length) < kCompressBufSize; }

bool BlockBuffer::HasRoomFor(size_t raw_length) const {
    return used + MostNeeded(raw_length) < kCompressBufSize;
}

bool BlockBuffer::Append(std::string_view raw) {
    char* const block = buffer.data() + used;
    size_t packed_length = kCompressBufSize - used - kBlockHeaderSize;
    if (snappy_compress(raw.data(), raw.size(), block + kBlockHeaderSize, &packed_length) !=
        SNAPPY_OK) {
        return false;
    }
    log_file::PutBlockHeader(
        reinterpret_cast<uint8_t*>(block),
        {static_cast<uint32_t>(raw.size()), static_cast<uint32_t>(packed_length)});
    used += kBlockHeaderSize + packed_length;
    return true;
}

std::string_view BlockBuffer::BlocksWithin(size_t size) const {
    const size_t limit = std::min(size, used);
    size_t blocks = 0;  // size in bytes of the blocks found so far
    while (blocks + kBlockHeaderSize <= limit) {
        const auto lengths =
            log_file::GetBlockHeader(reinterpret_cast<const uint8_t*>(buffer.data() + blocks));
        const size_t end = blocks + kBlockHeaderSize + lengths.packed_length;
        if (end > limit) break;
        blocks = end;
    }
    return {buffer.data(), blocks};
}

void BlockBuffer::DropBlocksWithin(size_t size) {
    const size_t dropped = BlocksWithin(size).size();
    used -= dropped;
    memmove(buffer.data(), buffer.data() + dropped, used);
}

}  // namespace quarn::zorvex
