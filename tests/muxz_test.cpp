// The reader of log files: the decoder on made and damaged bytes, the tool on trees.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <snappy-c.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "sim/qrx_log_header.h"
#include "storage/log_file_format.h"
#include "storage/log_names.h"
#include "support.h"
#include "tools/muxz_reader.h"
#include "tools/muxz_tree.h"

namespace {

namespace fs = std::filesystem;
using namespace muxz;
using quarn::log_file::kBlockHeaderSize;

const std::string kTree = "/data/vendor/radio/quarn/logs";

Bytes AsBytes(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// A header as the phone's library writes it.
std::string HeaderBytes(uint32_t file_idx = 0) {
    uint8_t record[kMdInfoRecordSize];
    for (size_t i = 0; i < sizeof(record); ++i) record[i] = static_cast<uint8_t>(i);
    const std::string custom("\0\x03\0tag\x02\x02\0hw\x09\x01\0\xff", 15);
    const QRX_LOG_FORMAT_MODEM modem{record, 0xcbcac9c8, 0x11223344, 1706745599, 0};
    QRX_LOG_FORMAT_AP phone{1048576, 1706745500, file_idx, 0, {}};
    phone.custom_header = {1, 0, static_cast<uint16_t>(custom.size()), 0, custom.data()};
    const char* path = "/box/header";
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_EQ(qrx_log_format_writeHeader(fd, modem, phone), 0);
    close(fd);
    return test::ReadFile(path);
}

std::string Framed(uint32_t raw_length, const std::string& packed) {
    uint8_t front[kBlockHeaderSize];
    quarn::log_file::PutBlockHeader(front, {raw_length, static_cast<uint32_t>(packed.size())});
    return std::string(reinterpret_cast<char*>(front), sizeof(front)) + packed;
}

std::string BlockBytes(const std::string& raw) {
    std::string packed(snappy_max_compressed_length(raw.size()), '\0');
    size_t length = packed.size();
    EXPECT_EQ(snappy_compress(raw.data(), raw.size(), packed.data(), &length), SNAPPY_OK);
    packed.resize(length);
    return Framed(static_cast<uint32_t>(raw.size()), packed);
}

std::string LogBytes(const std::vector<std::string>& raws) {
    std::string bytes = HeaderBytes();
    for (const std::string& raw : raws) bytes += BlockBytes(raw);
    return bytes;
}

std::string RandomBytes(size_t size, uint64_t seed) {
    std::string bytes(size, '\0');
    uint64_t state = seed;
    for (char& c : bytes) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        c = static_cast<char>(state >> 56);
    }
    return bytes;
}

struct Walked {
    std::string raw;
    End end;
    uint64_t offset;
    uint64_t trailing;
};

Walked Walk(const std::string& bytes, uint64_t first_block) {
    MemorySource source(AsBytes(bytes));
    BlockReader reader(source, first_block);
    Block block;
    Walked walked{};
    std::string out;
    while (reader.Next(block)) {
        out.resize(block.lengths.raw_length);
        const bool good = reader.Check(block);
        if (!reader.Unpack(block, reinterpret_cast<uint8_t*>(out.data()))) break;
        EXPECT_TRUE(good);
        walked.raw += out;
    }
    walked.end = reader.end();
    walked.offset = reader.offset();
    walked.trailing = reader.trailing();
    EXPECT_EQ(reader.reason().empty(), walked.end <= End::kStrayByte);
    return walked;
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
    struct Case {
        const char* name;
        const char* folder;  // index, time and suffix, or null
        const char* file;    // index, time, suffix and ending, or null
    };
    const Case cases[] = {
        {"QRXMDLog_7_2024_0131_235959", "7|2024_0131_235959|", nullptr},
        {"QRXMDLog_7_2024_0131_235959t", "7|2024_0131_235959|t", nullptr},
        {"QRXMDLog_007_12_EE", "007|12|_EE", nullptr},
        {"QRXMDLog_7___1t_EE", "7|__1|t_EE", nullptr},
        {"QRXMDLog_7_1t_EE", nullptr, nullptr},
        {"QRXMDLog_7_12_", nullptr, nullptr},
        {"QRXMDLog_7_12_tEE", nullptr, nullptr},
        {"QRXMDLog_7_12__EE", nullptr, nullptr},
        {"QRXMDLog__12", nullptr, nullptr},
        {"QRXMDLog_7", nullptr, nullptr},
        {"aQRXMDLog_7_12", nullptr, nullptr},
        {"QRXMDLog_7_12.muxz", nullptr, "7|12||.muxz"},
        {"QRXMDLog_7_12_EE.muxz.tmp", nullptr, "7|12|_EE|.muxz.tmp"},
        {"QRXMDLog_7_12t.muxz", nullptr, nullptr},
        {"QRXMDLog_7_12.muxz.tmp2", nullptr, nullptr},
        {"QRXMDLog_7_12.muxzt", nullptr, nullptr},
        {"power_on_log.muxz", nullptr, nullptr},
        {"", nullptr, nullptr},
    };
    const auto join = [](std::initializer_list<std::string_view> parts) {
        std::string text;
        for (const std::string_view part : parts) (text += text.empty() ? "" : "|") += part;
        return text;
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto folder = ParseFolder(c.name);
        const auto file = ParseFile(c.name);
        ASSERT_EQ(folder.has_value(), c.folder != nullptr);
        ASSERT_EQ(file.has_value(), c.file != nullptr);
        if (folder) {
            EXPECT_EQ(join({folder->index, folder->time, folder->suffix}), c.folder);
        }
        if (file) {
            EXPECT_EQ(join({file->index, file->time, file->suffix, file->ending}), c.file);
        }
    }
    EXPECT_EQ(ParseIndex("0"), 0u);
    EXPECT_EQ(ParseIndex("000004294967295"), UINT32_MAX);
    for (const char* bad : {"", "4294967296", "-1", "+1", " 1", "1x"})
        EXPECT_EQ(ParseIndex(bad), std::nullopt) << bad;
}

TEST(LogNames, NumbersThatWrapAreOrdered) {
    const std::vector<std::pair<std::vector<uint32_t>, std::vector<uint32_t>>> cases = {
        {{1, 0, 4294967295, 4294967294}, {4294967294, 4294967295, 0, 1}},
        {{0, 4294967295}, {4294967295, 0}},
        {{0, 1, 5, 4294967295}, {5, 4294967295, 0, 1}},
        {{0, 0, 1, 4294967295}, {4294967295, 0, 0, 1}},
        {{1, 4294967295}, {1, 4294967295}},
        {{10, 9, 2}, {2, 9, 10}},
        {{3}, {3}},
        {{}, {}},
    };
    for (const auto& [given, expected] : cases) {
        std::vector<LogFile> files;
        for (const uint32_t index : given) files.push_back({"", index, "", false, 0});
        OrderByIndex(files);
        std::vector<uint32_t> order;
        for (const LogFile& file : files) order.push_back(file.index);
        EXPECT_EQ(order, expected);
    }
}

// --- header

TEST(MuxzHeader, IsReadAsItWasWritten) {
    const std::string bytes = HeaderBytes(5);
    Header header;
    ASSERT_EQ(ParseHeader(AsBytes(bytes), header), HeaderState::kWhole);
    EXPECT_TRUE(header.known_version);
    EXPECT_EQ(header.length, bytes.size());
    EXPECT_EQ(header.phone.compress_buf_size, 1048576u);
    EXPECT_EQ(header.phone.folder_time, 1706745500u);
    EXPECT_EQ(header.phone.file_idx, 5u);
    EXPECT_EQ(header.modem.md_info_word_a, 0x11223344u);
    EXPECT_EQ(header.modem.md_info_word_b, 0xcbcac9c8u);
    EXPECT_EQ(header.modem.md_info_time, 1706745599u);
    EXPECT_EQ(header.modem_record[203], 203);

    Bytes rest;
    const std::vector<CustomEntry> entries = ParseCustomBlock(header.custom, rest);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[1].type, 2);
    EXPECT_EQ(std::string(entries[1].value.begin(), entries[1].value.end()), "hw");
    EXPECT_TRUE(rest.empty());
    EXPECT_EQ(ParseCustomBlock(Bytes(header.custom).first(9), rest).size(), 1u);
    EXPECT_EQ(rest.size(), 3u);  // the entry that does not fit
}

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
    EXPECT_EQ(state(""), HeaderState::kEmpty);
    for (size_t size = 1; size < good.size(); ++size)
        ASSERT_EQ(state(good.substr(0, size)), HeaderState::kCut) << size;
    EXPECT_EQ(state("x"), HeaderState::kUnknown);
    EXPECT_EQ(state(with(3, 'x')), HeaderState::kUnknown);
    EXPECT_EQ(state(with(kLengthAt, 0xff)), HeaderState::kDamaged);
    EXPECT_EQ(state(with(kLengthAt + 3, 0xff)), HeaderState::kDamaged);
    EXPECT_EQ(state(with(kCustomLengthAt + 1, 0xff)), HeaderState::kDamaged);

    // A version of the future is skipped by its length.
    EXPECT_EQ(state(with(kVersionAt, 9)), HeaderState::kWhole);
    EXPECT_FALSE(header.known_version);
    EXPECT_EQ(header.length, good.size());
    EXPECT_EQ(state(with(kVersionAt, 9).substr(0, good.size() - 1)), HeaderState::kCut);
}

