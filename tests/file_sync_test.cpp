// What brings the storage channel's files to the disk: when, and that nobody waits for it. What a
// power cut leaves is checked by quarn_soak.
#include "storage/file_sync.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "shifted_clock.h"
#include "storage/quarn_file_io.h"
#include "support.h"
#include "syscall_faults.h"

namespace fs = std::filesystem;
using std::chrono::seconds;
using test::Call;
using test::FailCalls;
using test::Fault;

namespace {

class FileSync : public testing::Test {
  protected:
    FileSync() {
        fs::create_directories("/data/vendor/radio");
        io->create_top_folder();
        io->io_open();
    }
    void Store(const std::string& bytes) {
        EXPECT_GT(io->io_write(bytes.data(), static_cast<int>(bytes.size())), 0);
        io->flush_ringBuf();
    }
    // Returns the number of descriptors of log files in this process.
    static size_t OpenFiles() {
        size_t count = 0;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (fs::read_symlink(entry, gone).string().find(".muxz") != std::string::npos) ++count;
        }
        return count;
    }

    test::LogCapture log;
    test::ShiftedClock clock;
    std::unique_ptr<QUARN_FILE_IO> io =
        std::make_unique<QUARN_FILE_IO>("/data/vendor/radio/quarn/");
    std::unique_ptr<FailCalls> fault;
};

}  // namespace

TEST_F(FileSync, WhatWasWrittenIsSyncedFiveSecondsLater) {
    FailCalls syncs({.call = Call::kSync, .error = EIO, .where = ".muxz"});
    const auto synced = [&](int times) {
        return test::WaitUntil([&] { return syncs.failed() == times; }, seconds(4));
    };
    const FailCalls signal({.call = Call::kSync, .error = EINTR, .where = ".muxz", .count = 1});
    Store("1");
    clock.Shift(CLOCK_MONOTONIC, seconds(3));
    Store("2");  // does not postpone the sync
    clock.Shift(CLOCK_MONOTONIC, seconds(2));
    EXPECT_TRUE(synced(1));  // also after a signal
    EXPECT_EQ(signal.failed(), 1);

    // A write that takes longer than that.
    fault =
        std::make_unique<FailCalls>(Fault{.call = Call::kWrite, .where = ".muxz", .hang = true});
    std::thread writer([&] { Store("3"); });
    EXPECT_TRUE(test::WaitUntil([&] { return fault->failed() == 1; }));
    clock.Shift(CLOCK_MONOTONIC, seconds(6));
    // Long enough to see a sync that comes too early.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(syncs.failed(), 1);
    fault.reset();
    writer.join();
    clock.Shift(CLOCK_MONOTONIC, seconds(6));
    EXPECT_TRUE(synced(2));

    Store("4");
    io->close_log_file_with_flush();  // the sync follows at once
    EXPECT_TRUE(synced(3));
    // The three failures of a file give one message.
    EXPECT_EQ(log.Count("file_sync: sync log_file=..."), 1u);
}

// Without these a power cut would take the name of what was synced.
TEST_F(FileSync, TheFoldersOfACaptureAreSyncedWithItsFile) {
    const FailCalls syncs({.call = Call::kSync, .error = EIO, .where = "/radio/quarn"});
    const auto synced = [&](int times) {
        clock.Shift(CLOCK_MONOTONIC, seconds(5));
        return test::WaitUntil([&] { return syncs.failed() >= times; });
    };
    Store("1");
    EXPECT_TRUE(synced(4)) << syncs.failed();  // file, capture, log folder, base folder
    io->set_file_suffix("_EE");
    io->rename_folder_ee();
    EXPECT_TRUE(synced(6)) << syncs.failed();  // the capture under its new name, the log folder
}

// The channel goes on writing files, the sync thread holds at most two descriptors, and the end of
// the channel does not wait for ever.
TEST_F(FileSync, ASyncThatHangsDelaysNoCaller) {
    const auto hang = [&] {
        fault =
            std::make_unique<FailCalls>(Fault{.call = Call::kSync, .where = ".muxz", .hang = true});
    };
    hang();
    for (int file = 0; file < 4; ++file) {
        Store("abc");
        io->close_log_file_with_flush();
        EXPECT_TRUE(test::WaitUntil([&] { return fault->failed() == 1; }));
        EXPECT_EQ(OpenFiles(), file == 0 ? 1u : 2u);
    }
    // The sync thread had no place for two of the files, so one syncfs takes the place of their
    // syncs.
    FailCalls whole_file_system({.call = Call::kSyncAll, .error = EIO});
    fault.reset();
    EXPECT_TRUE(test::WaitUntil([] { return OpenFiles() == 0; }));
    EXPECT_EQ(whole_file_system.failed(), 1);

    hang();
    Store("abc");
    std::thread end([&] { io.reset(); });
    EXPECT_TRUE(test::WaitUntil([&] { return fault->failed() == 1; }));
    clock.Shift(CLOCK_MONOTONIC, seconds(5));
    end.join();
    EXPECT_EQ(log.Count("file_sync: the last sync does not end, leave it alone"), 1u);
}

// A folder that is renamed before its sync is synced under its new name right afterwards. Up to 16
// changed folders are synced one by one; one syncfs serves a larger number.
TEST_F(FileSync, RenamedFoldersAndManyFolders) {
    constexpr int kMostFolders = 16;
    const auto folder = [](int number) { return "/data/changed" + std::to_string(number); };
    for (int i = 0; i <= kMostFolders; ++i) fs::create_directory(folder(i));
    const FailCalls one_by_one({.call = Call::kSync, .error = EIO, .where = "/data/changed"});
    const FailCalls whole_file_system({.call = Call::kSyncAll, .error = EIO});
    const size_t descriptors = test::List("/proc/self/fd").size();
    auto sync = std::make_unique<quarn::zorvex::FileSync>();

    fault = std::make_unique<FailCalls>(
        Fault{.call = Call::kSync, .where = "/data/changed0", .hang = true});
    sync->FolderChanged(folder(0));
    sync->FolderChanged("/data/old_name");
    clock.Shift(CLOCK_MONOTONIC, seconds(5));
    EXPECT_TRUE(test::WaitUntil([&] { return fault->failed() == 1; }));
    sync->FolderChanged(folder(1));
    fault.reset();
    EXPECT_TRUE(test::WaitUntil([&] { return one_by_one.failed() == 1; }, seconds(4)));

    for (const int most : {kMostFolders - 1, kMostFolders}) {
        for (int i = 0; i <= most; ++i) sync->FolderChanged(folder(i));
        clock.Shift(CLOCK_MONOTONIC, seconds(5));
        EXPECT_TRUE(test::WaitUntil([&] {
            return one_by_one.failed() == 1 + kMostFolders &&
                   whole_file_system.failed() == most + 1 - kMostFolders;
        }));
    }
    // One failure is logged, also without a file.
    EXPECT_EQ(log.Count("file_sync: sync folder=..."), 1u);
    sync.reset();
    EXPECT_TRUE(test::WaitUntil([&] { return test::List("/proc/self/fd").size() == descriptors; }));
}
