// The decoder of log files: names, headers, blocks, and recovery of damaged files.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "made_log.h"
#include "sim/qrx_log_header.h"
#include "storage/log_file_format.h"
#include "storage/log_names.h"
#include "support.h"
#include "tools/muxz/header.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/recovery.h"

namespace {

using namespace muxz;
using namespace test;

Bytes AsBytes(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

struct Recovered {
    std::vector<std::string> raws;
    std::vector<std::pair<uint64_t, uint64_t>> gaps;  // offset, length
    Recovery result;
};

Recovered RecoverBytes(const std::string& bytes) {
    Recovered recovered;
    MemorySource source(AsBytes(bytes));
    recovered.result = Recover(
        source,
        {.block = [&](uint64_t, Bytes raw) { recovered.raws.emplace_back(raw.begin(), raw.end()); },
         .gap = [&](Gap gap) { recovered.gaps.emplace_back(gap.offset, gap.length); },
         .progress = {}});
    return recovered;
}

// --- names and order

TEST(LogNames, AreParsedWhole) {
    using namespace quarn::log_names;
    // The kind of a name, and its parts.
    const std::pair<const char*, const char*> cases[] = {
        {"QRXMDLog_7_2024_0131_235959", "folder 7|2024_0131_235959|"},
        {"QRXMDLog_007_12_EE", "folder 007|12|_EE"},
        {"QRXMDLog_7___1t_EE", "folder 7|__1|t_EE"},
        {"QRXMDLog_7_12__EE", ""},
        {"QRXMDLog__12", ""},
        {"QRXMDLog_7_12.muxz", "file 7|12.muxz"},
        {"QRXMDLog_7_12_EE.muxz.tmp", "file 7|12_EE.muxz.tmp"},
        {"QRXMDLog_7_12t.muxz", ""},
        {"QRXMDLog_7_12.muxz.tmp2", ""},
    };
    for (const auto& [name, expected] : cases) {
        std::ostringstream got;
        if (const auto folder = ParseFolder(name)) {
            got << "folder " << folder->index << '|' << folder->time << '|' << folder->suffix;
        }
        if (const auto file = ParseFile(name)) {
            got << "file " << file->index << '|' << file->time << file->suffix << file->ending;
        }
        EXPECT_EQ(got.str(), expected) << name;
    }
    EXPECT_EQ(ParseIndex("000004294967295"), UINT32_MAX);
    for (const char* bad : {"", "4294967296", "-1", "+1", " 1", "1x"})
        EXPECT_EQ(ParseIndex(bad), std::nullopt) << bad;
}

// --- header

TEST(MuxzHeader, IsRefusedWhereItLies) {
    using namespace sim::log_header;
    const std::string good = HeaderBytes();
    const auto with = [&](size_t at, uint8_t byte) {
        std::string bytes = good;
        bytes[at] = static_cast<char>(byte);
        return bytes;
    };
    Header header;
    const auto state = [&](const std::string& bytes) {
        MemorySource source(AsBytes(bytes));
        return ReadHeader(source, header);
    };
    // ParseCustomBlock stops at an entry that does not fit.
    ASSERT_EQ(state(good), HeaderState::kWhole);
    Bytes rest;
    EXPECT_EQ(ParseCustomBlock(Bytes(header.custom).first(19 + 3), rest).size(), 1u);
    EXPECT_EQ(rest.size(), 3u);

    EXPECT_EQ(state(""), HeaderState::kEmpty);
    for (size_t size = 1; size < good.size(); ++size)
        ASSERT_EQ(state(good.substr(0, size)), HeaderState::kCut) << size;
    EXPECT_EQ(state("x"), HeaderState::kUnknown);
    EXPECT_EQ(state(with(3, 'x')), HeaderState::kUnknown);
    EXPECT_EQ(state(with(kLengthAt, 0xff)), HeaderState::kDamaged);
    EXPECT_EQ(state(with(kLengthAt + 3, 0xff)), HeaderState::kDamaged);
    EXPECT_EQ(state(with(kCustomLengthAt + 1, 0xff)), HeaderState::kDamaged);

    // The reader skips a header of a later version by its length.
    EXPECT_EQ(state(with(kVersionAt, 9)), HeaderState::kWhole);
    EXPECT_FALSE(header.known_version);
    EXPECT_EQ(header.length, good.size());
}

// --- blocks

TEST(MuxzBlocks, AreReadToWhereTheyEnd) {
    const std::string raw = test::StreamBytes(5000);
    const std::string good = BlockBytes(raw);
    std::string damaged = good;
    std::fill(damaged.begin() + static_cast<ptrdiff_t>(good.size() / 2), damaged.end(), '\xff');
    const struct {
        const char* what;
        std::string behind;  // what follows a good block
        End end;
        size_t trailing;
    } cases[] = {
        {"nothing", "", End::kWhole, 0},
        {"stray byte", "\x7f", End::kStrayByte, 1},
        {"lengths only", good.substr(0, 6), End::kCutBlock, 6},
        {"block cut", good.substr(0, good.size() - 1), End::kCutBlock, good.size() - 1},
        {"zeros", std::string(100, '\0'), End::kDamaged, 0},
        {"other raw length", Framed(4999, good.substr(6)), End::kDamaged, 0},
        {"packed length long", Framed(5000, good.substr(6) + "x"), End::kDamaged, 0},
        {"huge number", Framed(0xffffff, "\xff\xff\xff\xff\xff\xff\xff\xff"), End::kDamaged, 0},
        {"most that lengths say", std::string(6, '\xff') + "\xff\xff\xff\x07", End::kCutBlock, 10},
        {"bytes changed", damaged, End::kDamaged, 0},
    };
    const std::string header = HeaderBytes();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string bytes = header + good + c.behind;
        MemorySource source(AsBytes(bytes));
        BlockReader walk(source, header.size());
        std::string walked;
        for (Block block; walk.Next(block);) {
            std::string out(block.lengths.raw_length, '\0');
            const bool checked = walk.Check(block);
            if (!walk.Unpack(block, reinterpret_cast<uint8_t*>(out.data()))) break;
            EXPECT_TRUE(checked);
            walked += out;
        }
        EXPECT_EQ(walk.end(), c.end);
        EXPECT_EQ(walk.trailing(), c.trailing);
        EXPECT_EQ(walk.offset(), header.size() + good.size());
        EXPECT_EQ(walk.reason().empty(), c.end <= End::kStrayByte);
        EXPECT_EQ(walked, raw);
    }
}

TEST(MuxzBlocks, OfEverySizeComeWhole) {
    std::string raw, bytes;
    for (const size_t size : {0u, 1u, 127u, 128u, 65536u, 262144u, 3000000u, 0xffffffu}) {
        const std::string piece = size < 4000000 ? RandomBytes(size, 7) : test::StreamBytes(size);
        raw += piece;
        bytes += BlockBytes(piece);
    }
    test::WriteFile("/box/log", HeaderBytes() + bytes);
    const test::DecodedFile decoded = test::DecodeFile("/box/log");
    EXPECT_TRUE(decoded.whole && decoded.bytes == raw);
    std::string recovered;
    for (const std::string& piece : RecoverBytes(HeaderBytes() + bytes).raws) recovered += piece;
    EXPECT_TRUE(recovered == raw);
}

// --- recovery

class MuxzRecovery : public testing::TestWithParam<size_t> {
  protected:
    MuxzRecovery() {
        for (size_t i = 0; i < 6; ++i) raws.push_back(test::StreamBytes(700 + 37 * i, i + 1));
        bytes = HeaderBytes(GetParam());
        for (const std::string& raw : raws) {
            starts.push_back(bytes.size());
            bytes += BlockBytes(raw);
        }
        starts.push_back(bytes.size());
    }