// --- blocks

TEST(MuxzBlocks, AreReadToWhereTheyEnd) {
    const std::string raw = test::StreamBytes(5000);
    const std::string good = BlockBytes(raw);
    std::string damaged = good;
    std::fill(damaged.begin() + static_cast<ptrdiff_t>(good.size() / 2), damaged.end(), '\xff');
    struct Case {
        const char* what;
        std::string behind;  // a good block
        End end;
        size_t trailing;
    };
    const Case cases[] = {
        {"nothing", "", End::kWhole, 0},
        {"stray byte", "\x7f", End::kStrayByte, 1},
        {"lengths cut", good.substr(0, 2), End::kCutLengths, 2},
        {"lengths nearly whole", good.substr(0, 5), End::kCutLengths, 5},
        {"lengths only", good.substr(0, 6), End::kCutBlock, 6},
        {"number cut", good.substr(0, 7), End::kCutBlock, 7},
        {"block cut", good.substr(0, good.size() - 1), End::kCutBlock, good.size() - 1},
        {"zeros", std::string(100, '\0'), End::kDamaged, 0},
        {"other raw length", Framed(4999, good.substr(6)), End::kDamaged, 0},
        {"packed length short", Framed(5000, good.substr(6, 500)), End::kDamaged, 0},
        {"packed length long", Framed(5000, good.substr(6) + "x"), End::kDamaged, 0},
        {"huge number", Framed(0xffffff, "\xff\xff\xff\xff\xff\xff\xff\xff"), End::kDamaged, 0},
        {"number without end", Framed(5000, "\x88"), End::kDamaged, 0},
        {"most that lengths say", std::string(6, '\xff') + "\xff\xff\xff\x07", End::kCutBlock, 10},
        {"bytes changed", damaged, End::kDamaged, 0},
    };
    const std::string header = HeaderBytes();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Walked walked = Walk(header + good + c.behind, header.size());
        EXPECT_EQ(walked.end, c.end);
        EXPECT_EQ(walked.trailing, c.trailing);
        EXPECT_EQ(walked.offset, header.size() + good.size());
        EXPECT_EQ(walked.raw, raw);

        // Statistics see the same as far as lengths tell.
        const std::string bytes = header + good + c.behind;
        MemorySource source(AsBytes(bytes));
        BlockReader reader(source, header.size(), BlockReader::Mode::kLengths);
        for (Block block; reader.Next(block);) EXPECT_TRUE(block.packed.empty());
        if (c.end != End::kDamaged) {
            EXPECT_EQ(reader.end(), c.end);
            EXPECT_EQ(reader.trailing(), c.trailing);
        }
    }
}

