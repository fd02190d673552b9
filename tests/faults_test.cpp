// System calls that fail: what the daemon says and answers, that it goes on when the fault is over,
// and what is on disk then.
#include <cutils/sockets.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "byte_source.h"
#include "control/copy_log_file.h"
#include "control/quarn_command.h"
#include "core/quarn.h"
#include "core/quarn_config.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"
#include "storage/folder_history.h"
#include "support.h"
#include "syscall_faults.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::Call;
using test::FailCalls;
using test::Fault;

namespace {

const std::string kBase = "/data/vendor/radio/quarn/";
const std::string kLogs = kBase + "logs/";
const std::string kHistory = kBase + "log_folder_history";
constexpr const char* kDefault = "/vendor/etc/quarn_default.cfg";
const std::string kTap = "/data/tap";
constexpr size_t kMb = 1 << 20;

}  // namespace

// --- the road of a log block ---

namespace {

// What the daemon is asked for while the fault lasts.
enum class Meanwhile { kNothing, kNewCapture, kException };

struct RoadFault {
    const char* name;
    Fault fault;
    const char* message;  // an error but where it is empty: then nobody hears of it
    Meanwhile meanwhile = Meanwhile::kNothing;
    size_t torn = 0;                 // files that end in the middle of a block
    size_t unfinished = 1;           // files that keep their ".tmp"
    unsigned int recycle_size = 99;  // MB
};

void PrintTo(const RoadFault& row, std::ostream* out) { *out << row.name; }

class RoadFaults : public testing::TestWithParam<RoadFault> {
  protected:
    RoadFaults() {
        fs::create_directories("/data/vendor/radio");
        mcl_init();
        g_file_io.create_top_folder();
        g_file_io.set_file_size(3);
        g_writer.init();
        modem.SetTap(kTap);
    }
    ~RoadFaults() override { mcl_deinit(); }

