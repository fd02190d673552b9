// The whole data path, from the log port to the files. quarn_soak adds deletions and full disks.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "byte_source.h"
#include "core/quarn.h"
#include "platform/mcl.h"
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

// A recycle size limit of 3 MB, and about 15 MB of files of captures with and without an exception.
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