TEST(MuxzBlocks, OfEverySizeComeWhole) {
    std::string raw, bytes;
    for (const size_t size : {0u, 1u, 127u, 128u, 65536u, 262144u, 3000000u, 0xffffffu}) {
        const std::string piece = size < 4000000 ? RandomBytes(size, 7) : test::StreamBytes(size);
        raw += piece;
        bytes += BlockBytes(piece);
    }
    const Walked walked = Walk(bytes, 0);
    EXPECT_EQ(walked.end, End::kWhole);
    EXPECT_TRUE(walked.raw == raw);
    std::string recovered;
    for (const std::string& piece : RecoverBytes(HeaderBytes() + bytes).raws) recovered += piece;
    EXPECT_TRUE(recovered == raw);
}

// The daemon goes on writing between two reads.
TEST(MuxzBlocks, OfAGrowingFileAreFollowed) {
    const std::string block = BlockBytes(test::StreamBytes(9000));
    test::WriteFile("/box/log", HeaderBytes() + block);
    const int fd = open("/box/log", O_RDWR | O_APPEND | O_CLOEXEC);
    FileSource source(fd);
    BlockReader reader(source, HeaderBytes().size());
    Block seen;
    ASSERT_TRUE(reader.Next(seen));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(write(fd, block.data(), block.size()), static_cast<ssize_t>(block.size()));
        ASSERT_EQ(write(fd, block.data(), 3), 3);
        ASSERT_TRUE(reader.Next(seen));
        ASSERT_EQ(ftruncate(fd, lseek(fd, 0, SEEK_END) - 3), 0);
    }
    // A file that shrinks is an end, no crash.
    ASSERT_EQ(ftruncate(fd, 10), 0);
    EXPECT_FALSE(reader.Next(seen));
    close(fd);
}

