// System calls that fail. The tests check what the daemon logs and replies, that it continues when
// the fault is over, and what is on disk then.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "byte_source.h"
#include "client.h"
#include "control/copy_log_file.h"
#include "control/quarn_command.h"
#include "core/quarn.h"
#include "core/quarn_config.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"
#include "storage/folder_history.h"
#include "storage/power_on_log.h"
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
const std::string kTap = "/data/tap";
constexpr size_t kMb = 1 << 20;

// --- the data path of a log block ---

// Calls that the tests make while a fault lasts.
void EndCapture() { g_file_io.io_close(); }
void MarkException() {
    g_file_io.set_file_suffix("_EE");
    g_file_io.rename_folder_ee();
}

struct RoadFault {
    const char* name;
    Fault fault;
    const char* message;  // null: the daemon logs no failure
    void (*meanwhile)() = nullptr;
    int unfinished = 1;              // number of files that keep their ".tmp"
    unsigned int recycle_size = 99;  // MB
};

const RoadFault kRoadFaults[] = {
    {"WriteNoSpace", {Call::kWrite, ENOSPC, ".muxz"}, "errno=No space left on device..."},
    {"WriteInterrupted", {Call::kWrite, EINTR, ".muxz", 4}, nullptr},
    {"WriteInTooManyPieces",
     {.call = Call::kWrite, .where = ".muxz", .count = 5, .limit = 50'000},
     ", tot_write_len=250000..."},
    {"HeaderWrite", {Call::kWrite, EIO, "QRXMDLog_1_", 1}, "header fail..."},
    {"OpenReadOnly", {Call::kOpen, EROFS, ".muxz"}, "fail, errno=Read-only file system..."},
    {"Close", {Call::kClose, EIO, ".muxz", 2}, ") failed, errno=Input/output error..."},
    {"RenameFile", {Call::kRename, EIO, ".tmp", 1}, ".muxz fail...", nullptr, 2},
    {"RenameFolder", {Call::kRename, EIO, "t", 1}, "file_io: rename log folder ...", EndCapture},
    {"RenameForAnException", {Call::kRename, EROFS, "t", 1}, "t_EE fail...", MarkException},
    {"CaptureFolder",
     {Call::kMakeFolder, ENOSPC, "QRXMDLog_"},
     "file_io: create cur_folder_path=...",
     EndCapture},
    {"FolderForRecycling",
     {Call::kOpenFolder, EMFILE, "/logs"},
     "LogFileRecycler: failed to traverse, skip recycle"},
    {"FolderForTheNextIndex",
     {Call::kOpenFolder, EMFILE, "/logs", 1},
     "file_io: open dir=...",
     EndCapture},
    {"RemoveFile",
     {Call::kRemoveFile, EROFS, ".muxz"},
     "file_io: recycle fail (memory not enough)",
     nullptr,
     1,
     5},
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
        sim::Modem::Instance().SetTap(kTap);
    }
    ~RoadFaults() override { mcl_deinit(); }

    // Streams `bytes` from the log port through the reader and the writer. Does not wait until
    // they are written.
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

    test::LogCapture log;
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
        if (row.meanwhile != nullptr) row.meanwhile();
        Flow(test::StreamBytes(24 * kMb, 2));
        if (row.fault.count == INT_MAX) {
            EXPECT_TRUE(log.WaitFor(row.message));
        } else {
            EXPECT_TRUE(test::WaitUntil([&] { return fault.failed() == row.fault.count; }));
        }
    }
    Stop();
    EXPECT_TRUE(row.message == nullptr ? log.Count("fail...") == 0
                                       : log.Has(ANDROID_LOG_ERROR, row.message) ||
                                             log.Has(ANDROID_LOG_WARN, row.message));

    const test::Decoded on_disk = test::Decode(kLogs);
    const std::string tapped = test::ReadFile(kTap);
    ASSERT_EQ(tapped.size(), given);
    EXPECT_EQ(on_disk.torn.size(), 0u);
    const auto unfinished = [](const auto& entry) { return entry.path().extension() == ".tmp"; };
    EXPECT_EQ(std::count_if(fs::recursive_directory_iterator(kLogs), {}, unfinished),
              row.unfinished);
    if (row.recycle_size == 99) {
        EXPECT_TRUE(on_disk.bytes == tapped);
    } else {
        EXPECT_GT(on_disk.bytes.size(), kMb);
        EXPECT_TRUE(tapped.ends_with(on_disk.bytes));
    }
}

