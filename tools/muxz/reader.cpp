#include "tools/muxz/reader.h"

#include <snappy-c.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "sim/qrx_log_header.h"

namespace muxz {

using quarn::log_file::BlockHeader;
using quarn::log_file::GetBlockHeader;
using quarn::log_file::kBlockHeaderSize;
using quarn::log_file::kLengthSize;
using quarn::log_file::kMaxLength;

static_assert(sizeof(off_t) == 8, "files may be larger than 2 GiB");

ssize_t MemorySource::ReadAt(uint64_t offset, uint8_t* out, size_t size) {
    if (offset >= bytes.size()) return 0;
    const Bytes piece = bytes.subspan(static_cast<size_t>(offset));
    size = std::min(size, piece.size());
    memcpy(out, piece.data(), size);
    return static_cast<ssize_t>(size);
}

ssize_t FileSource::ReadAt(uint64_t offset, uint8_t* out, size_t size) {
    ssize_t got;
    do {
        got = pread(fd, out, size, static_cast<off_t>(offset));
    } while (got == -1 && errno == EINTR);
    return got;
}

// --- header

namespace {

uint32_t Get32(const uint8_t* in) {
    return in[0] | static_cast<uint32_t>(in[1]) << 8 | static_cast<uint32_t>(in[2]) << 16 |
           static_cast<uint32_t>(in[3]) << 24;
}
uint16_t Get16(const uint8_t* in) { return static_cast<uint16_t>(in[0] | in[1] << 8); }

// Fills the fields of version 1 from a whole header.
void TakeRecords(const uint8_t* in, Header& header) {
    using namespace sim::log_header;
    header.phone.compress_buf_size = Get32(in + kCompressBufSizeAt);
    header.phone.folder_time = Get32(in + kFolderTimeAt);
    header.phone.file_idx = Get32(in + kFileIdxAt);
    header.phone.reserved_12 = Get32(in + kApReservedAt);
    header.phone.custom_header.present = in[kCustomPresentAt];
    header.phone.custom_header.reserved_1 = in[kCustomPresentAt + 1];
    header.phone.custom_header.length = Get16(in + kCustomLengthAt);
    header.phone.custom_header.reserved_4 = Get32(in + kCustomReservedAt);
    header.modem.md_info_word_b = Get32(in + kMdInfoWordBAt);
    header.modem.md_info_word_a = Get32(in + kMdInfoWordAAt);
    header.modem.md_info_time = Get32(in + kMdInfoTimeAt);
    header.modem.reserved_20 = Get32(in + kModemReservedAt);
    std::copy_n(in + kMdInfoAt, kMdInfoRecordSize, header.modem_record.begin());
    header.custom.assign(in + kCustomBlockAt, in + header.length);
}

}  // namespace

std::string_view Text(HeaderState state) {
    switch (state) {
        case HeaderState::kWhole:
            return "whole header";
        case HeaderState::kEmpty:
            return "empty file, no header";
        case HeaderState::kCut:
            return "the file ends within its header";
        case HeaderState::kUnknown:
            return "unknown header";
        case HeaderState::kDamaged:
            return "damaged header";
        case HeaderState::kReadError:
            return "the header cannot be read";
    }
    return "";
}

HeaderState ParseHeader(Bytes front, Header& header) {
    using namespace sim::log_header;
    header = {};
    if (front.empty()) return HeaderState::kEmpty;
    const size_t magic_size = std::min(front.size(), kMagic.size());
    if (memcmp(front.data(), kMagic.data(), magic_size) != 0) return HeaderState::kUnknown;
    if (front.size() < kFixedSize) return HeaderState::kCut;

    header.version = Get16(front.data() + kVersionAt);
    header.reserved = Get16(front.data() + kReservedAt);
    header.length = Get32(front.data() + kLengthAt);
    header.known_version = header.version == kVersion;
    if (!header.known_version)
        return header.length < kFixedSize ? HeaderState::kDamaged : HeaderState::kWhole;

    if (header.length < kCustomBlockAt || header.length > kMaxSize) return HeaderState::kDamaged;
    if (front.size() < kCustomBlockAt) return HeaderState::kCut;
    if (kCustomBlockAt + Get16(front.data() + kCustomLengthAt) != header.length)
        return HeaderState::kDamaged;
    if (front.size() < header.length) return HeaderState::kCut;
    TakeRecords(front.data(), header);
    return HeaderState::kWhole;
}

HeaderState ReadHeader(Source& source, Header& header) {
    Window window(source, 4096);
    HeaderState state = ParseHeader(window.At(0, 1), header);
    if (state == HeaderState::kCut)
        state = ParseHeader(window.At(0, sim::log_header::kMaxSize), header);
    // A version that is not known says its length, but its bytes were not needed.
    if (state == HeaderState::kWhole && window.At(header.length - 1, 1).empty())
        state = HeaderState::kCut;
    return window.error() != 0 ? HeaderState::kReadError : state;
}

std::vector<CustomEntry> ParseCustomBlock(Bytes block, Bytes& rest) {
    constexpr size_t kEntryHeaderSize = 3;
    std::vector<CustomEntry> entries;
    while (block.size() >= kEntryHeaderSize) {
        const size_t length = Get16(block.data() + 1);
        if (block.size() - kEntryHeaderSize < length) break;
        entries.push_back({block[0], block.subspan(kEntryHeaderSize, length)});
        block = block.subspan(kEntryHeaderSize + length);
    }
    rest = block;
    return entries;
}

// --- blocks

Bytes Window::At(uint64_t offset, size_t size) {
    const bool inside = offset >= start && offset - start <= used;
    if (!inside || used - (offset - start) < size) {
        MakeRoom(offset, size);
        while (used < size) {
            const size_t wanted = std::min(capacity - used, std::max(size - used, piece));
            const ssize_t got = source.ReadAt(start + used, buffer.get() + used, wanted);
            if (got < 0) read_error = errno;
            if (got <= 0) break;
            used += static_cast<size_t>(got);
        }
    }
    const auto skip = static_cast<size_t>(offset - start);
    return {buffer.get() + skip, used - skip};
}

// Makes `offset` the start of the buffer, keeping what is already there of it, with room for `size`
// bytes and a piece more.
void Window::MakeRoom(uint64_t offset, size_t size) {
    size_t kept = 0;
    const uint8_t* from = nullptr;
    if (offset >= start && offset - start < used) {
        from = buffer.get() + (offset - start);
        kept = used - static_cast<size_t>(offset - start);
    }
    if (capacity < size + piece) {
        const size_t larger = std::max(size + piece, std::min<size_t>(2 * capacity, kMaxLength));
        std::unique_ptr<uint8_t[]> moved(new uint8_t[larger]);
        if (kept != 0) memcpy(moved.get(), from, kept);
        buffer = std::move(moved);
        capacity = larger;
    } else if (kept != 0) {
        memmove(buffer.get(), from, kept);
    }
    start = offset;
    used = kept;
}

namespace {

constexpr size_t kReadPiece = size_t{1024} * 1024;  // bytes
constexpr size_t kSkimPiece = 4096;                 // bytes
constexpr size_t kMaxVarint = 5;                    // bytes of a 32-bit number

// The number that a Snappy block begins with, the size of what it unpacks to.
struct Varint {
    uint32_t value;
    size_t size;  // bytes
};
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

const char* AsChars(Bytes bytes) { return reinterpret_cast<const char*>(bytes.data()); }

bool UnpackTo(Bytes packed, size_t raw_length, uint8_t* out) {
    size_t length = raw_length;
    return snappy_uncompress(AsChars(packed), packed.size(), reinterpret_cast<char*>(out),
                             &length) == SNAPPY_OK &&
           length == raw_length;
}

}  // namespace

BlockReader::BlockReader(Source& source, uint64_t first_block, Mode wanted)
    : window(source, wanted == Mode::kBytes ? kReadPiece : kSkimPiece),
      mode(wanted),
      at(first_block),
      next(first_block) {}

bool BlockReader::EndWith(End end, std::string why) {
    how = window.error() != 0 ? End::kReadError : end;
    text = window.error() != 0 ? strerror(window.error()) : std::move(why);
    return false;
}

bool BlockReader::Next(Block& block) {
    if (how != End::kWhole) return false;
    at = next;
    Bytes bytes = window.At(at, kBlockHeaderSize);
    if (bytes.size() < kBlockHeaderSize) {
        rest = bytes.size();
        if (rest == 0) return EndWith(End::kWhole, "");
        if (rest == 1) return EndWith(End::kStrayByte, "");
        return EndWith(End::kCutLengths, "cut within the lengths of a block");
    }

    const BlockHeader lengths = GetBlockHeader(bytes.data());
    const size_t size = kBlockHeaderSize + lengths.packed_length;
    if (lengths.packed_length == 0) return EndWith(End::kDamaged, "block of no bytes");
    bytes = window.At(at, kBlockHeaderSize + std::min<size_t>(lengths.packed_length, kMaxVarint));
    const Bytes front = bytes.subspan(
        kBlockHeaderSize, std::min<size_t>(bytes.size() - kBlockHeaderSize, lengths.packed_length));
    const std::optional<Varint> length = GetVarint(front);
    // Without an end of the number it is damaged only if more of it cannot follow.
    const bool unfinished =
        !length && front.size() < std::min<size_t>(lengths.packed_length, kMaxVarint);
    if (!unfinished && (!length || length->value != lengths.raw_length)) {
        return EndWith(End::kDamaged,
                       "block says " + std::to_string(lengths.raw_length) +
                           " raw bytes, its Snappy data " +
                           (length ? std::to_string(length->value) : "no valid number"));
    }

    // Only the last byte is looked at when the others are not wanted.
    const bool whole = mode == Mode::kBytes ? (bytes = window.At(at, size)).size() >= size
                                            : !window.At(at + size - 1, 1).empty();
    if (!whole) {
        rest = window.At(at, size).size();
        return EndWith(End::kCutBlock, "the file ends within a block of " +
                                           std::to_string(lengths.packed_length) + " packed bytes");
    }
    block = {at, lengths, {}};
    if (mode == Mode::kBytes) block.packed = bytes.subspan(kBlockHeaderSize, lengths.packed_length);
    next = at + size;
    return true;
}

bool BlockReader::Judge(const Block& block, bool valid) {
    if (valid) return true;
    at = next = block.offset;
    return EndWith(End::kDamaged, "block does not unpack");
}

bool BlockReader::Unpack(const Block& block, uint8_t* out) {
    return Judge(block, UnpackTo(block.packed, block.lengths.raw_length, out));
}

bool BlockReader::Check(const Block& block) {
    return Judge(block, snappy_validate_compressed_buffer(AsChars(block.packed),
                                                          block.packed.size()) == SNAPPY_OK);
}

// --- recovery

namespace {

constexpr uint32_t kAloneBytes = 64;        // raw bytes that make a block trusted on its own
constexpr size_t kLeastPacked = 1 + 1 + 1;  // a number, a tag and a byte
constexpr size_t kLeastBlock = kBlockHeaderSize + kLeastPacked;
// What may be spent, in bytes read or unpacked, on what turns out to be no block. It grows with the
// bytes gone by, far faster than chance spends it, so that only contrived input ever runs out.
constexpr int64_t kMostCredit = int64_t{256} * 1024 * 1024;
constexpr int64_t kCreditPerByte = 16;
constexpr size_t kLookAhead = 4096;  // bytes at least that a search has before it

// Whether a non-empty block may begin here, by its first bytes alone. What Snappy produces is at
// most `snappy_max_compressed_length`, and three bytes make at most 64.
bool LooksLikeBlock(Bytes bytes) {
    if (bytes.size() < kLeastBlock) return false;
    const BlockHeader lengths = GetBlockHeader(bytes.data());
    if (lengths.raw_length == 0 || lengths.packed_length < kLeastPacked) return false;
    const std::optional<Varint> length = GetVarint(bytes.subspan(kBlockHeaderSize));
    if (!length || length->value != lengths.raw_length) return false;
    if (length->size > 1 && length->value >> (7 * (length->size - 1)) == 0) return false;
    return lengths.packed_length <= snappy_max_compressed_length(lengths.raw_length) &&
           lengths.raw_length <= uint64_t{lengths.packed_length - length->size} * 64 / 3;
}

// The first place in `bytes` where a block may begin; where too few bytes remain when there is
// none. `bytes` hold at least `kLeastBlock`.
size_t FirstCandidate(Bytes bytes) {
    const size_t end = bytes.size() - kLeastBlock + 1;
    size_t i = 0;
    while (i < end) {
        // Long runs of zeros, as holes are: a raw length of 0 is none.
        uint64_t word;
        memcpy(&word, bytes.data() + i, sizeof(word));
        if (word == 0) {
            i += sizeof(word) - kLengthSize + 1;
            continue;
        }
        // Nearly all other offsets fail here: the low bits of the two raw lengths differ.
        if (((bytes[i] ^ bytes[i + kBlockHeaderSize]) & 0x7f) == 0 &&
            LooksLikeBlock(bytes.subspan(i)))
            return i;
        ++i;
    }
    return end;
}

class Recoverer {
  public:
    Recoverer(Source& source, const RecoverySinks& to) : window(source, kReadPiece), sinks(to) {
        Header header;
        result.header = ReadHeader(source, header);
        first_block = result.header == HeaderState::kWhole ? header.length : 0;
        if (result.header == HeaderState::kReadError) window.At(0, 1);  // for its errno
    }

