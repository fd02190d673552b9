// The whole road of a log block, from the port to the files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "byte_source.h"
#include "core/quarn.h"
#include "platform/mcl.h"
#include "storage/log_names.h"
#include "support.h"
#include "tools/muxz/tree.h"

namespace fs = std::filesystem;

namespace {

const std::string kLogs = "/data/vendor/radio/quarn/logs/";
constexpr size_t kMb = 1 << 20;

class Road : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories("/data/vendor/radio");
        mcl_init();
        g_file_io.create_top_folder();
        g_file_io.set_file_size(1);
        g_writer.init();
    }
    void TearDown() override { mcl_deinit(); }

    // Starts the stream of `bytes` from the port.
    void Start(const std::string& bytes) {
        test::Feed(bytes);
        g_reader.start();
        g_writer.start();
    }
    bool Delivered(size_t count) {
        return test::WaitUntil([&] { return modem.bytes_delivered() >= count; },
                               std::chrono::seconds(100));
    }
    // Waits until `count` bytes are in the files.
    void Finish(size_t count) {
        ASSERT_TRUE(Delivered(count));
        g_reader.stop();
        ASSERT_TRUE(test::WaitUntil([] { return g_ring.current_size() == 0; }));
        g_writer.stop();
        EXPECT_EQ(g_quarn.read_bytes, count);
        EXPECT_EQ(g_quarn.write_bytes, count);
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
};

}  // namespace

TEST_F(Road, EveryByteOfAnUnreliablePortReachesTheFiles) {
    const std::string bytes = test::StreamBytes(40 * kMb);  // the ring wraps twice
    modem.SprinkleFaults(7, 20);
    modem.SetReadLimit(30011);
    Start(bytes);
    // A capture ends and the next one begins during the stream.
    ASSERT_TRUE(Delivered(bytes.size() / 3));
    g_file_io.io_close();
    modem.SetReadLimit(0);
    Finish(bytes.size());
    EXPECT_EQ(test::List(kLogs).size(), 2u);
    EXPECT_GT(log.Count("file_io: file_size exceed 1048576"), 2u);
    EXPECT_TRUE(test::DecodeTree(kLogs) == bytes);
    std::lock_guard lock(g_quarn.stats_mutex);
    EXPECT_GT(g_quarn.stats.read_fail, 0u);
}

TEST_F(Road, AFullDiskLosesNothingThatTheReaderTook) {
    ASSERT_EQ(mount("none", kLogs.c_str(), "tmpfs", 0, "size=8m"), 0);
    test::WriteFile(kLogs + "ballast", std::string(4 * kMb, 'b'));
    const std::string bytes = test::StreamBytes(48 * kMb);
    Start(bytes);
    // The ring fills up behind the disk, and the reader waits.
    ASSERT_TRUE(log.WaitFor("io: common_write fail, ..."));
    ASSERT_TRUE(test::WaitUntil([] { return g_quarn.stall_count > 0; }));
    // The writer may just be trying again, so the newest file may end anywhere.
    EXPECT_TRUE(bytes.starts_with(test::Decode(kLogs).bytes));

    fs::remove(kLogs + "ballast");
    ASSERT_EQ(mount("none", kLogs.c_str(), "tmpfs", MS_REMOUNT, "size=64m"), 0);
    Finish(bytes.size());
    EXPECT_TRUE(test::DecodeTree(kLogs) == bytes);
    // No file without its header was left behind either.
    for (const auto& entry : fs::recursive_directory_iterator(kLogs)) {
        EXPECT_TRUE(entry.is_directory() || entry.file_size() > 260) << entry.path();
    }
}