    // Lets the port give `bytes`; they are in the channel when it returns, if that takes them.
    void Flow(const std::string& bytes) {
        given += bytes.size();
        test::Feed(bytes);
        g_reader.start();
        g_writer.start();
    }
    bool Drained() {
        return test::WaitUntil([&] { return g_quarn.write_bytes == given; },
                               std::chrono::seconds(60));
    }
    void Stop() {
        ASSERT_TRUE(Drained());
        g_reader.stop();
        g_writer.stop();
        EXPECT_EQ(g_quarn.read_bytes, given);
    }
    static size_t UnfinishedFiles() {
        size_t count = 0;
        for (const auto& entry : fs::recursive_directory_iterator(kLogs)) {
            count += entry.path().extension() == ".tmp" ? 1 : 0;
        }
        return count;
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    size_t given = 0;  // bytes
};

}  // namespace

TEST_P(RoadFaults, CostNothingOnceTheyAreOver) {
    const RoadFault& row = GetParam();
    ASSERT_EQ(g_file_io.set_recycle_option(RECYCLE_OPT_SIZE, row.recycle_size), 0);
    Flow(test::StreamBytes(8 * kMb, 1));
    ASSERT_TRUE(Drained());
    log.Clear();
    {
        const FailCalls fault(row.fault);
        if (row.meanwhile == Meanwhile::kNewCapture) g_file_io.io_close();
        if (row.meanwhile == Meanwhile::kException) {
            g_file_io.set_file_suffix("_EE");
            g_file_io.rename_folder_ee();
        }
        Flow(test::StreamBytes(24 * kMb, 2));
        if (row.fault.count == INT_MAX) {
            EXPECT_TRUE(log.WaitFor(row.message));
        } else {
            EXPECT_TRUE(test::WaitUntil([&] { return fault.failed() == row.fault.count; }));
        }
    }
    Stop();
    if (row.message[0] == '\0') {
        EXPECT_EQ(log.Count("fail..."), 0u);
    } else {
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, row.message) ||
                    log.Has(ANDROID_LOG_WARN, row.message))
            << row.message;
    }

    const test::Decoded on_disk = test::Decode(kLogs);
    const std::string tapped = test::ReadFile(kTap);
    ASSERT_EQ(tapped.size(), given);
    EXPECT_EQ(on_disk.torn.size(), row.torn);
    EXPECT_EQ(UnfinishedFiles(), row.unfinished);
    if (row.recycle_size == 99) {
        EXPECT_TRUE(on_disk.bytes == tapped);
    } else {
        EXPECT_GT(on_disk.bytes.size(), kMb);
        EXPECT_TRUE(tapped.ends_with(on_disk.bytes));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, RoadFaults,
    testing::Values(
        RoadFault{"WriteNoSpace",
                  {.call = Call::kWrite, .error = ENOSPC, .where = ".muxz"},
                  "errno=No space left on device..."},
        RoadFault{"WriteBroken",
                  {.call = Call::kWrite, .error = EIO, .where = ".muxz"},
                  "io: common_write fail, fd=..."},
        RoadFault{"WriteInterrupted",
                  {.call = Call::kWrite, .error = EINTR, .where = ".muxz", .count = 4},
                  ""},
        RoadFault{"WriteInPieces",
                  {.call = Call::kWrite, .where = ".muxz", .count = 3, .limit = 100'000},
                  ""},
        RoadFault{"WriteInTooManyPieces",
                  {.call = Call::kWrite, .where = ".muxz", .count = 5, .limit = 50'000},
                  ", tot_write_len=250000..."},
        RoadFault{"HeaderWrite",
                  {.call = Call::kWrite, .error = EIO, .where = "QRXMDLog_1_", .count = 1},
                  "header fail..."},
        RoadFault{"OpenReadOnly",
                  {.call = Call::kOpen, .error = EROFS, .where = ".muxz"},
                  "fail, errno=Read-only file system..."},
        RoadFault{
            "OpenTwice", {.call = Call::kOpen, .error = EMFILE, .where = ".muxz", .count = 2}, ""},
        RoadFault{"Close",
                  {.call = Call::kClose, .error = EIO, .where = ".muxz", .count = 2},
                  ") failed, errno=Input/output error..."},
        RoadFault{"RenameFile",
                  {.call = Call::kRename, .error = EIO, .where = ".tmp", .count = 1},
                  ".muxz fail...",
                  Meanwhile::kNothing,
                  0,
                  2},
        RoadFault{"RenameFolder",
                  {.call = Call::kRename, .error = EIO, .where = "t", .count = 1},
                  "file_io: rename log folder ...",
                  Meanwhile::kNewCapture},
        RoadFault{"RenameForAnException",
                  {.call = Call::kRename, .error = EROFS, .where = "t", .count = 1},
                  "t_EE fail...",
                  Meanwhile::kException},
        RoadFault{"CaptureFolder",
                  {.call = Call::kMakeFolder, .error = ENOSPC, .where = "QRXMDLog_"},
                  "file_io: create cur_folder_path=...",
                  Meanwhile::kNewCapture},
        RoadFault{"FolderForRecycling",
                  {.call = Call::kOpenFolder, .error = EMFILE, .where = "/logs"},
                  "LogFileRecycler: failed to traverse, skip recycle"},
        RoadFault{"RemoveFile",
                  {.call = Call::kRemoveFile, .error = EROFS, .where = ".muxz"},
                  "file_io: recycle fail (memory not enough)",
                  Meanwhile::kNothing,
                  0,
                  1,
                  5},
        RoadFault{"RemoveFolder",
                  {.call = Call::kRemoveFolder, .error = EBUSY, .where = "QRXMDLog_0_", .count = 1},
                  "RecycleFolder: Error removing folder ...",
                  Meanwhile::kNewCapture,
                  0,
                  1,
                  5},
        RoadFault{"FolderForTheNextIndex",
                  {.call = Call::kOpenFolder, .error = EMFILE, .where = "/logs", .count = 1},
                  "file_io: open dir=...",
                  Meanwhile::kNewCapture},
        RoadFault{"HistoryOpen",
                  {.call = Call::kOpen, .error = EIO, .where = "log_folder_history"},
                  "UpdateFolderHistory: Error opening or creating file: Input/output error",
                  Meanwhile::kNewCapture},
        RoadFault{"HistoryWrite",
                  {.call = Call::kWrite, .error = ENOSPC, .where = "log_folder_history"},
                  "UpdateFolderHistory: Error writing file: No space left on device",
                  Meanwhile::kNewCapture}),
    [](const auto& row) { return std::string(row.param.name); });

using RoadLoss = RoadFaults;

// A file that ends with a torn block which cannot be cut off: the blocks before it count.
TEST_F(RoadLoss, ABlockThatCannotBeCutOffEndsItsFileAndIsWrittenAgain) {
    Flow(test::StreamBytes(8 * kMb, 1));
    ASSERT_TRUE(Drained());
    {
        const FailCalls broken({.call = Call::kWrite, .error = EIO, .where = ".muxz"});
        // The first write puts out some of the buffer, the next one fails.
        const FailCalls piece(
            {.call = Call::kWrite, .where = ".muxz", .count = 1, .limit = 600'000});
        const FailCalls cut({.call = Call::kTruncate, .error = EROFS, .where = ".muxz"});
        Flow(test::StreamBytes(24 * kMb, 2));
        EXPECT_TRUE(log.WaitFor("file_io: cut log_file=..."));
    }
    Stop();
    const test::Decoded on_disk = test::Decode(kLogs);
    EXPECT_EQ(on_disk.torn.size(), 1u);
    EXPECT_TRUE(on_disk.bytes == test::ReadFile(kTap));
}

// The end of a capture does not wait: what its last flush cannot write is given up, and no more.
TEST_F(RoadLoss, ACaptureThatEndsMeanwhileLosesWhatWasBuffered) {
    const std::string first = test::StreamBytes(9 * kMb, 1);
    const std::string second = test::StreamBytes(3 * kMb, 2);
    Flow(first);
    ASSERT_TRUE(Drained());
    {
        const FailCalls fault({.call = Call::kWrite, .error = ENOSPC, .where = ".muxz"});
        EXPECT_EQ(g_file_io.io_close(), 0);
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: flush compress_buf data to log file fail"));
    Flow(second);
    Stop();
    const std::string on_disk = test::DecodeTree(kLogs);
    ASSERT_TRUE(on_disk.ends_with(second));
    EXPECT_GT(on_disk.size(), second.size());
    EXPECT_LT(on_disk.size(), given);
    EXPECT_TRUE(first.starts_with(on_disk.substr(0, on_disk.size() - second.size())));
}

// A piece of a record must not swallow the next one.
TEST_F(RoadLoss, TheHistoryHoldsWholeRecordsOnly) {
    using quarn::zorvex::UpdateFolderHistory;
    EXPECT_EQ(UpdateFolderHistory("/first"), 0);
    {
        const FailCalls full(
            {.call = Call::kWrite, .error = ENOSPC, .where = "log_folder_history"});
        const FailCalls piece(
            {.call = Call::kWrite, .where = "log_folder_history", .count = 1, .limit = 3});
        EXPECT_NE(UpdateFolderHistory("/second"), 0);
    }
    EXPECT_EQ(UpdateFolderHistory("/third"), 0);
    EXPECT_EQ(test::ReadFile(kHistory), "/first\n/third\n");
}

TEST_F(RoadLoss, TopFoldersThatCannotBeMadeAreReported) {
    for (const std::string& folder : {kBase, kBase + "config/", kLogs}) {
        fs::remove_all(kBase);
        const FailCalls fault({.call = Call::kMakeFolder, .error = EROFS, .where = folder.c_str()});
        EXPECT_EQ(g_file_io.create_top_folder(), -1);
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: create folder " + folder +
                                                   " fail, errno=Read-only file system"));
    }
    EXPECT_EQ(g_file_io.create_top_folder(), 0);
    const FailCalls fault({.call = Call::kOpenFolder, .error = EMFILE, .where = "config"});
    EXPECT_EQ(g_file_io.create_top_folder(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                        "file_io: open dir=" + kBase + "config/ fail, errno=Too many open files"));
}

// --- sockets and threads ---

namespace {

class Servers : public testing::Test {
  protected:
    Servers() {
        struct sigaction action = {};
        action.sa_handler = quarn_sighandler;
        sigaction(SIGUSR1, &action, nullptr);
    }
    ~Servers() override { handle.stop(); }

    static bool Answers() {
        const int fd = Connect("/dev/quarn_server.socket");
        char reply[128] = {};
        const bool answered = send(fd, "recycle_ee", 11, 0) == 11 &&
                              recv(fd, reply, sizeof(reply), MSG_WAITALL) == sizeof(reply);
        close(fd);
        return answered && reply == "ok,1"s;
    }
    static int Connect(const char* name) {
        return socket_local_client(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    }

    test::LogCapture log;
    QUARN_COMMAND_HANDLE handle;
};

}  // namespace

TEST_F(Servers, FailToStartWithoutSocketOrThreadAndStartLater) {
    struct {
        Fault fault;
        std::vector<const char*> messages;
    } const rows[] = {
        {{.call = Call::kSocket, .error = EMFILE},
         {"ctrl_connect: create listen_fd fail, rc=-1", "ctrl_connect: create listen_fd fail"}},
        {{.call = Call::kBind, .error = EADDRINUSE},
         {"ctrl_connect: create listen_fd fail, rc=-1", "ctrl_connect: create listen_fd fail"}},
        // libcutils listens once itself.
        {{.call = Call::kListen, .error = ENOBUFS, .after = 1},
         {"ctrl_connect: set listen_fd=...", "ctrl_connect: create listen_fd fail"}},
        {{.call = Call::kThread, .error = EAGAIN},
         {"ctrl_connect: ctrlConn thread fail, errno=11(Resource temporarily unavailable)"}},
        {{.call = Call::kSocket, .error = EMFILE, .after = 1},
         {"quarn_stateNotify: create listen_fd fail, rc=-1",
          "quarn_stateNotify: create listen_fd fail"}},
        {{.call = Call::kListen, .error = ENOBUFS, .after = 3},
         {"quarn_stateNotify: set listen_fd=...", "quarn_stateNotify: create listen_fd fail"}},
        {{.call = Call::kThread, .error = EAGAIN, .after = 1},
         {"quarn_stateNotify: state callback thread fail, errno=11(Resource temporarily "
          "unavailable)"}},
    };
    const size_t descriptors = test::List("/proc/self/fd").size();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.messages[0]);
        log.Clear();
        {
            const FailCalls fault(row.fault);
            EXPECT_EQ(handle.start(), 1);
        }
        for (const char* message : row.messages) {
            EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message)) << message;
        }
        EXPECT_EQ(log.Count("command_handle: start listen ctrl command fail, rc=-1"), 1u);
        // Without its thread the server is not serving, but started.
        if (row.fault.call == Call::kThread) {
            EXPECT_EQ(handle.start(), 0);
        }
        handle.stop();
        EXPECT_EQ(test::List("/proc/self/fd").size(), descriptors);
        EXPECT_EQ(handle.start(), 0);
        EXPECT_TRUE(Answers());
        handle.stop();
    }
}