    Recovery Run();

  private:
    bool LooksLikeBlockAt(uint64_t offset) {
        return LooksLikeBlock(window.At(offset, kBlockHeaderSize + kMaxVarint));
    }
    bool EndsAt(uint64_t offset) { return window.At(offset, 2).size() <= 1; }

    // Unpacks the block at `offset` into `raw`, if there is one.
    bool Take(uint64_t offset);
    // Whether there is a block that is none by chance.
    bool IsTrusted(uint64_t offset);
    // Moves `offset` on to the next trusted block; false, and to the end, when there is none.
    bool Find(uint64_t& offset);
    // As `Find`, behind the lost block at `at`.
    bool FindBehind(uint64_t at, uint64_t& found);
    void Earn(uint64_t bytes);
    // Whether a file of `end` bytes ends within a block at `offset`.
    bool IsCut(uint64_t offset, uint64_t end) {
        return LooksLikeBlockAt(offset) &&
               offset + kBlockHeaderSize +
                       GetBlockHeader(window.At(offset, kBlockHeaderSize).data()).packed_length >
                   end;
    }
    void Skip(uint64_t from, uint64_t to);

    Window window;
    const RecoverySinks& sinks;
    Recovery result{};
    uint64_t first_block;
    bool started_over = false;

    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    Bytes raw;               // what `Take` unpacked
    uint64_t block_end = 0;  // offset behind it
    int64_t credit = kMostCredit;
};

bool Recoverer::Take(uint64_t offset) {
    Bytes bytes = window.At(offset, kBlockHeaderSize + 1);
    if (bytes.size() < kBlockHeaderSize + 1) return false;
    const BlockHeader lengths = GetBlockHeader(bytes.data());
    const size_t size = kBlockHeaderSize + lengths.packed_length;
    if (lengths.packed_length == 0) return false;
    // Before anything large is read or allocated.
    bytes = window.At(offset, std::min(size, kBlockHeaderSize + kMaxVarint));
    const std::optional<Varint> length = GetVarint(bytes.subspan(kBlockHeaderSize));
    if (!length || length->value != lengths.raw_length) return false;

    if (credit < 0) return false;
    bytes = window.At(offset, size);
    if (bytes.size() < size) {
        credit -= static_cast<int64_t>(bytes.size());
        return false;
    }
    if (capacity == 0 || capacity < lengths.raw_length) {
        capacity = std::max<size_t>(lengths.raw_length, kReadPiece);
        buffer.reset(new uint8_t[capacity]);
    }
    raw = {buffer.get(), lengths.raw_length};
    block_end = offset + size;
    if (UnpackTo(bytes.subspan(kBlockHeaderSize, lengths.packed_length), raw.size(), buffer.get()))
        return true;
    credit -= int64_t{lengths.raw_length} + lengths.packed_length;
    return false;
}

bool Recoverer::IsTrusted(uint64_t offset) {
    if (!LooksLikeBlockAt(offset) || !Take(offset)) return false;
    if (raw.size() >= kAloneBytes) return true;
    const uint64_t behind = block_end;
    return EndsAt(behind) || (LooksLikeBlockAt(behind) && Take(behind));
}

void Recoverer::Earn(uint64_t bytes) {
    const uint64_t most = kMostCredit / kCreditPerByte;
    credit = std::min(credit + static_cast<int64_t>(std::min(bytes, most)) * kCreditPerByte,
                      kMostCredit);
}

bool Recoverer::Find(uint64_t& offset) {
    uint64_t told = offset;
    while (true) {
        const Bytes bytes = window.At(offset, kLookAhead);
        if (bytes.size() < kLeastBlock) {
            offset += bytes.size();
            return false;
        }
        const size_t i = FirstCandidate(bytes);
        offset += i;
        Earn(i);
        if (i < bytes.size() - kLeastBlock + 1) {
            if (IsTrusted(offset)) return true;
            ++offset;
        }
        if (sinks.progress && offset - told >= kReadPiece) {
            told = offset;
            sinks.progress(offset);
        }
    }
}

bool Recoverer::FindBehind(uint64_t at, uint64_t& found) {
    // The lengths may be right though the bytes are not: then they tell the next block, and nothing
    // within the damaged one is taken for a block.
    if (LooksLikeBlockAt(at) && credit >= 0) {
        found = at + kBlockHeaderSize +
                GetBlockHeader(window.At(at, kBlockHeaderSize).data()).packed_length;
        if (IsTrusted(found)) return true;
        credit -= int64_t{2 * kReadPiece};  // the window goes there and back
    }
    // A header whose length lies may have led past the first blocks: once the search starts over.
    found = at == first_block && !std::exchange(started_over, true) ? 0 : at + 1;
    return Find(found);
}

void Recoverer::Skip(uint64_t from, uint64_t to) {
    if (from == to) return;
    ++result.gaps;
    result.skipped += to - from;
    if (sinks.gap) sinks.gap({from, to - from});
}

Recovery Recoverer::Run() {
    uint64_t at = first_block;
    // Where a block is expected its own lengths and bytes are proof enough.
    bool expected = result.header == HeaderState::kWhole;
    while (window.error() == 0) {
        if (expected && Take(at)) {
            ++result.blocks;
            result.raw_bytes += raw.size();
            if (sinks.block) sinks.block(at, raw);
            Earn(block_end - at);
            at = block_end;
            continue;
        }
        result.trailing = window.At(at, kBlockHeaderSize).size();
        result.end = at + result.trailing;
        if (result.trailing < kBlockHeaderSize) break;
        result.trailing = 0;

        uint64_t found;
        const bool more = expected ? FindBehind(at, found) : Find(found = at);
        const uint64_t gap = found < at ? 0 : at;
        if (!more) result.ends_cut = IsCut(at, found);
        Skip(gap, found);
        result.end = found;
        if (!more) break;
        Earn(found - gap);
        at = found;
        expected = true;
    }
    result.error = window.error();
    return result;
}

}  // namespace

Recovery Recover(Source& source, const RecoverySinks& sinks) {
    return Recoverer(source, sinks).Run();
}

}  // namespace muxz
