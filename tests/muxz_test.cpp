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
#include <sstream>
#include <string>
#include <vector>

#include "sim/qrx_log_header.h"
#include "storage/log_file_format.h"
#include "storage/log_names.h"
#include "support.h"
#include "tools/muxz/header.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/recovery.h"
#include "tools/muxz/tree.h"

namespace {

namespace fs = std::filesystem;
using namespace muxz;
using quarn::log_file::kBlockHeaderSize;

const std::string kTree = "/data/vendor/radio/quarn/logs";

Bytes AsBytes(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// A header as the phone's library writes it.
std::string HeaderBytes() {
    uint8_t record[kMdInfoRecordSize];
    for (size_t i = 0; i < sizeof(record); ++i) record[i] = static_cast<uint8_t>(i);
    const std::string custom("\0\x03\0tag\x02\x02\0hw\x09\x01\0\xff", 15);
    const QRX_LOG_FORMAT_MODEM modem{record, 0xcbcac9c8, 0x11223344, 1706745599, 0};
    QRX_LOG_FORMAT_AP phone{1048576, 1706745500, 5, 0, {}};
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
    // What a name is, and its parts.
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
    // A custom entry that does not fit is left over.
    ASSERT_EQ(state(good), HeaderState::kWhole);
    Bytes rest;
    EXPECT_EQ(ParseCustomBlock(Bytes(header.custom).first(9), rest).size(), 1u);
    EXPECT_EQ(rest.size(), 3u);

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
}

// --- blocks

TEST(MuxzBlocks, AreReadToWhereTheyEnd) {
    const std::string raw = test::StreamBytes(5000);
    const std::string good = BlockBytes(raw);
    std::string damaged = good;
    std::fill(damaged.begin() + static_cast<ptrdiff_t>(good.size() / 2), damaged.end(), '\xff');
    const struct {
        const char* what;
        std::string behind;  // a good block
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

class MuxzRecovery : public testing::Test {
  protected:
    MuxzRecovery() {
        for (size_t i = 0; i < 6; ++i) raws.push_back(test::StreamBytes(700 + 37 * i, i + 1));
        bytes = HeaderBytes();
        for (const std::string& raw : raws) {
            starts.push_back(bytes.size());
            bytes += BlockBytes(raw);
        }
        starts.push_back(bytes.size());
    }

    // What the blocks hold that lie within these bytes as a whole.
    std::vector<std::string> Within(size_t from, size_t to) const {
        std::vector<std::string> within;
        for (size_t i = 0; i < raws.size(); ++i) {
            if (from <= starts[i] && starts[i + 1] <= to) within.push_back(raws[i]);
        }
        return within;
    }

    std::vector<std::string> raws;
    std::vector<size_t> starts;  // of the blocks, and where the last one ends
    std::string bytes;
};

TEST_F(MuxzRecovery, FindsWholeBlocksOfAFileCutAnywhere) {
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
        ASSERT_EQ(RecoverBytes(bytes.substr(0, cut)).raws, Within(0, cut)) << cut;
        ASSERT_EQ(RecoverBytes(bytes.substr(cut)).raws, Within(cut, bytes.size())) << cut;
    }
    EXPECT_TRUE(RecoverBytes(bytes.substr(0, bytes.size() - 20)).result.ends_cut);
    EXPECT_TRUE(RecoverBytes(bytes).gaps.empty());

    // Gaps between whole blocks are told.
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

TEST_F(MuxzRecovery, LosesOnlyTheBlockThatIsDamaged) {
    for (size_t at = 0; at < bytes.size(); ++at) {
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
            // A changed literal may still unpack; nothing else comes on top.
            ASSERT_LE(recovered.size(), raws.size()) << at;
        }
    }
}

TEST_F(MuxzRecovery, TakesNothingForABlockThatIsNone) {
    std::string pairs, empties, singles;
    for (uint32_t i = 0; i < 20000; ++i) {
        pairs += std::string("\x03\0\0\x05\0\0\x03\x08", 8) + static_cast<char>(i);
        empties += std::string("\0\0\0\x01\0\0\0", 7);
        // A block of one byte by its looks, and nothing behind it.
        singles += std::string("\x01\0\0\x03\0\0\x01\0a??????", 15);
    }
    for (const std::string& garbage : {pairs, empties, singles, std::string(100000, '\xff'),
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
        const int status = system((MUXZ_PROGRAM " " + arguments + " >/box/out 2>/box/err").c_str());
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
    // Files of the same second are told by their numbers, which wrap.
    const std::string first = "QRXMDLog_9_2024_0101_000000/QRXMDLog_";
    Put(first + "0_2024_0101_000000.muxz", "d", "x");
    Put(first + "10_2024_0101_000000.muxz", "b");
    Put(first + "4294967295_2024_0101_000000.muxz", "c");
    Put(first + "9_2024_0101_000000.muxz", "a");
    // The clock went back to its beginning.
    Put("QRXMDLog_10_1970_0101_000000_EE/QRXMDLog_0_1970_0101_000000_EE.muxz", "e");
    Put("run1/QRXMDLog_0_2024_0102_000000/QRXMDLog_0_2024_0102_000000.muxz", "g");
    Put("QRXMDLog_11_2024_0101_000005/QRXMDLog_0_2024_0101_000005.muxz", "f");
    // Another log folder gives the same number in the same second.
    Put("run1/QRXMDLog_1_2024_0103_000000/QRXMDLog_0_2024_0103_000000.muxz", "h");
    Put("run2/QRXMDLog_1_2024_0103_000000/QRXMDLog_0_2024_0103_000000.muxz", "i");
    Put("QRXMDLog_12_2024_0104_000000t_EE/QRXMDLog_0_2024_0104_000000.muxz.tmp", "j",
        BlockBytes("cut").substr(0, 8));
    // None of these belongs to the stream.
    Put("power_on_log.muxz", "P", std::string(1, '\0'));
    Put("snap/QRXMDLog_8_2023_0101_000000/QRXMDLog_0_2023_0101_000000.muxz", "Q");
    test::WriteFile(kTree + "/snap/copied_folder_list", "List from oldest to newest\n");
    fs::create_directories(kTree + "/partial");
    fs::copy(kTree + "/QRXMDLog_11_2024_0101_000005",
             kTree + "/partial/QRXMDLog_11_2024_0101_000005", fs::copy_options::recursive);

    const Run cat = Muxz("cat " + kTree + "/");
    EXPECT_EQ(cat.status, 0) << cat.err;
    EXPECT_EQ(cat.out, "abcdefghij");
    EXPECT_EQ(Muxz("cat " + kTree + "/snap").out, "Q");
    EXPECT_EQ(Muxz("cat " + kTree + "/QRXMDLog_9_2024_0101_000000/").out, "abcd");
    EXPECT_EQ(Muxz("cat " + kTree + "/power_on_log.muxz").out, "P");
    EXPECT_EQ(Muxz("cat -o /box/stream /data").status, 0);
    EXPECT_EQ(test::ReadFile("/box/stream"), "abcdefghij");
    EXPECT_EQ(Muxz("verify " + kTree).status, 0);
}

TEST_F(MuxzTool, TellsFaultsByFileAndOffset) {
    const std::string cut = BlockBytes(test::StreamBytes(300)).substr(0, 50);
    const std::string zeros(40, '\0');
    const std::string folder = kTree + "/QRXMDLog_0_2024_0101_000000";
    const std::string good = LogBytes({"raw"});
    const std::string end = "offset " + std::to_string(good.size());
    const struct {
        const char* ending;
        std::string bytes;
        int status;
        std::string error;  // of verify; empty: says nothing
    } cases[] = {
        {".muxz", good + cut.substr(0, 4), 0, end + ": cut"},
        {".muxz", good + cut, 1, end + ": the file ends within"},
        {".muxz", good + zeros, 1, end + ": block of no bytes"},
        {".muxz", "", 1, "offset 0: empty file"},
        {".muxz", "rubbish", 1, "offset 0: unknown header"},
        {".muxz", good.substr(0, 50), 1, "offset 0: the file ends within"},
        {".muxz.tmp", good + cut, 0, ""},
        {".muxz.tmp", "", 0, ""},
        {".muxz.tmp", good + zeros, 1, end + ": block of no bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ending + c.error);
        fs::remove_all(kTree);
        const std::string path = folder + "/QRXMDLog_0_2024_0101_000000" + c.ending;
        test::WriteFile(path, c.bytes);
        Put("QRXMDLog_0_2024_0101_000000/QRXMDLog_1_2024_0101_000001.muxz", "next");

        const Run verify = Muxz("verify " + kTree);
        EXPECT_EQ(verify.status, c.status);
        EXPECT_TRUE(verify.err.starts_with(c.error.empty() ? "" : "muxz: " + path + ": " + c.error))
            << verify.err;
        EXPECT_EQ(std::count(verify.err.begin(), verify.err.end(), '\n'), c.error.empty() ? 0 : 1);

        const Run cat = Muxz("cat " + kTree);
        EXPECT_EQ(cat.status, c.status) << cat.err;
        EXPECT_EQ(cat.out, c.bytes.starts_with(good) ? "rawnext" : "next");
        EXPECT_EQ(Muxz("info " + path).status, c.status);
        const Run recover = Muxz("recover " + path);
        EXPECT_EQ(recover.out, c.bytes.starts_with(good) ? "raw" : "");
        EXPECT_EQ(recover.err.find(end + ": skipped 40 bytes") != std::string::npos,
                  c.bytes.ends_with(zeros));
    }
}

TEST_F(MuxzTool, EndsWithStatusTwoWhereItCannotWork) {
    const std::string log = Put("QRXMDLog_0_2024_0101_000000/QRXMDLog_0_2024_0101_000000.muxz",
                                RandomBytes(3000000, 1));
    fs::create_directories("/box/empty");
    ASSERT_EQ(mkfifo("/box/pipe", 0600), 0);
    ASSERT_EQ(symlink("loop", "/box/loop"), 0);
    for (const char* arguments :
         {"", "frob", "cat", "cat -z x", "verify -o x", "ls a b", "cat /box/gone", "ls /gone",
          "cat /box/empty", "cat /box/pipe", "info /box/pipe", "recover /box/pipe", "info /box",
          "verify /box/loop", "cat /dev/zero", "cat --output= x"}) {
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
    fs::remove_all(folder + "_EE");
    EXPECT_FALSE(OpenCapture(capture));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(complaints.empty());
}

}  // namespace
