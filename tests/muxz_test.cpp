// muxz on log trees.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "made_log.h"
#include "storage/log_names.h"
#include "support.h"
#include "tools/muxz/tree.h"

namespace {

namespace fs = std::filesystem;
using namespace muxz;
using namespace test;

const std::string kTree = "/data/vendor/radio/quarn/logs";

// Returns the time in a name in seconds, as if it were UTC.
uint32_t SecondsOf(std::string_view time) {
    tm parts{};
    EXPECT_NE(strptime(std::string(time).c_str(), "%Y_%m%d_%H%M%S", &parts), nullptr) << time;
    return static_cast<uint32_t>(timegm(&parts));
}

class MuxzTool : public testing::Test {
  protected:
    using Run = test::Ran;
    // A shell splits the arguments.
    static Run Muxz(const std::string& arguments) {
        return test::Run(MUXZ_PROGRAM " " + arguments);
    }
    // Two blocks: random bytes could look like a single one.
    static std::string Blocks(char letter) {
        return BlockBytes(std::string(100, letter)) + BlockBytes(std::string(60, letter));
    }
    // Returns a stream in which each run of equal letters is reduced to one letter.
    static std::string Letters(std::string stream) {
        stream.erase(std::unique(stream.begin(), stream.end()), stream.end());
        return stream;
    }

    // Returns the header of a file for its names, in a time zone one hour east of UTC. `capture` is
    // the time of the capture if the folder's name does not contain it.
    std::string Header(const std::string& path, const std::string& capture = "") {
        using namespace quarn::log_names;
        const fs::path whole(path);
        const std::string folder = whole.parent_path().filename(), file = whole.filename();
        const auto of_folder = ParseFolder(folder);
        const auto of_file = ParseFile(file);
        told.folder_time = SecondsOf(of_folder         ? of_folder->time
                                     : capture.empty() ? "2024_0101_000000"
                                                       : capture) -
                           3600;
        told.file_index = of_file ? *ParseIndex(of_file->index) : 0;
        if (of_file) told.opened = SecondsOf(of_file->time) - 3600;
        return HeaderBytes(header, told);
    }
    // Writes a log file below the log folder.
    std::string Put(const std::string& path, char letter, const std::string& behind = "",
                    const std::string& capture = "") {
        test::WriteFile(kTree + "/" + path, Header(path, capture) + Blocks(letter) + behind);
        return kTree + "/" + path;
    }
    // Writes the files of a capture: one per minute, with one letter each. `folder` may have any
    // name.
    void PutCapture(const std::string& folder, const std::string& time, const std::string& letters,
                    size_t marked = SIZE_MAX) {
        for (size_t i = 0; i < letters.size(); ++i) {
            const std::string minute = std::to_string(10 + i);
            Put(folder + "/QRXMDLog_" + std::to_string(i) + "_" + time + minute + "00" +
                    (i >= marked ? "_EE" : "") + ".muxz",
                letters[i], "", time + "0959");
        }
    }