TEST_F(Servers, AcceptAndCloseMayFailForAWhile) {
    ASSERT_EQ(handle.start(), 0);
    {
        const FailCalls fault({.call = Call::kAccept, .error = EMFILE, .count = 2});
        const int subscriber = Connect("/dev/quarn_callback_server.socket");
        EXPECT_TRUE(Answers());
        EXPECT_TRUE(log.WaitFor("quarn_stateNotify: accept fd=..."));
        close(subscriber);
        EXPECT_EQ(fault.failed(), 2);
    }
    for (const char* who : {"ctrl_connect", "quarn_stateNotify"}) {
        const std::string message = who + ": accept from listen_fd="s;
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message + "...")) << message;
    }
    EXPECT_EQ(log.Count(" fail, errno = Too many open files..."), 2u);
    ASSERT_TRUE(log.WaitFor(" msg fail, close it..."));
    {
        const FailCalls fault(
            {.call = Call::kClose, .error = EIO, .where = "quarn_server.socket", .count = 1});
        EXPECT_TRUE(Answers());
        EXPECT_TRUE(log.WaitFor(" msg fail, close it...", 2));
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "fail, errno=Input/output error..."));
    EXPECT_TRUE(Answers());
}

// --- the configuration file ---

namespace {

class ConfigFaults : public RoadFaults {
  protected:
    ConfigFaults() {
        g_notify.init();
        g_log_filter_manager.init();
        quarn_mipcInit("/dev/wwanD0MIPC0");
        test::WriteFile(kDefault, "file_size 7\n");
    }
    ~ConfigFaults() override { quarn_mipcDeinit(); }
};

}  // namespace

