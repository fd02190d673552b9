// The whole road of a log block, from the port to the files.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "byte_source.h"
#include "core/quarn.h"
#include "platform/mcl.h"
#include "storage/log_names.h"
#include "support.h"

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

    // Lets the bytes flow from the port on.
    void Start(const std::string& bytes) {
        test::Feed(bytes);
        g_reader.start();
        g_writer.start();
    }
    bool Delivered(size_t count) {
        return test::WaitUntil([&] { return modem.bytes_delivered() >= count; },
                               std::chrono::seconds(100));
    }
    // Until all of it is in the files.
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
    const std::string bytes = test::StreamBytes(40 * kMb);  // wraps the ring twice
    modem.SprinkleFaults(7, 20);
    modem.SetReadLimit(30011);
    Start(bytes);
    // A capture ends and the next one begins while bytes flow.
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
    // One file more than the budget: its size, the flush that passes it, and its header.
    EXPECT_LE(std::max(largest, test::TreeSize(kLogs)), (kBudgetMb + 2) * kMb + 2048);
    EXPECT_GT(log.Count("LogFileRecycler: remove file ..."), 5u);
    // Exceptions outlive older captures, but of the last capture the end is there, without a hole.
    const std::string last = test::DecodeTree(g_file_io.get_latest_folder_path());
    EXPECT_FALSE(last.empty());
    EXPECT_TRUE(bytes.ends_with(last));
}
