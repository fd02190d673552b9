// Fuzz target: log files with any bytes. Reads the header and the blocks. Recovery must find the
// same blocks as the reader. The scan must account for every byte.
#include <algorithm>
#include <map>

#include "fuzz.h"
#include "tools/muxz/header.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/recovery.h"
#include "tools/muxz/scan.h"

namespace {

// Returns the offsets of the blocks that unpack, each with a hash of its bytes.
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

// Counts the blocks by their lengths only, as the statistics do.
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

// Checks that header, blocks and damage together are the whole file up to its end.
muxz::FileFacts Scan(muxz::Bytes bytes, muxz::Depth depth, muxz::FoundFile& found) {
    found.path = "/heap/QRXMDLog_1_2024_0101_000000.muxz";
    found.size = bytes.size();
    found.open = [bytes, path = found.path] {
        muxz::OpenedFile opened;
        opened.source = std::make_unique<muxz::MemorySource>(bytes);
        opened.path = path;
        opened.size = bytes.size();
        return opened;
    };
    const muxz::FileFacts facts = muxz::ScanFile(found, {depth, std::nullopt, {}});
    for (const muxz::Finding& finding : facts.findings) {
        fuzz::Check(finding.offset.value_or(0) + finding.length <= bytes.size(),
                    "findings lie within the file");
        fuzz::Check(!finding.text.empty(), "each has a text");
    }
    if (facts.end_offset == 0) return facts;
    const uint64_t known = facts.header.length + facts.blocks.packed +
                           facts.blocks.blocks * quarn::log_file::kBlockHeaderSize +
                           facts.damaged_bytes;
    if (facts.end == muxz::End::kDamaged) {
        fuzz::Check(known == bytes.size() || known + 1 == bytes.size(), "damage to the end");
    } else {
        fuzz::Check(known == facts.end_offset, "every byte up to the end is accounted for");
    }
    return facts;
}

void Model(muxz::Bytes file) {
    muxz::Listing listing;
    muxz::FoundGroup& heap = listing.groups.emplace_back();
    heap.files.resize(2);
    muxz::ScannedFiles scanned(1);
    scanned[0].push_back(Scan(file, muxz::Depth::kBlocks, heap.files[0]));
    scanned[0].push_back(Scan(file.first(file.size() / 2), muxz::Depth::kLengths, heap.files[1]));
    const muxz::Model model = muxz::Assemble(listing, scanned, {});
    fuzz::Check(!model.Files().empty() && !model.Verdict().empty(), "a model has what was scanned");
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
    Model(file);
    return 0;
}