TEST_F(ConfigFaults, LoadingReportsThemAndLeavesTheSettings) {
    const std::string path = kConfigPath;
    struct {
        const char* before;  // null: no file
        Fault fault;
        int rc;
        std::string message;
        int file_size;
    } const rows[] = {
        {"file_size 9\n",
         {.call = Call::kOpen, .error = EIO, .where = kConfigPath},
         -1,
         "open file: " + path + " failed, errno=Input/output error",
         50},
        {nullptr,
         {.call = Call::kOpen, .error = EMFILE, .where = kDefault},
         -1,
         "open file: "s + kDefault + " failed, errno=Too many open files",
         50},
        {nullptr,
         {.call = Call::kOpen, .error = EROFS, .where = kConfigPath, .after = 1},
         -1,
         "create file: " + path + " failed, errno=Read-only file system",
         50},
        // What the new file holds is read all the same: nothing.
        {nullptr,
         {.call = Call::kSendFile, .error = ENOSPC, .where = kConfigPath},
         -1,
         "copy file failed, errno=No space left on device",
         50},
        {"file_size 9\n",
         {.call = Call::kSeek, .error = EIO, .where = kConfigPath},
         -1,
         "lseek SEEK_END error: Input/output error",
         50},
        {"file_size 9\n",
         {.call = Call::kSeek, .error = EIO, .where = kConfigPath, .after = 1},
         -1,
         "lseek SEEK_SET 0 error: Input/output error",
         50},
        {"file_size 9\n",
         {.call = Call::kRead, .error = EIO, .where = kConfigPath},
         -1,
         "read fail: Input/output error",
         50},
        {"file_size 9\n",
         {.call = Call::kClose, .error = EIO, .where = kConfigPath, .count = 1},
         0,
         "close fd ...",
         9},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        fs::remove(path);
        if (row.before != nullptr) test::WriteFile(path, row.before);
        g_file_io.set_file_size(50);
        const size_t descriptors = test::List("/proc/self/fd").size();
        {
            const FailCalls fault(row.fault);
            EXPECT_EQ(quarn_loadConfig(kConfigPath, 0), row.rc);
        }
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, row.message));
        EXPECT_EQ(g_file_io.get_file_size(), row.file_size);
        EXPECT_EQ(test::List("/proc/self/fd").size(), descriptors);
    }
}