// --- recovery

class MuxzRecovery : public testing::Test {
  protected:
    MuxzRecovery() {
        for (size_t i = 0; i < 6; ++i) raws.push_back(test::StreamBytes(700 + 37 * i, i + 1));
        bytes = HeaderBytes();
        for (const std::string& raw : raws) {
            starts.push_back(bytes.size());
            bytes += BlockBytes(raw);
        }
    }

    std::vector<std::string> raws;
    std::vector<size_t> starts;  // of the blocks
    std::string bytes;
};

// The header's length leads behind a block within the custom block, to bytes that are none.
TEST_F(MuxzRecovery, EndsWhenAHeaderMisleads) {
    const std::string hidden = BlockBytes(raws[0]);
    std::string misleading = HeaderBytes();
    const auto length = static_cast<uint32_t>(misleading.size() + hidden.size());
    memcpy(misleading.data() + sim::log_header::kLengthAt, &length, sizeof(length));
    misleading += hidden + std::string(50, '\xff');
    EXPECT_EQ(RecoverBytes(misleading).raws, std::vector<std::string>{raws[0]});
}

TEST_F(MuxzRecovery, FindsAllOfAGoodFile) {
    for (const std::string& end : {std::string(), std::string("x"), std::string("xyzab")}) {
        const Recovered recovered = RecoverBytes(bytes + end);
        EXPECT_EQ(recovered.raws, raws);
        EXPECT_TRUE(recovered.gaps.empty());
        EXPECT_EQ(recovered.result.trailing, end.size());
    }
}

TEST_F(MuxzRecovery, FindsWholeBlocksOfAFileCutAnywhere) {
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
        std::vector<std::string> before, behind;
        for (size_t i = 0; i < raws.size(); ++i) {
            const size_t end = i + 1 < starts.size() ? starts[i + 1] : bytes.size();
            if (end <= cut) before.push_back(raws[i]);
            if (starts[i] >= cut) behind.push_back(raws[i]);
        }
        ASSERT_EQ(RecoverBytes(bytes.substr(0, cut)).raws, before) << cut;
        ASSERT_EQ(RecoverBytes(bytes.substr(cut)).raws, behind) << cut;
    }
    EXPECT_TRUE(RecoverBytes(bytes.substr(0, bytes.size() - 20)).result.ends_cut);
}

TEST_F(MuxzRecovery, LosesOnlyTheBlockThatIsDamaged) {
    for (size_t at = 0; at < bytes.size(); ++at) {
        for (const int flip : {0x01, 0x80, 0xff}) {
            std::string damaged = bytes;
            damaged[at] = static_cast<char>(damaged[at] ^ flip);
            const Recovered recovered = RecoverBytes(damaged);
            size_t next = 0;
            for (size_t i = 0; i < raws.size(); ++i) {
                const size_t end = i + 1 < starts.size() ? starts[i + 1] : bytes.size();
                if (at >= starts[i] && at < end) continue;
                const auto found = std::find(recovered.raws.begin() + static_cast<ptrdiff_t>(next),
                                             recovered.raws.end(), raws[i]);
                ASSERT_NE(found, recovered.raws.end()) << "block " << i << " at " << at;
                next = static_cast<size_t>(found - recovered.raws.begin()) + 1;
            }
            // A changed literal may still unpack; nothing else comes on top.
            ASSERT_LE(recovered.raws.size(), raws.size()) << at;
        }
    }
}