    size_t header = kOwn;
    Told told;
};

// With each kind of header.
class MuxzFiles : public MuxzTool, public testing::WithParamInterface<size_t> {
  protected:
    MuxzFiles() { header = GetParam(); }
    bool HasKnownParts() const { return header == kOwn || header >= 512; }
};
INSTANTIATE_TEST_SUITE_P(, MuxzFiles, testing::ValuesIn(kHeaders), NameOf);

const std::string kFirst = "QRXMDLog_3_2024_0101_100959", kSecond = "QRXMDLog_4_2024_0101_110959",
                  kThird = "QRXMDLog_5_2024_0101_120959t";

TEST_P(MuxzFiles, ComeInCaptureOrder) {
    // The numbers order files of the same second. Numbers wrap.
    const std::string first = "QRXMDLog_9_2024_0101_000000/QRXMDLog_";
    Put(first + "0_2024_0101_000000.muxz", 'c', "x");
    Put(first + "1_2024_0101_000000.muxz", 'd');
    Put(first + "4294967295_2024_0101_000000.muxz", 'b');
    Put(first + "4294967294_2024_0101_000000.muxz", 'a');
    // The clock was reset.
    Put("QRXMDLog_10_1970_0102_000000_EE/QRXMDLog_0_1970_0102_000000_EE.muxz", 'e');
    Put("run1/QRXMDLog_0_2024_0102_000000/QRXMDLog_0_2024_0102_000000.muxz", 'g');
    Put("QRXMDLog_11_2024_0101_000005/QRXMDLog_0_2024_0101_000005.muxz", 'f');
    // Two log folders have the same number in the same second.
    Put("run1/QRXMDLog_1_2024_0103_000000/QRXMDLog_0_2024_0103_000000.muxz", 'h');
    Put("run2/QRXMDLog_1_2024_0103_000000/QRXMDLog_0_2024_0103_000000.muxz", 'i');
    Put("QRXMDLog_12_2024_0104_000000t_EE/QRXMDLog_0_2024_0104_000000.muxz.tmp", 'j',
        Blocks('k').substr(0, 8));
    // These do not belong to the stream.
    Put("power_on_log.muxz", 'P', std::string(1, '\0'));
    Put("snap/QRXMDLog_8_2023_0101_000000/QRXMDLog_0_2023_0101_000000.muxz", 'Q');
    test::WriteFile(kTree + "/snap/copied_folder_list", "List from oldest to newest\n");
    fs::create_directories(kTree + "/partial");
    fs::copy(kTree + "/QRXMDLog_11_2024_0101_000005",
             kTree + "/partial/QRXMDLog_11_2024_0101_000005", fs::copy_options::recursive);

    const Run cat = Muxz("cat " + kTree + "/");
    EXPECT_EQ(cat.status, 0) << cat.err;
    EXPECT_EQ(Letters(cat.out), "abcdefghij");
    EXPECT_EQ(Letters(Muxz("cat " + kTree + "/snap").out), "Q");
    EXPECT_EQ(Letters(Muxz("cat " + kTree + "/QRXMDLog_9_2024_0101_000000/").out), "abcd");
    EXPECT_EQ(Letters(Muxz("cat " + kTree + "/power_on_log.muxz").out), "P");
    EXPECT_EQ(Muxz("cat -o /box/stream /data").status, 0);
    EXPECT_EQ(test::ReadFile("/box/stream"), cat.out);
    const Run verify = Muxz("verify " + kTree);
    EXPECT_EQ(verify.status, 0) << verify.err;
    // 10 files of two blocks. Power-on logs are counted separately, copies are not counted.
    EXPECT_EQ(verify.out,
              "power-on log: 1 file, 2 blocks, 160 raw bytes\n"
              "10 files, 20 blocks, 1600 raw bytes: every block is good\n");
    const Run recover = Muxz("recover " + kTree);
    EXPECT_EQ(recover.status, 0) << recover.err;
    EXPECT_EQ(recover.out, cat.out);
}

TEST_P(MuxzFiles, OfAHeapAreGroupedByCapture) {
    PutCapture("heap", "2024_0101_12", "gh");
    PutCapture("heap", "2024_0101_11", "cdef");
    PutCapture("heap", "2024_0101_10", "ab");
    const std::string heap = kTree + "/heap";
    for (const std::string& paths : {heap, heap + "/*", "$(ls -r " + heap + "/*)"}) {
        const Run cat = Muxz("cat " + paths);
        EXPECT_EQ(cat.status, 0) << cat.err;
        EXPECT_EQ(Letters(cat.out), "abcdefgh");
        EXPECT_NE(cat.err.find("capture order"), std::string::npos);
    }
    EXPECT_EQ(Muxz("cat " + heap + "/*_11*").err, "");
    const Run ls = Muxz("ls " + heap);
    EXPECT_EQ(std::count(ls.out.begin(), ls.out.end(), '\n'), 4) << ls.out;
    EXPECT_NE(ls.out.find("      4  "), std::string::npos) << ls.out;
    EXPECT_NE(ls.out.find("newest"), std::string::npos);
    // Missing files are reported in unsorted files, too, but not files that the command does not
    // name.
    EXPECT_EQ(Muxz("verify " + heap + "/QRXMDLog_[023]_*_11*").status, 0);
    fs::remove(heap + "/QRXMDLog_1_2024_0101_111100.muxz");
    for (const std::string& paths : {heap, heap + "/*"}) {
        const Run verify = Muxz("verify " + paths);
        EXPECT_EQ(verify.status, 1);
        EXPECT_NE(verify.err.find("file 1 of the capture of 2024-01-01 11:"), std::string::npos)
            << verify.err;
    }
}

TEST_P(MuxzFiles, OfTreesAreMergedAndOfPhonesToldApart) {
    PutCapture("a/" + kFirst, "2024_0101_10", "ab");
    PutCapture("b/" + kSecond, "2024_0101_11", "cd");
    PutCapture("a/" + kThird, "2024_0101_12", "ef");
    const Run both = Muxz("cat " + kTree + "/b " + kTree + "/a");
    EXPECT_EQ(both.status, 0) << both.err;
    EXPECT_EQ(Letters(both.out), "abcdef");
    EXPECT_NE(both.err.find("capture order"), std::string::npos);

    // Another phone logs at the same time.
    told.hardware = "other";
    PutCapture("c/QRXMDLog_3_2024_0101_101010", "2024_0101_10", "xy");
    for (const char* name : {"0_2024_0101_101000", "1_2024_0101_101100"}) {
        const std::string path = kTree + "/c/QRXMDLog_3_2024_0101_101010/QRXMDLog_";
        const std::string later = std::string(name, 16) + "30.muxz";
        fs::rename(path + name + ".muxz", path + later);
    }
    PutCapture("heap", "2024_0101_13", "xy");
    for (const std::string second : {"/c", "/heap"}) {
        const std::string paths = kTree + "/a " + kTree + second;
        if (second == "/heap" && !HasKnownParts()) continue;  // one capture, by the names
        const Run refused = Muxz("cat " + paths);
        EXPECT_EQ(refused.status, 2);
        EXPECT_TRUE(refused.out.empty());
        EXPECT_NE(refused.err.find("2 phones"), std::string::npos) << refused.err;
        EXPECT_EQ(Letters(Muxz("cat --phone 1 " + paths).out), "abef") << second;
        EXPECT_EQ(Letters(Muxz("cat --phone 2 " + paths).out), "xy");
        EXPECT_EQ(Letters(Muxz("cat --phone all " + paths).out), "abefxy");
        EXPECT_EQ(Muxz("cat --phone same " + paths).out.size(), 6u * 160);
        EXPECT_EQ(Muxz("cat --phone 3 " + paths).status, 2);
        EXPECT_EQ(Muxz("check " + paths).status, 2);
        EXPECT_NE(Muxz("ls " + paths).out.find("phone 2"), std::string::npos);
    }
}

TEST_P(MuxzFiles, MissingAreTold) {
    PutCapture(kFirst, "2024_0101_10", "abcde");
    PutCapture(kThird, "2024_0101_12", "fgh");
    test::WriteFile(
        "/data/vendor/radio/quarn/log_folder_history",
        kTree + "//QRXMDLog_3_2024_0101_100959\n" + kTree + "//QRXMDLog_6_2024_0101_130959\n");
    fs::remove(kTree + "/" + kThird + "/QRXMDLog_0_2024_0101_121000.muxz");
    Run verify = Muxz("verify " + kTree);
    EXPECT_EQ(verify.status, 0);
    for (const char* note : {"captures 0 to 2 are gone", "capture 4 is missing",
                             "capture 6 is named here", "file 0 is gone: recycled?"}) {
        EXPECT_NE(verify.err.find(note), std::string::npos) << note << '\n' << verify.err;
    }
    fs::remove(kTree + "/" + kFirst + "/QRXMDLog_1_2024_0101_101100.muxz");
    fs::remove(kTree + "/" + kFirst + "/QRXMDLog_2_2024_0101_101200.muxz");
    for (const char* command : {"verify ", "cat ", "check ", "check --quick "}) {
        const Run run = Muxz(command + kTree);
        EXPECT_EQ(run.status, 1) << command;
        EXPECT_NE((run.err + run.out).find("files 1 to 2 are missing, between 2024-01-01 10:10"),
                  std::string::npos)
            << command << run.err << run.out;
    }
    EXPECT_EQ(Letters(Muxz("cat " + kTree).out), "adegh");
    const Run check = Muxz("check " + kTree);
    EXPECT_NE(check.out.find("\nNOT WHOLE: 2 captures, 5 files, 1 fault, 1 hole among them\n"),
              std::string::npos)
        << check.out;
}

TEST_P(MuxzFiles, NothingIsLostWithoutAWord) {
    PutCapture(kFirst, "2024_0101_10", "abc");
    PutCapture(kThird, "2024_0101_12", "fgh");
    const std::string folder = kTree + "/" + kFirst, last = "/QRXMDLog_2_2024_0101_101200.muxz";
    const auto expect = [&](const char* command, int status, const std::string& line) {
        const Run run = Muxz(command + kTree);
        EXPECT_EQ(run.status, status) << run.err << run.out;
        EXPECT_NE((run.err + run.out).find(line), std::string::npos) << run.err << run.out;
    };
    expect("check ", 0, kThird + ": the newest file is not here");
    fs::rename(folder + last, folder + "/QRXMDLog_2_2024_0101_101200 (1).muxz");
    expect("cat ", 0, "(1).muxz: left out, its name is not quite");
    fs::create_symlink("/nowhere", folder + last);
    expect("check ", 2, last + ": is a link that leads nowhere\n");
    fs::remove(folder + last);
    // The clock goes back by an hour.
    Put(kFirst + "/QRXMDLog_2_2024_0101_091200.muxz", 'c');
    expect("check ", 0, "was set back\n");
    if (HasKnownParts()) {
        fs::rename(Put(kThird + "/QRXMDLog_3_2024_0101_101300.muxz", 'x'),
                   folder + "/QRXMDLog_3_2024_0101_101300.muxz");
        expect("cat ", 1, "its header says another capture, of 2024-01-01 11:09:59 UTC\n");
    }
    if (header == kOwn) {
        const std::string damaged = kTree + "/" + kThird + "/QRXMDLog_1_2024_0101_121100.muxz";
        std::string bytes = test::ReadFile(damaged);
        bytes[0] = '\0';
        test::WriteFile(damaged, bytes);
        expect("verify ", 1, damaged + ": damaged header: of no known layout");
    }
    fs::remove_all(folder);
    fs::create_directory(folder);
    expect("cat ", header == kOwn ? 1 : 0, kFirst + ": holds no log files\n");
    fs::remove_all(folder);
    fs::remove_all(kTree + "/" + kThird);
    Put("power_on_log.muxz", 'p');
    expect("cat ", 0, "only a power-on log is here");
    expect("check ", 0, "\nNOTHING THERE: 0 captures, 0 files, 1 power-on log\n");
}

TEST_P(MuxzFiles, AreReadOnBehindDamage) {
    const std::string file = kFirst + "/QRXMDLog_1_2024_0101_101100.muxz";
    PutCapture(kFirst, "2024_0101_10", "abc");
    const std::string front = Header(file);
    std::vector<size_t> starts;
    std::string bytes = front;
    for (char letter = 'p'; letter <= 'w'; ++letter) {
        starts.push_back(bytes.size());
        bytes += BlockBytes(test::StreamBytes(900, static_cast<uint64_t>(letter)) + letter);
    }
    const auto damage = [&](size_t block, size_t at) {
        bytes.replace(starts[block] + at, 8, std::string(8, '\xff'));
    };
    // The lengths of this block are right. Without a known header, the neighbouring files show
    // where it begins.
    damage(0, 8);
    damage(2, 8);
    damage(3, 8);
    damage(6, 0);
    test::WriteFile(kTree + "/" + file, bytes);
    const Run cat = Muxz("cat " + kTree + "/" + kFirst);
    EXPECT_EQ(cat.status, 1);
    EXPECT_EQ(cat.out.size(), 2 * 160 + 4 * 901u);
    const auto at = [&](size_t block, const std::string& raw) {
        return "offset " + std::to_string(starts[block]) + ": block " + raw;
    };
    for (const std::string& fault :
         {at(0, "does not unpack; "), std::string(" 901 raw bytes are missing"),
          at(2, "does not unpack; "), std::string(" 1802 raw bytes are missing"), at(6, "says")}) {
        EXPECT_NE(cat.err.find(fault), std::string::npos) << fault << '\n' << cat.err;
    }
    EXPECT_NE(cat.err.find(", about "), std::string::npos) << cat.err;

    // Without neighbouring files, its lengths lead to the second block.
    EXPECT_EQ(Muxz("cat " + kTree + "/" + file).out.size(), 4 * 901u);
    EXPECT_NE(Muxz("cat " + kTree + "/" + file).err.find(at(0, "")), std::string::npos);

    const Run verify = Muxz("verify " + kTree);
    EXPECT_EQ(verify.status, 1);
    EXPECT_NE(verify.out.find(": 3 faults (0 holes)"), std::string::npos) << verify.out;
    const Run first = Muxz("verify --first " + kTree);
    EXPECT_EQ(first.status, 1);
    EXPECT_EQ(std::count(first.err.begin(), first.err.end(), '\n'), 1) << first.err;
    EXPECT_NE(first.err.find(at(0, "")), std::string::npos);
    const Run recover = Muxz("recover " + kTree);
    EXPECT_EQ(recover.status, 1);
    EXPECT_EQ(recover.out, cat.out);
}

TEST_P(MuxzFiles, TellFaultsByFileAndOffset) {
    const std::string cut = BlockBytes(test::StreamBytes(300)).substr(0, 50);
    const std::string zeros(40, '\0');
    const std::string file = "QRXMDLog_3_2024_0101_100959/QRXMDLog_0_2024_0101_101000.muxz";
    const std::string good = Header(file) + Blocks('r');
    const std::string end = "offset " + std::to_string(good.size());
    const std::string cut_header =
        "offset 0: " + std::string(header == kOwn ? "the file ends within" : "unknown header");
    const struct {
        const char* ending;
        std::string bytes;
        int status;
        std::string error;  // of verify; empty: no message
    } cases[] = {
        {"", good + cut.substr(0, 4), 0, end + ": cut"},
        {"", good + cut, 1, end + ": the file ends within"},
        {"", good + zeros, 1, end + ": block of no bytes; 40 bytes passed over, about "},
        {"", "", 1, "offset 0: empty file"},
        {"", "rubbish", 1, "offset 0: unknown header"},
        {"", good.substr(0, 8), 1, cut_header},
        {".tmp", good + cut, 0, ""},
        {".tmp", good.substr(0, 8), 0, ""},
        {".tmp", "", 0, ""},
        {".tmp", good + zeros, 1, end + ": block of no bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ending + c.error);
        fs::remove_all(kTree);
        const std::string path = kTree + "/" + file + c.ending;
        test::WriteFile(path, c.bytes);
        Put("QRXMDLog_3_2024_0101_100959/QRXMDLog_1_2024_0101_101100.muxz", 'n');
        const Run verify = Muxz("verify " + kTree + "/" + kFirst);
        EXPECT_EQ(verify.status, c.status);
        EXPECT_TRUE(verify.err.starts_with(c.error.empty() ? "" : "muxz: " + path + ": " + c.error))
            << verify.err;
        EXPECT_EQ(std::count(verify.err.begin(), verify.err.end(), '\n'), c.error.empty() ? 0 : 1);

        const Run cat = Muxz("cat " + kTree);
        EXPECT_EQ(cat.status, c.status) << cat.err;
        EXPECT_EQ(Letters(cat.out), c.bytes.starts_with(good) ? "rn" : "n");
        EXPECT_EQ(Muxz("info " + path).status, c.status);
        const Run recover = Muxz("recover " + path);
        EXPECT_EQ(Letters(recover.out), c.bytes.starts_with(good) ? "r" : "");
        EXPECT_EQ(recover.err.find(end + ": skipped 40 bytes") != std::string::npos,
                  c.bytes.ends_with(zeros));
        EXPECT_EQ(recover.err.find("40 bytes skipped in 1 place") != std::string::npos,
                  c.bytes.ends_with(zeros));
        EXPECT_EQ(recover.err.find("1 places"), std::string::npos) << recover.err;
    }
}

TEST_P(MuxzFiles, TellTheExceptionAndThePhone) {
    told.modem_time = 0;
    PutCapture(kFirst, "2024_0101_10", "ab");
    told.modem_time = SecondsOf("2024_0101_100000");
    PutCapture(kSecond + "_EE", "2024_0101_11", "cdef", 2);
    told.modem_time = SecondsOf("2024_0101_101130");  // UTC; the modem's restart
    told.radio = "v2";
    for (const char* name : {"2_2024_0101_111200_EE.muxz", "3_2024_0101_111300_EE.muxz"})
        Put(kSecond + "_EE/QRXMDLog_" + name, 'x');
    PutCapture(kThird, "2024_0101_12", "gh");
    const Run check = Muxz("check " + kTree);
    EXPECT_EQ(check.status, 0) << check.out;
    std::vector<std::string> lines = {
        HasKnownParts()
            ? "exception   capture 4: at 2024-01-01 11:11:30, as the modem told after it"
            : "exception   capture 4: between 2024-01-01 11:11:00 and 2024-01-01 11:12:00",
        "note        " + kTree + ": captures 0 to 2 are gone: recycled?",
        "GOOD: 3 captures, 8 files, every block unpacks"};
    if (HasKnownParts()) {
        lines.insert(lines.end(), {"phone       radio version v1, hardware id hw, ",
                                   "changed     capture 5: radio version v2, before v1",
                                   "UTC offset  UTC+01:00"});
    }
    for (const std::string& line : lines) {
        EXPECT_NE(check.out.find("\n" + line), std::string::npos) << line << '\n' << check.out;
    }

    // The modem's first information is no restart. An exception mark of the folder is enough.
    PutCapture(kFirst + "_EE", "2024_0101_10", "ab");
    told.modem_time = 0;
    Put(kFirst + "_EE/QRXMDLog_0_2024_0101_101000.muxz", 'a');
    EXPECT_NE(Muxz("check " + kTree + "/" + kFirst + "_EE")
                  .out.find("exception   capture 3: between 2024-01-01 10:09:59 and "),
              std::string::npos);
    // Without the folder, only the modem's information shows exceptions, here two restarts.
    const char* const told_at[] = {"2024_0101_080000", "2024_0101_091050", "2024_0101_091150"};
    for (size_t i = 0; i < 3; ++i) {
        told.modem_time = SecondsOf(told_at[i]);
        const std::string number = std::to_string(i);
        Put("heap/QRXMDLog_" + number + "_2024_0101_101" + number + "59.muxz", 'a', "",
            "2024_0101_100959");
    }
    const Run heap = Muxz("check " + kTree + "/heap");
    for (const char* line : {": at 2024-01-01 10:10:50, as the modem told after it (no folder",
                             ": once more at 2024-01-01 10:11:50\n"})
        EXPECT_EQ(heap.out.find(line) != std::string::npos, HasKnownParts()) << heap.out;

    const Run info = Muxz("info " + kTree + "/" + kFirst);
    EXPECT_EQ(info.status, 0);
    if (header == kOwn) {
        EXPECT_NE(info.out.find("modem info time   none yet\n"), std::string::npos) << info.out;
    }
    if (header != kOwn && header != 0) {
        const std::string line = "header of another writer, " + std::to_string(header) + " bytes\n";
        EXPECT_NE(info.out.find(line), std::string::npos) << info.out;
    }
    const Run late = Muxz("info " + kTree + "/" + kThird + "/QRXMDLog_0_2024_0101_121000.muxz");
    for (const char* line : {"file index        0\n", "(2024-01-01 10:11:30 UTC)\n",
                             "radio version   v2\n", "modem record      000102"})
        EXPECT_EQ(late.out.find(line) != std::string::npos, HasKnownParts()) << line << late.out;
}

TEST_P(MuxzFiles, HeaderLikeABlockIsNone) {
    // A short block that no block follows, and one that does not unpack.
    const std::string deceit =
        BlockBytes("tiny") + "??" + Framed(70, "\x46 what is no Snappy data");
    const std::string path = kTree + "/QRXMDLog_0_2024_0101_101000.muxz";
    const std::string front = deceit + RandomBytes(header == kOwn ? 1 : header + 1, 3);
    test::WriteFile(path, front + Blocks('a'));
    EXPECT_EQ(Letters(Muxz("cat " + path).out), "a");
    EXPECT_NE(Muxz("info " + path).out.find("writer, " + std::to_string(front.size()) + " bytes"),
              std::string::npos);
    // A file without a block, and a file whose first block follows the range that muxz searches.
    test::WriteFile(path, front);
    EXPECT_EQ(Muxz("verify " + path).status, 1);
    fs::rename(path, path + ".tmp");
    EXPECT_EQ(Muxz("verify " + path + ".tmp").status, 0);
    test::WriteFile(path, std::string(128 * 1024 + 1, '?') + Blocks('a'));
    EXPECT_EQ(Muxz("cat " + path).status, 1);
    test::WriteFile(path, std::string(128 * 1024, '?') + Blocks('a'));
    EXPECT_EQ(Letters(Muxz("cat " + path).out), "a");
}

TEST_P(MuxzFiles, AreListedFromAnywhere) {
    PutCapture(kFirst, "2024_0101_10", "ab");
    const std::string open = Put(kThird + "/QRXMDLog_0_2024_0101_121000.muxz.tmp", 'c');
    const std::string within = "cd " + kTree + "/" + kFirst + " && " MUXZ_PROGRAM " ls -f";
    for (const char* path : {" .", " ./",
                             " ../"
                             "QRXMDLog_3_2024_0101_100959"}) {
        const auto [status, out, err] = test::Run(within + path);
        EXPECT_EQ(status, 0) << err;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 4) << out;
    }
    const Run ls = Muxz("ls " + kTree);
    EXPECT_EQ(ls.status, 0);
    EXPECT_NE(ls.out.find("newest "), std::string::npos) << ls.out;
    const Fd daemon(::open(open.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    EXPECT_NE(Muxz("ls " + kTree).out.find("being written "), std::string::npos);
}

TEST_F(MuxzTool, EndsWithStatusTwoWhereItCannotWork) {
    const std::string log = Put("QRXMDLog_0_2024_0101_000000/QRXMDLog_0_2024_0101_000000.muxz", 'a',
                                BlockBytes(RandomBytes(3000000, 1)));
    fs::create_directories("/box/empty");
    ASSERT_EQ(mkfifo("/box/QRXMDLog_0_12.muxz", 0600), 0);  // no program writes to it
    ASSERT_EQ(symlink("loop", "/box/loop"), 0);
    for (const char* arguments :
         {"", "frob", "cat", "cat -z x", "verify -o x", "ls a b", "cat /box/gone", "ls /gone",
          "cat /box/empty", "cat /box/QRXMDLog_0_12.muxz", "recover /box/QRXMDLog_0_12.muxz",
          "info /box", "verify /box/loop", "cat /dev/zero", "cat --output= x", "cat --phone 0 x"}) {
        const Run run = Muxz(arguments);
        EXPECT_EQ(run.status, 2) << arguments;
        EXPECT_TRUE(run.out.empty()) << arguments << run.out;
        EXPECT_FALSE(run.err.empty()) << arguments;
    }
    // Only the output is wrong here.
    for (const std::string& output :
         {"cat -o /dev/full " + log, "cat -o /box/no/folder " + log, "cat -o " + log + " " + log,
          "recover -o /dev/full " + log, "cat -o " + log + " " + kTree}) {
        const Run run = Muxz(output);
        EXPECT_EQ(run.status, 2) << output;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
    EXPECT_EQ(Muxz("verify " + log).status, 0);  // it was not overwritten
}

// The daemon renames and recycles folders and files while muxz reads them.
TEST_F(MuxzTool, FollowsNamesThatChange) {
    const std::string folder = kTree + "/QRXMDLog_3_2024_0101_000000";
    Put("QRXMDLog_3_2024_0101_000000t/QRXMDLog_0_2024_0101_000000.muxz.tmp", 'a');
    Put("QRXMDLog_3_2024_0101_000000t/QRXMDLog_1_2024_0101_000000.muxz.tmp", 'b');
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
