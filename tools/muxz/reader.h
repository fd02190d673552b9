// Decodes log files: header, blocks, and blocks without a header. docs/log-file-format.md is the
// page beside it; tree.h finds the files.
//
// Any bytes may be thrown at it. Memory is bounded by what a 24-bit length can say: a window and
// one unpacked block, each under 18 MiB, and as much as the file really needs. No state is shared;
// an object belongs to one thread at a time.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/qrx_log_format.h"
#include "storage/log_file_format.h"

namespace muxz {

using Bytes = std::span<const uint8_t>;

// Where the bytes of a file come from. It may grow or shrink meanwhile.
class Source {
  public:
    virtual ~Source() = default;
    // Up to `size` bytes from `offset`; 0 only at the end, -1 with errno.
    virtual ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) = 0;
};

class MemorySource : public Source {
  public:
    explicit MemorySource(Bytes file) : bytes(file) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;

  private:
    const Bytes bytes;
};

// A regular file; the descriptor stays the caller's.
class FileSource : public Source {
  public:
    explicit FileSource(int open_fd) : fd(open_fd) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;

  private:
    const int fd;
};

// --- header

enum class HeaderState {
    kWhole,
    kEmpty,    // no bytes at all
    kCut,      // the file ends within it
    kUnknown,  // begins with something else
    kDamaged,  // its lengths contradict each other
    kReadError,
};
std::string_view Text(HeaderState state);

struct Header {
    uint16_t version;
    uint16_t reserved;
    uint32_t length;             // bytes; the first block follows
    bool known_version;          // false: the fields below are zero
    QRX_LOG_FORMAT_AP phone;     // its address is null, the block is in `custom`
    QRX_LOG_FORMAT_MODEM modem;  // its address is null, the record is in `modem_record`
    std::array<uint8_t, kMdInfoRecordSize> modem_record;
    std::vector<uint8_t> custom;
};

// Parses the header at the front of a file, of which `front` holds the first 65,795 bytes or all.
HeaderState ParseHeader(Bytes front, Header& header);
HeaderState ReadHeader(Source& source, Header& header);

struct CustomEntry {
    uint8_t type;
    Bytes value;
};
// The entries of a custom block up to the first that does not fit; `rest` is what follows the last.
std::vector<CustomEntry> ParseCustomBlock(Bytes block, Bytes& rest);

// --- blocks

struct Block {
    uint64_t offset;  // of its lengths in the file
    quarn::log_file::BlockHeader lengths;
    Bytes packed;  // the Snappy block, until the next call of the reader
};

// A part of a file in memory that moves on with the reader.
class Window {
  public:
    // Reads about `read_size` bytes at a time, more when more is wanted.
    Window(Source& from, size_t read_size) : source(from), piece(read_size) {}

    // The bytes from `offset` on: `size` of them or more, fewer only where the file ends or cannot
    // be read. Valid until the next call.
    Bytes At(uint64_t offset, size_t size);
    // errno of a failed read, 0 when all went well.
    int error() const { return read_error; }

  private:
    void MakeRoom(uint64_t offset, size_t size);

    Source& source;
    const size_t piece;
    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    uint64_t start = 0;  // offset of the first byte in the buffer
    size_t used = 0;
    int read_error = 0;
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

// Walks the blocks from the first to the last. A file that grows is followed to where it ends at
// the moment when the walk gets there.
class BlockReader {
  public:
    enum class Mode {
        kBytes,    // blocks come with their bytes
        kLengths,  // only the lengths are read, `Block::packed` is empty: for statistics
    };

    BlockReader(Source& source, uint64_t first_block, Mode wanted = Mode::kBytes);

    // The next block, its lengths checked against each other and against the file. False where the
    // blocks end.
    bool Next(Block& block);
    // Unpacks `block`, which came last and with its bytes, to `lengths.raw_length` bytes at `out`.
    // On false the walk has ended there, damaged.
    bool Unpack(const Block& block, uint8_t* out);
    // As `Unpack`, but only looks whether it could.
    bool Check(const Block& block);

    End end() const { return how; }
    uint64_t offset() const { return at; }      // behind the last good block
    uint64_t trailing() const { return rest; }  // bytes seen behind it: of a stray or cut end
    // What is wrong at `offset()`, for people; empty for `kWhole` and `kStrayByte`.
    const std::string& reason() const { return text; }

  private:
    bool EndWith(End end, std::string why);
    bool Judge(const Block& block, bool valid);

    Window window;
    const Mode mode;
    uint64_t at;
    uint64_t next;
    End how = End::kWhole;
    uint64_t rest = 0;
    std::string text;
};

// --- recovery

// Bytes that belong to no block that could be found.
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
    size_t trailing = 0;    // 0 to 5 bytes behind the last block, not counted as skipped
    bool ends_cut = false;  // the last gap looks like the front of a block
    int error = 0;          // errno of a failed read, after which nothing was looked at
};

struct RecoverySinks {
    std::function<void(uint64_t offset, Bytes raw)> block;
    std::function<void(Gap)> gap;
    std::function<void(uint64_t offset)> progress;  // now and then, while nothing is found
};

// Finds every block that still unpacks, whatever lies before, between and behind them.
//
// Where one block ends the next is expected. When there is none, each following offset is tried:
// the raw length must stand again at the front of the Snappy block, the packed length must be one
// that Snappy can produce from it, and all of it must unpack. A block of a few bytes may look like
// one by chance (tables of small numbers do), so one of under 64 raw bytes counts only when another
// block or the end of the file follows it, and an empty one never does. Work on candidates that
// fail is limited to a multiple of the bytes gone by.
Recovery Recover(Source& source, const RecoverySinks& sinks);

}  // namespace muxz