// What a save leaves behind. It has no way back once the file is cut.
TEST_F(ConfigFaults, SavingReportsThem) {
    const std::string before = "log_mode 1\nfile_size 9\n";
    const std::string path = kConfigPath;
    struct {
        Fault fault;
        int rc;
        android_LogPriority priority;
        std::string message;
        std::string after;
    } const rows[] = {
        {{.call = Call::kOpen, .error = EMFILE, .where = kConfigPath, .count = 1},
         0,
         ANDROID_LOG_WARN,
         "saveConfig: open file: " + path + " failed, errno=Too many open files",
         "file_size 4\n"},
        {{.call = Call::kOpen, .error = EROFS, .where = kConfigPath, .after = 1},
         -1,
         ANDROID_LOG_ERROR,
         "saveConfig: open file: " + path + " failed, errno=Read-only file system",
         before},
        {{.call = Call::kWrite, .error = ENOSPC, .where = kConfigPath},
         0,
         ANDROID_LOG_ERROR,
         "saveConfig: write fail error: No space left on device",
         ""},
        {{.call = Call::kWrite, .where = kConfigPath, .limit = 13},
         0,
         ANDROID_LOG_ERROR,
         "saveConfig: write fail error: ...",
         "log_mode 1\nfi"},
        {{.call = Call::kClose, .error = EIO, .where = kConfigPath},
         0,
         ANDROID_LOG_ERROR,
         "saveConfig: fclose failed, errno=Input/output error",
         "log_mode 1\nfile_size 4\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        test::WriteFile(path, before);
        {
            const FailCalls fault(row.fault);
            EXPECT_EQ(quarn_command_saveConfig("file_size", "4", {}), row.rc);
        }
        EXPECT_TRUE(log.Has(row.priority, row.message));
        EXPECT_EQ(test::ReadFile(path), row.after);
    }
}

// --- copying ---

// Of a capture of two files each fault costs what it hits, and the next copy has it all.
TEST_F(RoadLoss, ACopyLeavesOutWhatItCannotCopy) {
    Flow(test::StreamBytes(24 * kMb, 1));
    Stop();
    const std::string to = "/data/copies";
    const std::string folder = kLogs + test::List(kLogs).at(0);
    const auto files = test::List(folder);
    ASSERT_GE(files.size(), 2u);
    const auto newest = fs::file_size(folder + "/" + files.back());
    const auto whole = test::TreeSize(folder);
    struct {
        Fault fault;
        std::string message;
        uintmax_t copied;
    } const rows[] = {
        {{.call = Call::kOpen, .error = EMFILE, .where = "/logs/QRX", .count = 1},
         "CopyFile: Error opening file ...",
         whole - newest},
        {{.call = Call::kOpen, .error = ENOSPC, .where = "/copies/QRX", .count = 1},
         "CopyFile: Error opening file /data/copies...",
         whole - newest},
        {{.call = Call::kTruncate, .error = EIO, .where = "/copies/QRX", .count = 1},
         "CopyFile: Error copying file ...",
         whole - newest},
        {{.call = Call::kCopyRange, .error = ENOSPC, .where = "/copies/QRX", .count = 1},
         ": No space left on device...",
         whole - newest},
        {{.call = Call::kClose, .error = EIO, .where = "/copies/QRX", .count = 1},
         "CopyFile: Error closing file ...",
         whole},
        {{.call = Call::kMakeFolder, .error = EROFS, .where = "/copies/"},
         "CopyLogFileFromFolder: Error creating folder ...",
         0},
        {{.call = Call::kOpen, .error = EROFS, .where = "copied_folder_list"},
         "DumpCopiedFolderHistory: Error opening file: Read-only file system",
         whole},
        {{.call = Call::kWrite, .error = ENOSPC, .where = "copied_folder_list"},
         "DumpCopiedFolderHistory: Error writing file: No space left on device",
         whole},
        {{.call = Call::kOpen, .error = EIO, .where = "log_folder_history"},
         "GetLatestHistoryRecord: Error opening file: Input/output error",
         0},
    };
    const auto copy = [&] {
        fs::remove_all(to);
        fs::create_directory(to);
        return static_cast<uintmax_t>(quarn::zorvex::CopyLatestLogFile(to, 1 << 30, false));
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        log.Clear();
        {
            const FailCalls fault(row.fault);
            EXPECT_EQ(copy(), row.copied);
        }
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, row.message));
        EXPECT_EQ(copy(), whole);
        EXPECT_TRUE(test::DecodeTree(to) == test::ReadFile(kTap));
    }
}
