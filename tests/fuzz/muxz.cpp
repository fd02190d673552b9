// Log files of any bytes: the header, the walk over the blocks, and recovery, which must find what
// the walk finds.
#include <algorithm>
#include <map>

#include "fuzz.h"
#include "tools/muxz/header.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/recovery.h"

namespace {

// Offsets of the blocks that unpack, and the bytes of each as a hash.
std::map<uint64_t, size_t> Walk(muxz::Bytes file, uint64_t first) {
    std::map<uint64_t, size_t> blocks;
    muxz::MemorySource source(file);
    muxz::BlockReader reader(source, first);
    muxz::Block block;
    std::vector<uint8_t> raw;
    while (reader.Next(block)) {
        raw.resize(block.lengths.raw_length + size_t{1});
        const bool valid = reader.Unpack(block, raw.data());
        if (!valid) break;
        blocks[block.offset] =
            std::hash<std::string_view>()(fuzz::Text(raw.data(), block.lengths.raw_length));
    }
    fuzz::Check(reader.offset() + reader.trailing() <= std::max<uint64_t>(file.size(), first),
                "a walk ends within the file");
    return blocks;
}

// As statistics do, which look at the lengths only.
size_t CountBlocks(muxz::Bytes file, uint64_t first) {
    muxz::MemorySource source(file);
    muxz::BlockReader reader(source, first, muxz::BlockReader::Mode::kLengths);
    muxz::Block block;
    size_t count = 0;
    while (reader.Next(block)) ++count;
    return count;
}

void Recover(muxz::Bytes file, std::map<uint64_t, size_t> expected) {
    muxz::MemorySource source(file);
    uint64_t end = 0;
    const auto block = [&](uint64_t offset, muxz::Bytes raw) {
        fuzz::Check(offset >= end, "blocks come in order");
        end = offset + 1;
        const auto found = expected.find(offset);
        if (found == expected.end()) return;
        fuzz::Check(
            found->second == std::hash<std::string_view>()(fuzz::Text(raw.data(), raw.size())),
            "a block is the same however it was found");
        expected.erase(found);
    };
    const auto gap = [&](muxz::Gap lost) {
        fuzz::Check(lost.length > 0 && lost.offset + lost.length <= file.size(), "gaps are real");
    };
    const muxz::Recovery result = muxz::Recover(source, {block, gap, [](uint64_t) {}});
    fuzz::Check(result.error == 0 && result.end <= file.size(), "recovery gets to the end");
    fuzz::Check(expected.empty(), "recovery finds every block that the walk finds");
}

}  // namespace

void fuzz::SetUp() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const muxz::Bytes file(data, size);
    muxz::MemorySource source(file);
    muxz::Header header;
    const muxz::HeaderState state = muxz::ReadHeader(source, header);
    fuzz::Check(!muxz::Text(state).empty(), "each state has a text");
    const bool whole = state == muxz::HeaderState::kWhole;
    if (whole) {
        muxz::Bytes rest;
        muxz::ParseCustomBlock(header.custom, rest);
    }
    const auto blocks = Walk(file, whole ? header.length : 0);
    fuzz::Check(CountBlocks(file, whole ? header.length : 0) >= blocks.size(),
                "lengths alone show no fewer blocks");
    Recover(file, whole ? blocks : std::map<uint64_t, size_t>());
    return 0;
}
