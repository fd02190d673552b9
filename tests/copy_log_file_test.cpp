// Copying the newest log files: which files, how many, and under which names.
#include "control/copy_log_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "control/protocol.h"
#include "core/quarn.h"
#include "storage/folder_history.h"
#include "support.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using quarn::zorvex::CopyLatestLogFile;
using test::List;
using test::ReadFile;
using test::WriteFile;

namespace {

const std::string kLogs = "/data/vendor/radio/quarn/logs/";
const std::string kTarget = "/data/snap";
constexpr int kMb = 1024 * 1024;

class CopyLogFile : public testing::Test {
  protected:
    CopyLogFile() {
        fs::create_directories("/data/vendor/radio");
        fs::create_directories(kTarget);
        g_file_io.create_top_folder();
    }

    // Creates a capture folder and its record in the folder history. Each file has 1000 bytes, all
    // the same letter, and each file has a different letter.
    void AddFolder(const std::string& record, const std::string& suffix, int files) {
        const std::string folder = kLogs + record + suffix;
        for (int i = 0; i < files; ++i) {
            const std::string ending = i == files - 1 ? ".muxz.tmp" : ".muxz";
            WriteFile(folder + "/QRXMDLog_" + std::to_string(i) + "_2024_0101_000000" + ending,
                      std::string(1000, static_cast<char>('a' + i)));
        }
        fs::create_directories(folder);
        quarn::zorvex::UpdateFolderHistory(kLogs + "/" + record);
    }
    static std::string Ask(const char* arg, int result) {
        char ack[quarn::protocol::kReplySize] = {};
        EXPECT_EQ(quarn::zorvex::HandleCommandCopyLogFile(arg, ack), result);
        return ack;
    }

    test::LogCapture log;
};

}  // namespace

TEST_F(CopyLogFile, TakesThreeParameters) {
    struct Row {
        const char* arg;
        std::string reply, message;
    };
    const Row rows[] = {
        {nullptr, "error", "CopyLogFile: invalid parameter counts"},
        {"/data/snap 1", "error", "CopyLogFile: invalid parameter counts"},
        {"/nonexistent 10 1", "error", "CopyLogFile: invalid directory /nonexistent"},
        {"/data/snap 0 1", "error", "CopyLogFile: invalid parameter 0"},
        {"/data/snap 2048 0", "error", "CopyLogFile: invalid parameter 2048"},
        {"/data/snap -1 0", "error", "CopyLogFile: invalid parameter -1"},
        {"/data/snap 1 2", "error", "CopyLogFile: invalid parameter 2"},
        {" /data/snap\t2047  0 ", "ok,0", "CopyLogFile: copied 0 MB log files to /data/snap"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arg != nullptr ? row.arg : "null");
        log.Clear();
        EXPECT_EQ(Ask(row.arg, row.reply == "error" ? -1 : 0), row.reply);
        EXPECT_EQ(log.Count(row.message), 1u);
    }
    EXPECT_EQ(quarn::zorvex::HandleCommandCopyLogFile("/data/snap 1 0", nullptr), -1);
}