TEST_F(MuxzRecovery, TellsWhatItSkips) {
    const std::string garbage = RandomBytes(100000, 3);
    const std::string front = bytes.substr(0, starts[2]), back = bytes.substr(starts[2]);
    const Recovered recovered = RecoverBytes(garbage + front + garbage + back + garbage);
    const size_t header = starts[0];
    const std::vector<std::pair<uint64_t, uint64_t>> gaps = {
        {0, garbage.size() + header},
        {garbage.size() + front.size(), garbage.size()},
        {2 * garbage.size() + bytes.size(), garbage.size()}};
    EXPECT_EQ(recovered.raws, raws);
    EXPECT_EQ(recovered.gaps, gaps);
    EXPECT_EQ(recovered.result.skipped, 3 * garbage.size() + header);
    EXPECT_EQ(recovered.result.header, HeaderState::kUnknown);
}

TEST_F(MuxzRecovery, TakesNothingForABlockThatIsNone) {
    std::string table, pairs, empties, singles;
    for (uint32_t i = 0; i < 20000; ++i) {
        const uint32_t small = i % 5;
        table.append(reinterpret_cast<const char*>(&small), sizeof(small));
        pairs += std::string("\x03\0\0\x05\0\0\x03\x08", 8) + static_cast<char>(i);
        empties += std::string("\0\0\0\x01\0\0\0", 7);
        // A block of one byte by its looks, and nothing behind it.
        singles += std::string("\x01\0\0\x03\0\0\x01\0a??????", 15);
    }
    for (const std::string& garbage :
         {table, pairs, empties, singles, std::string(100000, '\0'), std::string(100000, '\xff'),
          RandomBytes(3000000, 1), test::StreamBytes(1000000)}) {
        EXPECT_TRUE(RecoverBytes(garbage).raws.empty());
        EXPECT_EQ(RecoverBytes(garbage + bytes.substr(starts[0])).raws, raws);
    }
}

// A log may carry a log, which Snappy stores as it is.
TEST_F(MuxzRecovery, DoesNotLookIntoADamagedBlockWhoseLengthsHold) {
    std::string outer =
        BlockBytes(RandomBytes(200, 1) + BlockBytes(RandomBytes(5000, 2)) + RandomBytes(200, 3));
    outer[9] = '\xff';  // the tag that says how long the literal is
    outer[10] = '\xff';
    const Recovered recovered =
        RecoverBytes(bytes.substr(0, starts[1]) + outer + bytes.substr(starts[1]));
    EXPECT_EQ(recovered.raws, raws);
}

// Each unit looks like a block of nearly 16 MB that unpacks almost to its end. Without a bound on
// what is tried this takes hours.
TEST_F(MuxzRecovery, IsBoundedOnContrivedBytes) {
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

// --- the tool

class MuxzTool : public testing::Test {
  protected:
    struct Run {
        int status;
        std::string out;
        std::string err;
    };
    // Arguments as a shell takes them.
    static Run Muxz(const std::string& arguments) {
        const std::string command =
            std::string(MUXZ_PROGRAM) + " " + arguments + " >/box/out 2>/box/err";
        const int status = system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, test::ReadFile("/box/out"),
                test::ReadFile("/box/err")};
    }

    // A capture's file that holds `raw` alone.
    static std::string Put(const std::string& path, const std::string& raw,
                           const std::string& behind = "") {
        test::WriteFile(kTree + "/" + path, LogBytes({raw}) + behind);
        return kTree + "/" + path;
    }
};

