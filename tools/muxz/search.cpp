#include "tools/muxz/search.h"

#include <algorithm>

#include "tools/muxz/block.h"

namespace muxz {

using quarn::log_file::BlockHeader;
using quarn::log_file::GetBlockHeader;
using quarn::log_file::kBlockHeaderSize;

namespace {

constexpr uint32_t kAloneBytes = 64;  // a block of so many raw bytes is trusted on its own
constexpr int64_t kCreditPerByte = 16;
constexpr size_t kLookAhead = 4096;  // bytes; least size of the window during a search
constexpr size_t kPiece = size_t{1024} * 1024;
constexpr int kMostTried = 64;   // trusted blocks that are tried as the first block of a row
constexpr int kMostInARow = 16;  // consecutive damaged blocks whose lengths are followed

}  // namespace

bool BlockSearch::LooksLikeBlockAt(uint64_t offset) {
    return LooksLikeBlock(window.At(offset, kBlockHeaderSize + kMaxVarint));
}

uint64_t BlockSearch::Behind(uint64_t offset) {
    return offset + kBlockHeaderSize +
           GetBlockHeader(window.At(offset, kBlockHeaderSize).data()).packed_length;
}

bool BlockSearch::IsCut(uint64_t offset, uint64_t end) {
    return LooksLikeBlockAt(offset) && Behind(offset) > end;
}

bool BlockSearch::Take(uint64_t offset) {
    Bytes bytes = window.At(offset, kBlockHeaderSize + 1);
    if (bytes.size() < kBlockHeaderSize + 1) return false;
    const BlockHeader lengths = GetBlockHeader(bytes.data());
    const size_t size = kBlockHeaderSize + lengths.packed_length;
    if (lengths.packed_length == 0) return false;
    // Check the varint first, before anything large is read or allocated.
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
        capacity = std::max<size_t>(lengths.raw_length, kPiece);
        buffer.reset(new uint8_t[capacity]);
    }
    unpacked = {buffer.get(), lengths.raw_length};
    behind = offset + size;
    if (UnpackTo(bytes.subspan(kBlockHeaderSize, lengths.packed_length), unpacked.size(),
                 buffer.get()))
        return true;
    credit -= int64_t{lengths.raw_length} + lengths.packed_length;
    return false;
}

bool BlockSearch::IsTrusted(uint64_t offset) {
    if (!LooksLikeBlockAt(offset) || !Take(offset)) return false;
    if (unpacked.size() >= kAloneBytes) return true;
    const uint64_t next = behind;
    return EndsAt(next) || (LooksLikeBlockAt(next) && Take(next));
}

bool BlockSearch::BeginsRow(uint64_t offset) {
    uint64_t raw_bytes = 0;
    for (size_t blocks = 0; blocks < 2 || raw_bytes < kAloneBytes; ++blocks) {
        if (blocks != 0 && window.At(offset, kBlockHeaderSize).size() < kBlockHeaderSize)
            return true;
        if (!LooksLikeBlockAt(offset)) return false;
        if (!Take(offset)) {
            // A block that the end of the file cuts ends the row. A damaged block is a part of the
            // row if its lengths lead to a trusted block or to the end of the file.
            const uint64_t next = Behind(offset);
            return blocks != 0 && (window.At(offset, next - offset).size() < next - offset ||
                                   EndsAt(next) || IsTrusted(next));
        }
        raw_bytes += unpacked.size();
        offset = behind;
    }
    return true;
}

bool BlockSearch::LeadsTo(uint64_t offset, uint64_t to) {
    for (int i = 0; i < kMostInARow && offset < to; ++i) {
        if (!LooksLikeBlockAt(offset)) return false;
        offset = Behind(offset);
    }
    return offset == to;
}

void BlockSearch::Earn(uint64_t bytes) {
    const uint64_t most = kMostCredit / kCreditPerByte;
    credit = std::min(credit + static_cast<int64_t>(std::min(bytes, most)) * kCreditPerByte,
                      kMostCredit);
}

bool BlockSearch::Find(uint64_t& offset, uint64_t limit) {
    uint64_t reported = offset;
    while (offset <= limit) {
        const Bytes bytes = window.At(offset, kLookAhead);
        if (bytes.size() < kLeastBlock) {
            offset += bytes.size();
            return false;
        }
        const size_t i = FirstCandidate(bytes);
        offset += i;
        Earn(i);
        if (i < bytes.size() - kLeastBlock + 1) {
            if (offset <= limit && IsTrusted(offset)) return true;
            ++offset;
        }
        if (progress && offset - reported >= kPiece) {
            reported = offset;
            progress(offset);
        }
    }
    return false;
}

bool BlockSearch::FindBehind(uint64_t at, uint64_t& found, std::optional<uint64_t>& raw_lost) {
    // The lengths of a damaged block may be intact. They then lead to the next block, and nothing
    // inside the damaged block is mistaken for a block.
    uint64_t raw_bytes = 0;
    found = at;
    for (int i = 0; i < kMostInARow && credit >= 0 && LooksLikeBlockAt(found); ++i) {
        raw_bytes += GetBlockHeader(window.At(found, kBlockHeaderSize).data()).raw_length;
        found = Behind(found);
        const bool trusted = IsTrusted(found);
        if (trusted || (!window.At(found - 1, 1).empty() && EndsAt(found))) {
            raw_lost = raw_bytes;
            return trusted;
        }
        credit -= int64_t{2 * kPiece};  // the window moves forward and back
    }
    raw_lost = std::nullopt;
    found = at + 1;
    return Find(found);
}

FirstBlock FindFirstBlock(Source& source) {
    Window window(source, kMostHeader);
    BlockSearch search(window);
    FirstBlock first;
    uint64_t offset = 0;
    for (int i = 0; i < kMostTried && search.Find(offset, kMostHeader); ++i, ++offset) {
        if (!first.offset) first.offset = offset;
        if (search.BeginsRow(offset)) {
            first.row = offset;
            break;
        }
    }
    for (uint64_t front = 0; first.offset && front < *first.offset; ++front) {
        if (search.LeadsTo(front, *first.offset)) first.offset = front;
    }
    return first;
}

}  // namespace muxz