TEST_F(CopyLogFile, FindsFoldersUnderTheNamesTheyBearNow) {
    AddFolder("QRXMDLog_0_2024_0101_000000", "", 1);
    AddFolder("QRXMDLog_1_2024_0101_000001", "_EE", 1);
    AddFolder("QRXMDLog_2_2024_0101_000002", "t_EE", 1);
    AddFolder("QRXMDLog_3_2024_0101_000003", "", 0);
    quarn::zorvex::UpdateFolderHistory(kLogs + "QRXMDLog_4_2024_0101_000004");
    AddFolder("QRXMDLog_5_2024_0101_000005", "t", 2);
    WriteFile(kLogs + "QRXMDLog_5_2024_0101_000005t/other", "not a log");
    WriteFile(kLogs + "power_on_log.muxz", "power on");

    EXPECT_EQ(CopyLatestLogFile(kTarget, kMb, false), 8 + 5 * 1000);
    const std::vector<std::string> expected = {"QRXMDLog_0_2024_0101_000000",
                                               "QRXMDLog_1_2024_0101_000001_EE",
                                               "QRXMDLog_2_2024_0101_000002t_EE",
                                               "QRXMDLog_5_2024_0101_000005t",
                                               "copied_folder_list",
                                               "power_on_log.muxz"};
    EXPECT_EQ(List(kTarget), expected);
    const std::string newest = kTarget + "/QRXMDLog_5_2024_0101_000005t/QRXMDLog_";
    EXPECT_EQ(ReadFile(newest + "0_2024_0101_000000.muxz"), std::string(1000, 'a'));
    EXPECT_EQ(ReadFile(newest + "1_2024_0101_000000.muxz.tmp"), std::string(1000, 'b'));
    EXPECT_EQ(ReadFile(kTarget + "/power_on_log.muxz"), "power on");
    EXPECT_EQ(log.Count("file_io: lock the change of folder name"), 6u);  // once for each record

    // The list contains the records of the copied folders. A second copy appends one more record.
    std::string list = "List from oldest to newest\n";
    for (const char* record : {"/QRXMDLog_0_2024_0101_000000", "/QRXMDLog_1_2024_0101_000001",
                               "/QRXMDLog_2_2024_0101_000002", "/QRXMDLog_5_2024_0101_000005"}) {
        list += kLogs + record + "\n";
    }
    EXPECT_EQ(ReadFile(kTarget + "/copied_folder_list"), list);
    EXPECT_EQ(CopyLatestLogFile(kTarget, kMb, false), 8 + 5 * 1000);
    EXPECT_EQ(ReadFile(kTarget + "/copied_folder_list"), list + list);
}

TEST_F(CopyLogFile, StopsAtTheFirstFileThatDoesNotFit) {
    struct Row {
        int limit, copied;
        size_t folders;  // number of folders in the list
    };
    // The newest folder has 3 files. The folder before it has 12 files, of which files 10 and 11
    // are the newest.
    AddFolder("QRXMDLog_0_2024_0101_000000", "", 12);
    AddFolder("QRXMDLog_1_2024_0101_000001", "t", 3);
    WriteFile(kLogs + "power_on_log.muxz", std::string(500, 'p'));
    const Row rows[] = {
        {1499, 500, 1},          // only the power-on log: the newest file needs one byte more
        {1500, 1500, 1},         // and the newest file
        {3500, 3500, 2},         // all files of the newest folder
        {5499, 4500, 2},         // and one file of the folder before
        {2047 * kMb, 15500, 2},  // the largest possible limit
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.limit);
        fs::remove_all(kTarget);
        fs::create_directories(kTarget);
        EXPECT_EQ(CopyLatestLogFile(kTarget, row.limit, false), row.copied);
        const std::string list = ReadFile(kTarget + "/copied_folder_list");
        EXPECT_EQ(static_cast<size_t>(std::count(list.begin(), list.end(), '\n')), 1 + row.folders);
        fs::remove(kTarget + "/copied_folder_list");
        EXPECT_EQ(test::TreeSize(kTarget), static_cast<uintmax_t>(row.copied));
        if (row.copied == 4500) {
            EXPECT_TRUE(fs::exists(
                kTarget + "/QRXMDLog_0_2024_0101_000000/QRXMDLog_11_2024_0101_000000.muxz.tmp"));
        }
    }
}

