// The blocks that wait for their way into the log file: compressed, framed, one behind the other
// (log_file_format.h).
//
// Works in memory only. Takes no lock and logs nothing; the owner calls it from one thread at a
// time.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "storage/log_file_format.h"

namespace quarn::zorvex {

class BlockBuffer {
  public:
    // Returns true if an empty buffer has room for `raw_length` bytes, however badly they compress.
    static bool CanHold(size_t raw_length);
    // Returns true if there is room for them behind the blocks that are in the buffer already.
    bool HasRoomFor(size_t raw_length) const;
    // Compresses `raw` into one block at the end. Returns false, with the buffer as it was, if the
    // compressor fails. REQUIRES: HasRoomFor(raw.size()).
    bool Append(std::string_view raw);

    bool empty() const { return used == 0; }
    // All blocks.
    std::string_view bytes() const { return {buffer.data(), used}; }
    // All blocks, and one byte of any value, for which there always is room.
    std::string_view bytes_and_stray() const { return {buffer.data(), used + 1}; }

    // The blocks that end within the first `size` bytes. `size` may be larger than the buffer.
    std::string_view BlocksWithin(size_t size) const;
    // Drops these. The others move to the front.
    void DropBlocksWithin(size_t size);
    void Clear() { used = 0; }

  private:
    // The most that a block of `raw_length` bytes takes.
    static size_t MostNeeded(size_t raw_length);

    std::array<char, log_file::kCompressBufSize> buffer{};
    size_t used = 0;  // bytes; always below the buffer's size
};

}  // namespace quarn::zorvex