INSTANTIATE_TEST_SUITE_P(All, RoadFaults, testing::ValuesIn(kRoadFaults),
                         [](const auto& row) { return std::string(row.param.name); });

using RoadLoss = RoadFaults;

// A file ends with a partly written block that the daemon cannot cut off. The blocks before it are
// valid, and the next file contains the block again.
TEST_F(RoadLoss, ABlockThatCannotBeCutOffEndsItsFileAndIsWrittenAgain) {
    quarn::zorvex::PowerOnLogInit();
    Flow(test::StreamBytes(8 * kMb, 1));
    ASSERT_TRUE(Drained());
    {
        const FailCalls broken({Call::kWrite, EIO, "QRXMDLog_"});
        // The first write writes a part of the buffer. The next write fails.
        const FailCalls piece(
            {.call = Call::kWrite, .where = "QRXMDLog_", .count = 1, .limit = 600'000});
        const FailCalls cut({Call::kTruncate, EROFS, "QRXMDLog_"});
        Flow(test::StreamBytes(24 * kMb, 2));
        EXPECT_TRUE(log.WaitFor("file_io: cut log_file=..."));
    }
    Stop();
    const test::Decoded on_disk = test::Decode(kLogs);
    EXPECT_EQ(on_disk.torn.size(), 1u);
    EXPECT_TRUE(on_disk.bytes == test::ReadFile(kTap));
    quarn::zorvex::PowerOnLogDeInit();
    EXPECT_TRUE(test::DecodeFile(quarn::zorvex::kPowerOnLogPath).bytes == on_disk.bytes);
}

// While a fault lasts, io_write returns -1 and stores no part of the block. The same write succeeds
// when the fault is over.
TEST_F(RoadLoss, TheChannelRefusesWhileAFaultLasts) {
    const std::string block = test::StreamBytes(kMb / 4, 3);
    const int size = static_cast<int>(block.size());
    const auto opened = [&] { return g_file_io.io_write(block.data(), size); };
    size_t taken = 0;
    // Writes so many blocks that the buffer must be written to the file.
    const auto write = [&] {
        for (int i = 0; i < 20; ++i, ++taken) {
            if (opened() < 0) return -1;
        }
        return 0;
    };
    const Fault faults[] = {{Call::kWrite, EIO, ".muxz"},
                            {Call::kOpen, EROFS, ".muxz"},
                            {Call::kOpen, EMFILE, ".muxz"},
                            {Call::kOpenFolder, EIO, "/logs"}};
    for (const Fault& row : faults) {
        {
            const FailCalls fault({Call::kMakeFolder, ENOSPC, "QRXMDLog_"});
            EXPECT_EQ(g_file_io.io_open(), -1);
            EXPECT_EQ(opened(), -1);
        }
        EXPECT_EQ(g_file_io.io_open(), 0);
        {
            const FailCalls fault(row);
            EXPECT_EQ(write(), -1) << row.error;
            EXPECT_TRUE(row.call != Call::kOpen || fault.failed() == 3) << fault.failed();
        }
        EXPECT_EQ(write(), 0) << row.error;
        EXPECT_EQ(g_file_io.io_close(), 0);
    }
    EXPECT_EQ(test::DecodeTree(kLogs).size(), taken * block.size());
}

// The end of a capture does not wait for the end of a fault. Only the bytes that its last flush
// cannot write are lost.
TEST_F(RoadLoss, ACaptureThatEndsMeanwhileLosesWhatWasBuffered) {
    const std::string first = test::StreamBytes(9 * kMb, 1);
    const std::string second = test::StreamBytes(3 * kMb, 2);
    Flow(first);
    ASSERT_TRUE(Drained());
    {
        const FailCalls fault({Call::kWrite, ENOSPC, ".muxz"});
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

// A partly written record must not become the beginning of the next record.
TEST_F(RoadLoss, TheHistoryHoldsWholeRecordsOnly) {
    using quarn::zorvex::UpdateFolderHistory;
    EXPECT_EQ(UpdateFolderHistory("/first"), 0);
    {
        const FailCalls full({Call::kWrite, ENOSPC, "log_folder_history"});
        const FailCalls piece(
            {.call = Call::kWrite, .where = "log_folder_history", .count = 1, .limit = 3});
        EXPECT_EQ(UpdateFolderHistory("/second"), -1);
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                        "UpdateFolderHistory: Error writing file: No space left on device"));
    EXPECT_EQ(UpdateFolderHistory("/third"), 0);
    EXPECT_EQ(test::ReadFile(kBase + "log_folder_history"), "/first\n/third\n");
}

TEST_F(RoadLoss, TopFoldersThatCannotBeMadeAreReported) {
    for (const std::string& folder : {kBase, kBase + "config/", kLogs}) {
        fs::remove_all(kBase);
        const FailCalls fault({Call::kMakeFolder, EROFS, folder.c_str()});
        EXPECT_EQ(g_file_io.create_top_folder(), -1);
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: create folder " + folder +
                                                   " fail, errno=Read-only file system"));
    }
}

// --- sockets and threads ---

namespace {

class Servers : public testing::Test {
  protected:
    Servers() { test::HandleStopSignal(); }
    ~Servers() override { handle.stop(); }

    static bool Answers() { return test::Client().Ask("recycle_ee") == "ok,1"; }

    test::LogCapture log;
    QUARN_COMMAND_HANDLE handle;
};

}  // namespace

TEST_F(Servers, FailToStartWithoutSocketOrThreadAndStartLater) {
    struct {
        Fault fault;
        const char* message;
    } const rows[] = {
        {{Call::kSocket, EMFILE}, "ctrl_connect: create listen_fd fail, rc=-1"},
        // libcutils makes the first call of listen.
        {{.call = Call::kListen, .error = ENOBUFS, .after = 1}, "ctrl_connect: set listen_fd=..."},
        {{Call::kThread, EAGAIN},
         "ctrl_connect: ctrlConn thread fail, errno=11(Resource temporarily unavailable)"},
        {{.call = Call::kSocket, .error = EMFILE, .after = 1},
         "quarn_stateNotify: create listen_fd fail, rc=-1"},
        {{.call = Call::kThread, .error = EAGAIN, .after = 1},
         "quarn_stateNotify: state callback thread fail, errno=11(Resource temporarily "
         "unavailable)"},
    };
    const size_t descriptors = test::List("/proc/self/fd").size();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        log.Clear();
        {
            const FailCalls fault(row.fault);
            EXPECT_EQ(handle.start(), 1);
        }
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, row.message));
        EXPECT_EQ(log.Count("command_handle: start listen ctrl command fail, rc=-1"), 1u);
        // A server whose thread could not be created counts as started.
        EXPECT_EQ(row.fault.call == Call::kThread ? handle.start() : 0, 0);
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
        const FailCalls fault({Call::kAccept, EMFILE, "", 2});
        const test::Subscriber subscriber;
        EXPECT_TRUE(Answers());
        EXPECT_TRUE(log.WaitFor("quarn_stateNotify: accept fd=..."));
        EXPECT_EQ(fault.failed(), 2);
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "ctrl_connect: accept from listen_fd=..."));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "quarn_stateNotify: accept from listen_fd=..."));
    EXPECT_EQ(log.Count(" fail, errno = Too many open files..."), 2u);
    ASSERT_TRUE(log.WaitFor(" msg fail, close it..."));
    {
        const FailCalls fault({Call::kClose, EIO, "quarn_server.socket", 1});
        EXPECT_TRUE(Answers());
        EXPECT_TRUE(log.WaitFor(" msg fail, close it...", 2));
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "fail, errno=Input/output error..."));
    EXPECT_TRUE(Answers());
}

