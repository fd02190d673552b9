// Walks the blocks of a log file. docs/log-file-format.md is the page beside it; header.h tells
// where the blocks begin, recovery.h takes files apart of which not even that is known.
//
// Any bytes may be thrown at it. Memory is bounded by what a 24-bit length can say: a window and
// one unpacked block, each under 18 MiB, and as much as the file really needs. No state is shared;
// an object belongs to one thread at a time.
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
    uint64_t offset;  // of its lengths in the file
    quarn::log_file::BlockHeader lengths;
    Bytes packed;  // the Snappy block, until the next call of the reader
};

// How the blocks of a file end.
enum class End {
    kWhole,       // with the last block
    kStrayByte,   // with one byte more, as a flushed close leaves it
    kCutLengths,  // with 2 to 5 bytes: the lengths of a block that was cut
    kCutBlock,    // within a block
    kDamaged,     // a block that cannot be one
    kReadError,
};

// Bytes of a file in which no block could be found.
struct Loss {
    uint64_t offset;
    uint64_t length;
    std::optional<uint64_t> raw;  // bytes that the lengths of the lost blocks say; none: unknown
};

class BlockSearch;

// Walks the blocks from the first to the last. A file that grows is followed to where it ends at
// the moment when the walk gets there.
class BlockReader {
  public:
    enum class Mode {
        kBytes,    // blocks come with their bytes
        kLengths,  // only the lengths are read, `Block::packed` is empty: for statistics
    };

    BlockReader(Source& source, uint64_t first_block, Mode wanted = Mode::kBytes);
    ~BlockReader();

    // The next block, its lengths checked against each other and against the file. False where the
    // blocks end.
    bool Next(Block& block);
    // Unpacks `block`, which came last and with its bytes, to `lengths.raw_length` bytes at `out`.
    // On false the walk has ended there, damaged.
    bool Unpack(const Block& block, uint8_t* out);
    // As `Unpack`, but only looks whether it could.
    bool Check(const Block& block);

    // Behind damage, or behind a block whose lengths lead out of the file, finds the next block as
    // recovery does. Returns true if the walk goes on there. `loss` tells what was passed over; it
    // has no bytes where the file simply ends within its last block.
    bool GoOn(Loss& loss);

    End end() const { return how; }
    uint64_t offset() const { return at; }      // behind the last good block
    uint64_t trailing() const { return rest; }  // bytes seen behind it: of a stray or cut end
    // What is wrong at `offset()`, for people; empty for `kWhole` and `kStrayByte`.
    const std::string& reason() const { return text; }

  private:
    bool EndWith(End end, std::string why);
    bool Judge(const Block& block, bool valid);

    Window window;
    std::unique_ptr<BlockSearch> search;  // once there was damage
    uint64_t searched = 0;                // up to where its search went last
    const Mode mode;
    uint64_t at;
    uint64_t next;
    End how = End::kWhole;
    uint64_t rest = 0;
    std::string text;
};

}  // namespace muxz