    // Returns the contents of the blocks that lie completely within these bytes.
    std::vector<std::string> Within(size_t from, size_t to) const {
        std::vector<std::string> within;
        for (size_t i = 0; i < raws.size(); ++i) {
            if (from <= starts[i] && starts[i + 1] <= to) within.push_back(raws[i]);
        }
        return within;
    }

    // Returns the next offset to try. It skips most of the header, whose bytes are much alike.
    size_t After(size_t at) const { return at + (at + 300 < starts[0] ? 257 : 1); }

    std::vector<std::string> raws;
    std::vector<size_t> starts;  // offsets of the blocks, and the end of the last one
    std::string bytes;
};
INSTANTIATE_TEST_SUITE_P(, MuxzRecovery, testing::ValuesIn(kHeaders), NameOf);

TEST_P(MuxzRecovery, FindsWholeBlocksOfAFileCutAnywhere) {
    for (size_t cut = 0; cut <= bytes.size(); cut = After(cut)) {
        ASSERT_EQ(RecoverBytes(bytes.substr(0, cut)).raws, Within(0, cut)) << cut;
        ASSERT_EQ(RecoverBytes(bytes.substr(cut)).raws, Within(cut, bytes.size())) << cut;
    }
    EXPECT_TRUE(RecoverBytes(bytes.substr(0, bytes.size() - 20)).result.ends_cut);
    const bool skips = GetParam() != kOwn && GetParam() != 0;
    EXPECT_EQ(RecoverBytes(bytes).gaps.size(), skips ? 1u : 0u);

    // Gaps between whole blocks are reported.
    const std::string garbage = RandomBytes(100000, 3);
    const Recovered recovered =
        RecoverBytes(garbage + bytes.substr(starts[0], starts[2] - starts[0]) + garbage +
                     bytes.substr(starts[2]) + "xyzab");
    const std::vector<std::pair<uint64_t, uint64_t>> gaps = {
        {0, garbage.size()}, {garbage.size() + starts[2] - starts[0], garbage.size()}};
    EXPECT_EQ(recovered.raws, raws);
    EXPECT_EQ(recovered.gaps, gaps);
    EXPECT_EQ(recovered.result.skipped, 2 * garbage.size());
    EXPECT_EQ(recovered.result.trailing, 5u);
}

TEST_P(MuxzRecovery, LosesOnlyTheBlockThatIsDamaged) {
    for (size_t at = 0; at < bytes.size(); at = After(at)) {
        for (const int flip : {0x01, 0x80, 0xff}) {
            std::string damaged = bytes;
            damaged[at] = static_cast<char>(damaged[at] ^ flip);
            const std::vector<std::string> recovered = RecoverBytes(damaged).raws;
            auto found = recovered.begin();
            for (const auto& part : {Within(0, at), Within(at + 1, bytes.size())}) {
                for (const std::string& raw : part) {
                    found = std::find(found, recovered.end(), raw);
                    ASSERT_NE(found, recovered.end()) << at;
                    ++found;
                }
            }
            // A block with a changed literal may still unpack. No other block may appear.
            ASSERT_LE(recovered.size(), raws.size()) << at;
        }
    }
}

TEST_P(MuxzRecovery, TakesNothingForABlockThatIsNone) {
    std::string pairs, empties, singles;
    for (uint32_t i = 0; i < 20000; ++i) {
        pairs += std::string("\x03\0\0\x05\0\0\x03\x08", 8) + static_cast<char>(i);
        empties += std::string("\0\0\0\x01\0\0\0", 7);
        // Looks like a block of one byte, but no block follows it.
        singles += std::string("\x01\0\0\x03\0\0\x01\0a??????", 15);
    }
    for (const std::string& garbage : {pairs, empties, singles, std::string(100000, '\xff'),
                                       RandomBytes(3000000, 1), test::StreamBytes(1000000)}) {
        EXPECT_TRUE(RecoverBytes(garbage).raws.empty());
        EXPECT_EQ(RecoverBytes(garbage + bytes.substr(starts[0])).raws, raws);
    }
}

// The raw stream may contain a log file. Snappy stores it unchanged.
TEST_P(MuxzRecovery, DoesNotLookIntoADamagedBlockWhoseLengthsHold) {
    std::string outer =
        BlockBytes(RandomBytes(200, 1) + BlockBytes(RandomBytes(5000, 2)) + RandomBytes(200, 3));
    outer[9] = '\xff';  // the tag that says how long the literal is
    outer[10] = '\xff';
    const Recovered recovered =
        RecoverBytes(bytes.substr(0, starts[1]) + outer + bytes.substr(starts[1]));
    EXPECT_EQ(recovered.raws, raws);
}

// Each unit looks like a block of nearly 16 MB that unpacks almost to its end. If the number of
// tries had no bound, this would take hours.
TEST_P(MuxzRecovery, IsBoundedOnContrivedBytes) {
    const uint32_t raw_length = 15728640;
    std::string unit = Framed(raw_length, "");
    quarn::log_file::PutLength(reinterpret_cast<uint8_t*>(unit.data()) + 3, 15728640 / 15 * 16);
    unit += std::string("\x80\x80\xc0\x07", 4);
    unit += static_cast<char>((15 - 1) << 2);  // a literal up to the same place in the next unit
    unit += "-----";
    std::string contrived;
    while (contrived.size() < 48u * 1024 * 1024) contrived += unit;
    const Recovered recovered = RecoverBytes(contrived + bytes.substr(starts[0]));
    EXPECT_LE(recovered.raws.size(), 8u);
}

}  // namespace