// --- the configuration file ---

TEST_F(RoadLoss, TheConfigurationFileThatCannotBeReadLeavesTheSettings) {
    g_notify.init();
    g_log_filter_manager.init();
    quarn_mipcInit("/dev/wwanD0MIPC0");
    const size_t descriptors = test::List("/proc/self/fd").size();
    const auto load = [&](Fault what, const std::string& message, int rc = -1, int size = 50) {
        SCOPED_TRACE(message);
        g_file_io.set_file_size(50);
        {
            const FailCalls fault(what);
            EXPECT_EQ(quarn_loadConfig(kConfigPath, 0), rc);
        }
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message));
        EXPECT_EQ(g_file_io.get_file_size(), size);
        EXPECT_EQ(test::List("/proc/self/fd").size(), descriptors);
    };
    test::WriteFile("/vendor/etc/quarn_default.cfg", "file_size 7\n");
    load({.call = Call::kOpen, .error = EROFS, .where = kConfigPath, .after = 1},
         "create file: "s + kConfigPath + " failed, errno=Read-only file system");
    // The daemon reads the new file in spite of the fault. The file is empty.
    load({Call::kSendFile, ENOSPC, kConfigPath}, "copy file failed, errno=No space left on device");
    test::WriteFile(kConfigPath, "file_size 9\n");
    load({Call::kOpen, EIO, kConfigPath, 1},
         "open file: "s + kConfigPath + " failed, errno=Input/output error");
    load({Call::kSeek, EIO, kConfigPath}, "lseek SEEK_END error: Input/output error");
    load({Call::kRead, EIO, kConfigPath}, "read fail: Input/output error");
    load({Call::kClose, EIO, kConfigPath, 1}, "close fd ...", 0, 9);
    EXPECT_EQ(test::ReadFile(kConfigPath), "file_size 9\n");  // not replaced by the default
    quarn_mipcDeinit();
}

