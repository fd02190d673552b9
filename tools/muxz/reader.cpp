#include "tools/muxz/reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "tools/muxz/block.h"
#include "tools/muxz/search.h"

namespace muxz {

using quarn::log_file::BlockHeader;
using quarn::log_file::GetBlockHeader;
using quarn::log_file::kBlockHeaderSize;

namespace {

constexpr size_t kReadPiece = size_t{1024} * 1024;  // bytes
constexpr size_t kSkimPiece = 512;                  // bytes

}  // namespace

BlockReader::BlockReader(Source& source, uint64_t first_block, Mode wanted)
    : window(source, wanted == Mode::kBytes ? kReadPiece : kSkimPiece),
      mode(wanted),
      at(first_block),
      next(first_block) {}

BlockReader::~BlockReader() = default;

bool BlockReader::EndWith(End end, std::string why) {
    how = window.error() != 0 ? End::kReadError : end;
    text = window.error() != 0 ? window.why() : std::move(why);
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
    // An incomplete varint is damage only if the rest of it cannot lie behind the end of the file.
    const bool unfinished =
        !length && front.size() < std::min<size_t>(lengths.packed_length, kMaxVarint);
    if (!unfinished && (!length || length->value != lengths.raw_length)) {
        return EndWith(End::kDamaged,
                       "block says " + std::to_string(lengths.raw_length) +
                           " raw bytes, its Snappy data " +
                           (length ? std::to_string(length->value) : "no valid number"));
    }

    // With kLengths, the packed bytes are not read.
    const bool whole = mode == Mode::kBytes ? (bytes = window.At(at, size)).size() >= size
                                            : window.Reaches(at + size);
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

bool BlockReader::Check(const Block& block) { return Judge(block, IsPacked(block.packed)); }

bool BlockReader::GoOn(Loss& loss) {
    loss = {at, 0, std::nullopt};
    if (how != End::kDamaged && how != End::kCutBlock) return false;
    if (!search) search = std::make_unique<BlockSearch>(window);
    search->Earn(at - searched);
    uint64_t found = 0;
    const bool more = search->FindBehind(at, found, loss.raw);
    searched = found;
    if (window.error() != 0) return EndWith(End::kReadError, "");
    if (!more && how == End::kCutBlock) return false;
    loss.length = found - at;
    if (!more) return false;
    next = found;
    rest = 0;
    how = End::kWhole;
    text.clear();
    return true;
}

}  // namespace muxz