TEST_F(MuxzTool, CatsATreeInCaptureOrder) {
    // Two files of the same second as well: those of one folder are told by their numbers.
    Put("QRXMDLog_9_2024_0101_000000/QRXMDLog_0_2024_0101_000000.muxz", "a");
    Put("QRXMDLog_9_2024_0101_000000/QRXMDLog_10_2024_0101_000000.muxz", "c");
    Put("QRXMDLog_9_2024_0101_000000/QRXMDLog_9_2024_0101_000000.muxz", "b", "x");
    // The clock went back to its beginning.
    Put("QRXMDLog_10_1970_0101_000000_EE/QRXMDLog_0_1970_0101_000000_EE.muxz", "d");
    Put("run1/QRXMDLog_0_2024_0102_000000/QRXMDLog_0_2024_0102_000000.muxz", "f");
    Put("QRXMDLog_11_2024_0101_000005/QRXMDLog_0_2024_0101_000005.muxz", "e");
    // Another log folder gives the same number in the same second.
    Put("run1/QRXMDLog_1_2024_0103_000000/QRXMDLog_0_2024_0103_000000.muxz", "g");
    Put("run2/QRXMDLog_1_2024_0103_000000/QRXMDLog_0_2024_0103_000000.muxz", "h");
    Put("QRXMDLog_12_2024_0104_000000t_EE/QRXMDLog_0_2024_0104_000000.muxz.tmp", "i",
        BlockBytes("cut").substr(0, 8));
    fs::create_directories(kTree + "/run2/QRXMDLog_2_2024_0105_000000t");
    // None of these belongs to the stream.
    Put("power_on_log.muxz", "P", std::string(1, '\0'));
    Put("snap/QRXMDLog_8_2023_0101_000000/QRXMDLog_0_2023_0101_000000.muxz", "Q");
    Put("snap/power_on_log.muxz", "P");
    test::WriteFile(kTree + "/snap/copied_folder_list", "List from oldest to newest\n");
    fs::create_directories(kTree + "/partial");
    fs::copy(kTree + "/QRXMDLog_11_2024_0101_000005",
             kTree + "/partial/QRXMDLog_11_2024_0101_000005", fs::copy_options::recursive);
    test::WriteFile(kTree + "/notes.txt", "not a log");

    const Run cat = Muxz("cat " + kTree + "/");
    EXPECT_EQ(cat.status, 0) << cat.err;
    EXPECT_EQ(cat.out, "abcdefghi");
    EXPECT_EQ(Muxz("cat " + kTree + "/snap").out, "Q");
    EXPECT_EQ(Muxz("cat " + kTree + "/QRXMDLog_9_2024_0101_000000/").out, "abc");
    EXPECT_EQ(Muxz("cat " + kTree + "/power_on_log.muxz").out, "P");
    EXPECT_EQ(Muxz("cat -o /box/stream /data").status, 0);
    EXPECT_EQ(test::ReadFile("/box/stream"), "abcdefghi");
    EXPECT_EQ(Muxz("verify " + kTree).status, 0);

    const Run ls = Muxz("ls -r -b");
    EXPECT_EQ(ls.status, 0);
    std::vector<std::string> lines;
    for (size_t at = 0; at < ls.out.size(); at = ls.out.find('\n', at) + 1)
        lines.push_back(ls.out.substr(at, ls.out.find('\n', at) - at));
    ASSERT_EQ(lines.size(), 1u + 10 + 1);  // the titles, captures and copies, the power-on log
    EXPECT_NE(lines[1].find("2023-01-01 00:00:00"), std::string::npos);
    EXPECT_NE(lines[1].find("finished copy"), std::string::npos);
    EXPECT_NE(lines[9].find("open EE"), std::string::npos);
    EXPECT_NE(lines[9].find("QRXMDLog_12_2024_0104_000000t_EE"), std::string::npos);
}