TEST_F(RoadLoss, TheConfigurationFileThatCannotBeReplacedStaysAndIsReported) {
    const std::string before = "log_mode 1\nfile_size 9\n";
    const std::string not_opened = "open file: "s + kConfigPath + " failed, errno=";
    const auto save = [&](Fault what, const std::string& message, int rc = 0) {
        SCOPED_TRACE(message);
        test::WriteFile(kConfigPath, before);
        log.Clear();
        {
            const FailCalls fault(what);
            EXPECT_EQ(quarn_command_saveConfig("file_size", "4", {}), rc);
        }
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "saveConfig: " + message));
        EXPECT_EQ(test::ReadFile(kConfigPath), before);
        EXPECT_EQ(test::List(kBase + "config").size(), 1u);
    };
    save({Call::kOpen, EMFILE, kConfigPath, 1}, not_opened + "Too many open files", -1);
    save({Call::kRead, EIO, kConfigPath},
         "read file: "s + kConfigPath + " failed, errno=Input/output error", -1);
    save({Call::kOpen, EROFS, ".cfg.new"}, not_opened + "Read-only file system", -1);
    save({Call::kWrite, ENOSPC, ".cfg.new"}, "write fail error: No space left on device");
    save({Call::kSync, EIO, ".cfg.new"}, "write fail error: Input/output error");
    save({Call::kClose, EIO, ".cfg.new"}, "fclose failed, errno=Input/output error");
    save({Call::kRename, EIO, ".cfg.new"}, "write fail error: Input/output error");
    // The sync of the folder is the last call.
    const FailCalls fault({.call = Call::kSync, .error = EROFS, .where = "/config", .after = 1});
    EXPECT_EQ(quarn_command_saveConfig("file_size", "4", {}), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "saveConfig: write fail error: Read-only file system"));
    EXPECT_EQ(test::ReadFile(kConfigPath), "log_mode 1\nfile_size 4\n");
}

// --- files that are replaced ---

