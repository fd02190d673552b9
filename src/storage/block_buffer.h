// A buffer of compressed blocks that are not in the log file yet. log_file_format.h describes the
// format of a block.
//
// Works in memory only and logs nothing. Not thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "storage/log_file_format.h"

namespace quarn::zorvex {

class BlockBuffer {
  public:
    // Returns true if a block of `raw_length` bytes fits into an empty buffer, even if the bytes do
    // not compress.
    static bool CanHold(size_t raw_length);
    // Returns true if such a block fits after the blocks that the buffer holds.
    bool HasRoomFor(size_t raw_length) const;
    // Compresses `raw` into one block and appends it. Returns false, and leaves the buffer
    // unchanged, if the compressor fails. REQUIRES: HasRoomFor(raw.size()).
    bool Append(std::string_view raw);

    bool empty() const { return used == 0; }
    // Returns all blocks. Each view of this class is valid until the buffer changes.
    std::string_view bytes() const { return {buffer.data(), used}; }
    // Returns all blocks, followed by one stray byte of any value.
    std::string_view bytes_and_stray() const { return {buffer.data(), used + 1}; }

    // Returns the blocks that end within the first `size` bytes. `size` may be larger than the
    // buffer.
    std::string_view BlocksWithin(size_t size) const;
    // Drops those blocks and moves the other blocks to the front.
    void DropBlocksWithin(size_t size);
    void Clear() { used = 0; }

  private:
    // Returns the largest size of a block of `raw_length` bytes.
    static size_t MostNeeded(size_t raw_length);

    std::array<char, log_file::kCompressBufSize> buffer{};
    // In bytes. Always less than the buffer's size, so that the stray byte fits.
    size_t used = 0;
};

}  // namespace quarn::zorvex