TEST_F(MuxzTool, TellsFaultsByFileAndOffset) {
    const std::string header_size = std::to_string(HeaderBytes().size());
    const std::string cut = BlockBytes(test::StreamBytes(300)).substr(0, 50);
    const std::string zeros(40, '\0');
    const std::string folder = "QRXMDLog_0_2024_0101_000000/QRXMDLog_";
    struct Case {
        const char* name;
        std::string bytes;
        int cat, verify;
        std::string error;  // of verify; empty: says nothing
    };
    const std::string good = LogBytes({"raw"});
    const std::string end = std::to_string(good.size());
    const Case cases[] = {
        {"0_2024_0101_000000.muxz", good, 0, 0, ""},
        {"0_2024_0101_000000.muxz", good + "x", 0, 0, ""},
        {"0_2024_0101_000000.muxz", good + cut.substr(0, 4), 0, 0, "offset " + end + ": cut"},
        {"0_2024_0101_000000.muxz", good + cut, 1, 1, "offset " + end + ": the file ends within"},
        {"0_2024_0101_000000.muxz", good + zeros, 1, 1, "offset " + end + ": block of no bytes"},
        {"0_2024_0101_000000.muxz", "", 1, 1, "offset 0: empty file"},
        {"0_2024_0101_000000.muxz", "rubbish", 1, 1, "offset 0: unknown header"},
        {"0_2024_0101_000000.muxz", good.substr(0, 50), 1, 1, "offset 0: the file ends within"},
        {"0_2024_0101_000000.muxz.tmp", good + cut, 0, 0, ""},
        {"0_2024_0101_000000.muxz.tmp", good + cut.substr(0, 4), 0, 0, ""},
        {"0_2024_0101_000000.muxz.tmp", good.substr(0, 50), 0, 0, ""},
        {"0_2024_0101_000000.muxz.tmp", "", 0, 0, ""},
        {"0_2024_0101_000000.muxz.tmp", good + zeros, 1, 1,
         "offset " + end + ": block of no bytes"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + c.error);
        fs::remove_all(kTree);
        const std::string path = kTree + "/" + folder + c.name;
        test::WriteFile(path, c.bytes);
        Put(folder + "1_2024_0101_000001.muxz", "next");

        const Run verify = Muxz("verify " + kTree);
        EXPECT_EQ(verify.status, c.verify) << verify.err;
        EXPECT_EQ(verify.err.find("muxz: " + path + ": " + c.error) == 0, !c.error.empty())
            << verify.err;
        EXPECT_EQ(std::count(verify.err.begin(), verify.err.end(), '\n'), c.error.empty() ? 0 : 1);

        const Run cat = Muxz("cat " + kTree);
        EXPECT_EQ(cat.status, c.cat) << cat.err;
        EXPECT_EQ(cat.out, c.bytes.starts_with(good) ? "rawnext" : "next");
        EXPECT_EQ(Muxz("info " + path).status, c.cat);
    }
}

TEST_F(MuxzTool, RecoversWhatItCan) {
    const std::string good = Put("good.muxz", test::StreamBytes(3000));
    Run run = Muxz("recover " + good);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, test::StreamBytes(3000));

    const std::string bytes = test::ReadFile(good);
    test::WriteFile("/box/x", bytes.substr(7) + "rubbish" + BlockBytes(test::StreamBytes(500)));
    run = Muxz("recover -o /box/stream /box/x");
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(test::ReadFile("/box/stream"), test::StreamBytes(3000) + test::StreamBytes(500));
    EXPECT_NE(run.err.find("offset " + std::to_string(bytes.size() - 7) + ": skipped 7 bytes"),
              std::string::npos)
        << run.err;

    test::WriteFile("/box/x.tmp", bytes + BlockBytes(test::StreamBytes(500)).substr(0, 99));
    EXPECT_EQ(Muxz("recover /box/x.tmp").status, 0);
}

TEST_F(MuxzTool, ShowsHeaderAndStatistics) {
    const std::string path = kTree + "/x.muxz";
    test::WriteFile(path, LogBytes({test::StreamBytes(1000), test::StreamBytes(5000)}) + "x");
    const Run run = Muxz("info " + path);
    EXPECT_EQ(run.status, 0);
    for (const char* text :
         {"modem info word a 287454020 (0x11223344)", "2024-01-31 23:59:59 UTC",
          "tag             tag", "hardware id     hw", "type 9          ff",
          "blocks            2\n", "raw bytes         6000\n", "largest block     5000 raw",
          "trailing bytes    1\n", "... (204 bytes)", "flushed close"})
        EXPECT_NE(run.out.find(text), std::string::npos) << text << "\n" << run.out;
    EXPECT_NE(Muxz("info -a " + path).out.find("c8c9cacb\n"), std::string::npos);
}