TEST_F(CopyLogFile, CopiesOneFile) {
    using quarn::zorvex::CopyFile;
    WriteFile("/data/source", "0123456789");
    // /box is another file system. The kernel copies between file systems in a different way.
    for (const std::string copy : {"/data/copy", "/box/copy"}) {
        SCOPED_TRACE(copy);
        WriteFile(copy, "something longer that stood there before");
        int copied = -2;
        EXPECT_EQ(CopyFile("/data/source", copy, copied), 2);
        EXPECT_EQ(copied, 10);
        EXPECT_EQ(ReadFile(copy), "0123456789");
    }
    int copied = -2;
    EXPECT_EQ(CopyFile("/data/none", "/data/copy", copied), 0);
    EXPECT_EQ(copied, 0);
    // A pipe without a reader does not block the copy.
    ASSERT_EQ(mkfifo("/data/pipe", 0600), 0);
    EXPECT_EQ(CopyFile("/data/source", "/data/pipe", copied), 0);
    // The daemon does not write through a symbolic link, because the link may point to a file that
    // the client must not write.
    fs::create_symlink("/data/copy", "/data/link");
    EXPECT_EQ(CopyFile("/data/source", "/data/link", copied), 0);
    EXPECT_EQ(CopyFile("/data/link", "/data/copy", copied), 0);  // nor does it read through one
    EXPECT_EQ(CopyFile("/data", "/data/copy", copied), 1);
    EXPECT_EQ(copied, -1);
    EXPECT_EQ(ReadFile("/data/copy"), "");
}

// A client cannot make the daemon copy into the log tree, whichever path or link it uses.
TEST_F(CopyLogFile, LeavesTheLogTreeAlone) {
    const std::string capture = kLogs + "QRXMDLog_0_2024_0101_000000t";
    AddFolder("QRXMDLog_0_2024_0101_000000", "t", 3);
    WriteFile(kLogs + "power_on_log.muxz", "first minute");
    fs::create_directories(kLogs + "run/deep");
    fs::create_directory_symlink(kLogs + "run", "/data/link");
    fs::create_directories("/data/other");
    fs::create_directory_symlink("/data/other", kLogs + "away");
    ASSERT_EQ(g_file_io.set_log_folder(kLogs + "away"), 0);
    for (const std::string& directory : {kLogs, kLogs + "run/deep", kLogs + "../logs/run",
                                         "/data/link"s, "/data/link/deep/.."s, "/data/other"s}) {
        log.Clear();
        EXPECT_EQ(Ask((directory + " 100 0").c_str(), -1), "error");
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                            "CopyLogFile: directory " + directory + " lies in the log folder"));
    }
    // The copy does not follow a link in the place of a capture's folder. A folder above the log
    // folder is allowed.
    fs::create_directory_symlink(kLogs + "run", kTarget + "/QRXMDLog_0_2024_0101_000000t");
    EXPECT_EQ(Ask("/data/snap 100 0", 0), "ok,12");
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "CopyLogFileFromFolder: Error opening folder ..."));
    EXPECT_EQ(Ask("/data/vendor/radio/quarn 100 0", 0), "ok,3012");
    EXPECT_EQ(List(kLogs + "run"), std::vector<std::string>{"deep"});
    EXPECT_TRUE(List("/data/other").empty());
    // A file that is its own destination stays unchanged.
    int copied = -2;
    EXPECT_EQ(quarn::zorvex::CopyFile(kLogs + "power_on_log.muxz",
                                      kLogs + "../logs/power_on_log.muxz", copied),
              1);
    EXPECT_EQ(ReadFile(kLogs + "power_on_log.muxz"), "first minute");
    EXPECT_EQ(test::TreeSize(capture), 3000u);
}

TEST_F(CopyLogFile, FlushesFirstWhenAskedTo) {
    const std::string stream = test::StreamBytes(200000);
    g_writer.init();
    ASSERT_EQ(g_file_io.io_open(), 0);
    ASSERT_EQ(g_file_io.io_write(stream.data(), 200000), 200000);
    EXPECT_EQ(Ask("/data/snap 10 0", 0), "ok,0");
    const std::string reply = Ask("/data/snap 10 1", 0);
    EXPECT_EQ(test::DecodeTree(kTarget), stream);
    fs::remove(kTarget + "/copied_folder_list");
    EXPECT_EQ(reply, "ok," + std::to_string(test::TreeSize(kTarget)));
}
