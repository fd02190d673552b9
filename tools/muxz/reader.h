// Reads the blocks of a log file, one after the other. docs/log-file-format.md describes the
// format. header.h finds out where the blocks begin. recovery.h reads files for which this is
// unknown.
//
// The input may be any bytes. A reader uses only as much memory as the file needs, and at most a
// window and one unpacked block. Each of these is smaller than 18 MiB, since lengths have 24 bits.
//
// Readers share no state. Not thread-safe: one thread at a time may use a reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "storage/log_file_format.h"
#include "tools/muxz/header.h"
#include "tools/muxz/source.h"

namespace muxz {

struct Block {
    uint64_t offset;  // offset of the block's lengths in the file
    quarn::log_file::BlockHeader lengths;
    Bytes packed;  // the Snappy block; valid until the next call of the reader
};

// How the blocks of a file end.
enum class End {
    kWhole,       // nothing follows the last block
    kStrayByte,   // one byte follows, as after a close with a flush
    kCutLengths,  // 2 to 5 bytes follow: the lengths of a block that was cut
    kCutBlock,    // the file ends within a block
    kDamaged,     // bytes follow that are no valid block
    kReadError,
};

// A range of bytes in a file in which no block was found.
struct Loss {
    uint64_t offset;
    uint64_t length;
    // Number of lost raw bytes, from the lengths of the lost blocks. No value if unknown.
    std::optional<uint64_t> raw;
};

class BlockSearch;

// Reads the blocks from the first to the last. If the file grows, the reader stops at the end that
// the file has when the reader gets there.
class BlockReader {
  public:
    enum class Mode {
        kBytes,    // reads the blocks completely
        kLengths,  // reads only the lengths, and leaves `Block::packed` empty
    };

    // `first_block` is the offset of the first block. `source` is not owned.
    BlockReader(Source& source, uint64_t first_block, Mode wanted = Mode::kBytes);
    ~BlockReader();

    // Returns true and sets `block` to the next block. Checks that the two copies of the raw length
    // agree, and that the block lies within the file. Returns false if there is no such block; then
    // `end()` says why.
    bool Next(Block& block);
    // Unpacks `block` to `block.lengths.raw_length` bytes at `out`. Returns false if the block does
    // not unpack; the reader then stays in front of this block, and `end()` is kDamaged.
    // REQUIRES: `block` is from the last call of Next, and the mode is kBytes.
    bool Unpack(const Block& block, uint8_t* out);
    // As `Unpack`, but only checks that the block unpacks.
    bool Check(const Block& block);

    // Searches for the next block behind damage, or behind a block whose lengths lead out of the
    // file, in the same way as recovery does. Returns true if there is one; `Next` then returns it.
    // `loss` is the range that was skipped. Its length is 0 if the file just ends within its last
    // block.
    bool GoOn(Loss& loss);

    End end() const { return how; }
    // Offset behind the last good block.
    uint64_t offset() const { return at; }
    // Number of bytes behind `offset()`: a stray byte, or a block that was cut.
    uint64_t trailing() const { return rest; }
    // What is wrong at `offset()`, for people. Empty for `kWhole` and `kStrayByte`.
    const std::string& reason() const { return text; }

  private:
    bool EndWith(End end, std::string why);
    bool Judge(const Block& block, bool valid);

    Window window;
    std::unique_ptr<BlockSearch> search;  // null until the first damage
    uint64_t searched = 0;                // offset where the last search ended
    const Mode mode;
    uint64_t at;
    uint64_t next;
    End how = End::kWhole;
    uint64_t rest = 0;
    std::string text;
};

}  // namespace muxz