TEST_F(MuxzTool, EndsWithStatusTwoWhereItCannotWork) {
    const std::string log = Put("QRXMDLog_0_2024_0101_000000/QRXMDLog_0_2024_0101_000000.muxz",
                                RandomBytes(3000000, 1));
    fs::create_directories("/box/empty");
    ASSERT_EQ(mkfifo("/box/pipe", 0600), 0);
    ASSERT_EQ(symlink("loop", "/box/loop"), 0);
    const char* const refused[] = {
        "",
        "frob",
        "cat",
        "info",
        "recover /box/a /box/b",
        "cat -z x",
        "verify -o x",
        "ls a b",
        "cat /box/gone",
        "info /box/gone",
        "ls /gone",
        "cat /box/empty",
        "cat /box/pipe",
        "info /box/pipe",
        "recover /box/pipe",
        "info /box",
        "verify /box/loop",
        "cat /dev/zero",
        "cat --output= x",
    };
    for (const char* arguments : refused) {
        const Run run = Muxz(arguments);
        EXPECT_EQ(run.status, 2) << arguments;
        EXPECT_TRUE(run.out.empty()) << arguments;
        EXPECT_FALSE(run.err.empty()) << arguments;
    }
    // Nothing wrong with the input here.
    for (const std::string& output :
         {"cat -o /dev/full " + log, "cat -o /box/no/folder " + log, "cat -o " + log + " " + log,
          "recover -o /dev/full " + log, "cat -o " + log + " " + kTree}) {
        const Run run = Muxz(output);
        EXPECT_EQ(run.status, 2) << output;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
    EXPECT_EQ(Muxz("verify " + log).status, 0);  // it was not overwritten
    EXPECT_EQ(Muxz("cat " + log + " | true; (" MUXZ_PROGRAM " cat " + log +
                   "; echo $? >/box/status) | sleep 0")
                  .status,
              0);
    EXPECT_EQ(test::ReadFile("/box/status"), "2\n");
    for (const char* command : {"", "info", "cat", "verify", "recover", "ls"}) {
        const Run run = Muxz(std::string(command) + " --help");
        EXPECT_EQ(run.status, 0);
        EXPECT_NE(run.out.find("muxz"), std::string::npos);
    }
}

// The daemon gives folders and files their final names, and recycles, while they are read.
TEST_F(MuxzTool, FollowsNamesThatChange) {
    const std::string folder = kTree + "/QRXMDLog_3_2024_0101_000000";
    Put("QRXMDLog_3_2024_0101_000000t/QRXMDLog_0_2024_0101_000000.muxz.tmp", "a");
    Put("QRXMDLog_3_2024_0101_000000t/QRXMDLog_1_2024_0101_000000.muxz.tmp", "b");
    Tree tree;
    std::vector<Complaint> complaints;
    ASSERT_TRUE(ListTree(kTree, tree, complaints));
    ASSERT_EQ(tree.captures.size(), 1u);
    Capture& capture = tree.captures[0];
    EXPECT_FALSE(capture.finished);

    fs::rename(folder + "t", folder + "t_EE");
    const Fd fd = OpenCapture(capture);
    ASSERT_TRUE(fd);
    EXPECT_EQ(capture.path(), folder + "t_EE");
    EXPECT_TRUE(capture.exception);

    std::vector<LogFile> files;
    ASSERT_TRUE(ListFiles(fd, capture.path(), files, complaints));
    ASSERT_EQ(files.size(), 2u);
    fs::rename(folder + "t_EE", folder + "_EE");
    fs::rename(folder + "_EE/" + files[0].name, folder + "_EE/QRXMDLog_0_2024_0101_000000.muxz");
    fs::remove(folder + "_EE/" + files[1].name);
    std::string why;
    EXPECT_TRUE(OpenFile(fd, files[0], why));
    EXPECT_EQ(files[0].name, "QRXMDLog_0_2024_0101_000000.muxz");
    EXPECT_FALSE(OpenFile(fd, files[1], why));
    EXPECT_EQ(errno, ENOENT);

    // Names that people still have from a moment ago.
    EXPECT_EQ(Muxz("cat " + folder + "t").out, "a");
    EXPECT_EQ(Muxz("cat " + folder + "_EE/QRXMDLog_0_2024_0101_000000.muxz.tmp").out, "a");
    fs::remove_all(folder + "_EE");
    EXPECT_FALSE(OpenCapture(capture));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(complaints.empty());
}

}  // namespace