// A budget of 3 MB for some 15 MB of files, of captures with and without an exception.
TEST_F(Road, TheTreeKeepsItsBudgetAndTheNewestFile) {
    constexpr unsigned int kBudgetMb = 3;
    ASSERT_EQ(g_file_io.set_recycle_option(RECYCLE_OPT_SIZE, kBudgetMb), 0);
    const std::string bytes = test::StreamBytes(64 * kMb);
    Start(bytes);
    std::atomic<bool> done{false};
    std::thread captures([&] {
        for (int i = 0; !done; ++i) {
            const size_t files = log.Count("file_io: open log_file=...");
            if (!test::WaitUntil(
                    [&] { return done || log.Count("file_io: open log_file=...") >= files + 2; })) {
                break;
            }
            if (i % 2 == 0) {
                g_file_io.set_file_suffix("_EE");
                g_file_io.rename_folder_ee();
            } else {
                g_file_io.io_close();
            }
        }
    });
    uintmax_t largest = 0;
    while (modem.bytes_delivered() < bytes.size()) {
        largest = std::max(largest, test::TreeSize(kLogs));
        std::this_thread::yield();
    }
    done = true;
    captures.join();
    Finish(bytes.size());
    // The tree may exceed the size limit by one file: its size limit, the flush that exceeds it,
    // and its header.
    EXPECT_LE(std::max(largest, test::TreeSize(kLogs)), (kBudgetMb + 2) * kMb + 2048);
    EXPECT_GT(log.Count("LogFileRecycler: remove file ..."), 5u);
    // Captures with an exception outlive other captures, but the end of the last capture is there
    // without a gap.
    const std::string last = test::DecodeTree(g_file_io.get_latest_folder_path());
    EXPECT_FALSE(last.empty());
    EXPECT_TRUE(bytes.ends_with(last));
}

// Somebody deletes the running capture's file, or its folder, again and again. The deleted files
// are read through descriptors: together with what is in the tree they hold each byte once.
TEST_F(Road, DeletingTheRunningCaptureCostsWhatWasInIt) {
    g_file_io.set_file_size(50);
    constexpr size_t kPart = 12 * kMb;  // more than one write's worth, packed
    constexpr size_t kParts = 8;
    const std::string bytes = test::StreamBytes(kParts * kPart);
    struct Deleted {
        muxz::Fd fd;
        off_t size;  // when it was
    };
    std::vector<Deleted> deleted;
    for (size_t i = 0; i < kParts; ++i) {
        ASSERT_TRUE(Delivered(i * kPart));
        Start(bytes.substr(i * kPart, kPart));
        ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) != 0; }));
        ASSERT_TRUE(Delivered(i * kPart + i * kPart / kParts));
        for (const std::string& folder : test::List(kLogs)) {
            for (const std::string& name : test::List(kLogs + folder)) {
                const std::string path = kLogs + folder + "/" + name;
                if (!name.ends_with(".tmp")) continue;
                muxz::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
                if (!fd || unlink(path.c_str()) != 0) continue;
                const off_t size = lseek(fd.get(), 0, SEEK_END);
                deleted.push_back({std::move(fd), size});
            }
            if (i % 2 == 0) rmdir((kLogs + folder).c_str());
        }
    }
    Finish(bytes.size());
    EXPECT_GE(deleted.size(), kParts);

    std::map<size_t, size_t> pieces;  // lengths by place in the stream
    const auto place = [&](const fs::path& path) {
        const std::string piece = test::DecodeFile(path).bytes;
        if (piece.empty()) return;
        // No two records are alike. A search for all of it would take minutes under a sanitizer.
        const size_t at = bytes.find(piece.substr(0, 100));
        ASSERT_NE(at, std::string::npos) << path;
        EXPECT_TRUE(bytes.compare(at, piece.size(), piece) == 0) << path;
        EXPECT_TRUE(pieces.emplace(at, piece.size()).second) << path;
    };
    for (const Deleted& file : deleted) {
        // One write may have been under way.
        EXPECT_LE(lseek(file.fd.get(), 0, SEEK_END), file.size + static_cast<off_t>(kMb));
        place("/proc/self/fd/" + std::to_string(file.fd.get()));
    }
    for (const auto& entry : fs::recursive_directory_iterator(kLogs)) {
        if (entry.is_regular_file()) place(entry.path());
    }
    size_t covered = 0;
    for (const auto& [at, length] : pieces) {
        EXPECT_EQ(at, covered);
        covered = at + length;
    }
    EXPECT_EQ(covered, bytes.size());
}