// Ends the process before each of the calls, or makes the call fail.
TEST(ReplacedFiles, AreTheOldOneOrTheNewOneWhateverCallFails) {
    std::string cut;
    for (int i = 0; i < 20; ++i) cut += "/logs/" + std::to_string(i) + "\n";
    const std::string full = std::string(103'000, 'r') + "\n" + cut;
    const struct {
        std::string path;
        std::vector<std::string> states;  // the first one before, any of them afterwards
        void (*replace)();
    } rows[] = {
        {kConfigPath, {"", "file_size 7\n"}, [] { quarn_loadConfig(kConfigPath, 0); }},
        {kConfigPath,
         {"a 1\nfile_size 9\n", "a 1\nfile_size 4\n"},
         [] { quarn_command_saveConfig("file_size", "4", {}); }},
        {kBase + "log_folder_history",
         {full, full + "/new\n", cut, cut + "/new\n"},
         [] { quarn::zorvex::UpdateFolderHistory("/new"); }},
    };
    const Call calls[] = {Call::kOpen,  Call::kRead, Call::kWrite,  Call::kSendFile,  Call::kSeek,
                          Call::kClose, Call::kSync, Call::kRename, Call::kRemoveFile};
    fs::create_directories("/data/vendor/radio");
    g_file_io.create_top_folder();
    test::WriteFile("/vendor/etc/quarn_default.cfg", rows[0].states.back());
    for (const auto& [path, states, replace] : rows) {
        int ended = 0, failed = 0;
        for (size_t i = 0; i < 3 * std::size(calls); ++i) {
            Fault fault = {.call = calls[i / 3], .where = kBase.c_str(), .count = 1};
            fault.error = i % 3 == 0 ? test::kEndsProcess : i % 3 == 1 ? ENOSPC : EIO;
            for (int status = 1; status != 0; ++fault.after) {
                SCOPED_TRACE(testing::Message() << path << " " << i << " " << fault.after);
                fs::remove(path);
                if (!states[0].empty()) test::WriteFile(path, states[0]);
                const pid_t child = fork();
                if (child == 0) {
                    const FailCalls fails(fault);
                    replace();
                    _exit(fails.failed());
                }
                status = test::WaitForChild(child);
                ended += WIFSIGNALED(status);
                failed += WIFEXITED(status) && status != 0;
                const std::string now = test::ReadFile(path);
                EXPECT_EQ(std::count(states.begin(), states.end(), now), 1) << now;
                EXPECT_EQ(fs::exists(path), !now.empty());
                EXPECT_TRUE(WIFSIGNALED(status) || !fs::exists(path + ".new"));
            }
        }
        EXPECT_GE(ended, 8);
        EXPECT_GE(failed, 16);
        EXPECT_EQ(test::ReadFile(path), states.back());  // no call failed in the last try
    }
}

// --- copying ---

// A fault costs only the files that it hits. The next copy contains the whole capture.
TEST_F(RoadLoss, ACopyLeavesOutWhatItCannotCopy) {
    Flow(test::StreamBytes(24 * kMb, 1));
    Stop();
    const std::string to = "/data/copies";
    const std::string folder = kLogs + test::List(kLogs).at(0);
    const auto files = test::List(folder);
    ASSERT_GE(files.size(), 2u);
    const auto whole = test::TreeSize(folder);
    const auto copy = [&] {
        fs::remove_all(to);
        fs::create_directory(to);
        return static_cast<uintmax_t>(quarn::zorvex::CopyLatestLogFile(to, 1 << 30, false));
    };
    const auto check = [&](Fault what, const char* message, uintmax_t copied) {
        SCOPED_TRACE(message);
        log.Clear();
        {
            const FailCalls fault(what);
            EXPECT_EQ(copy(), copied);
        }
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message));
        EXPECT_EQ(copy(), whole);
        EXPECT_TRUE(test::DecodeTree(to) == test::ReadFile(kTap));
    };
    const auto rest = whole - fs::file_size(folder + "/" + files.back());
    check({Call::kOpen, EMFILE, "/logs/QRX", 1}, "CopyFile: Error opening file ...", rest);
    check({Call::kTruncate, EIO, "/copies/QRX", 1}, "CopyFile: Error copying file ...", rest);
    check({Call::kCopyRange, ENOSPC, "/copies/QRX", 1}, ": No space left on device...", rest);
    check({Call::kClose, EIO, "/copies/QRX", 1}, "CopyFile: Error closing file ...", whole);
    check({Call::kMakeFolder, EROFS, "/copies/"},
          "CopyLogFileFromFolder: Error creating folder ...", 0);
    check({Call::kWrite, ENOSPC, "copied_folder_list"},
          "DumpCopiedFolderHistory: Error writing file: No space left on device", whole);
}
