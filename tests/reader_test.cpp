#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <vector>

#include "byte_source.h"
#include "core/quarn.h"
#include "datapath/quarn_reader.h"
#include "platform/mcl.h"
#include "support.h"
#include "thread_limit.h"

namespace {

constexpr size_t kChunk = 65536;
constexpr size_t kSmallRing = 2 * kChunk;

class Reader : public testing::Test {
  protected:
    Reader() { mcl_init(); }
    ~Reader() override {
        reader.stop();
        mcl_deinit();
    }

    static QUARN_READER_STATS Stats() {
        std::lock_guard lock(g_quarn.stats_mutex);
        return g_quarn.stats;
    }
    bool WaitForHeld(size_t bytes) {
        return test::WaitUntil([&] { return ring.current_size() >= bytes; });
    }
    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    QUARN_RING ring;
    QUARN_READER_HANDLE reader{&ring};
};

// --- one row for each way in which the port fails ---

TEST_F(Reader, FaultsOfThePortAreCountedAndSurvived) {
    using Counts = QUARN_READER_STATS;
    const struct {
        const char* name;
        std::function<void(sim::Modem&)> arrange;
        uint64_t Counts::*counter;
        uint64_t count, closes, opens;
        const char* message = nullptr;  // null: the reader logs no error
        size_t before = 0;              // bytes that the port delivers before it fails
    } rows[] = {
        {"zero", [](auto& m) { m.FailReads(0, 3); }, &Counts::read_len_zero, 3, 0, 0},
        {"again", [](auto& m) { m.FailReads(EAGAIN, 3); }, &Counts::read_eagain, 3, 0, 0},
        {"interrupted", [](auto& m) { m.FailReads(EINTR, 2); }, &Counts::read_eintr, 2, 0, 0},
        {"no device", [](auto& m) { m.FailReads(ENODEV, 2); }, &Counts::read_enodev, 2, 0, 0},
        {"ten bad", [](auto& m) { m.FailReads(EBADF, 10); }, &Counts::read_ebadf, 10, 1, 1,
         "read log port, retry=10, errno=EBADF"},
        {"nine bad",
         [](auto& m) {
             m.FailReads(EBADF, 9);
             m.FailReads(EINTR, 1);
             m.FailPolls(1, 1);  // uses up the attempts of the chunk without a time-out
         },
         &Counts::read_eintr, 1, 0, 0},
        {"other, and reopening fails",
         [](auto& m) {
             m.FailReads(EIO, 1);
             m.FailOpens(2);
         },
         &Counts::read_eother, 1, 1, 3},
        {"poll time-out", [](auto& m) { m.FailPolls(-2, 2); }, &Counts::poll_timeout, 2, 0, 0},
        {"poll", [](auto& m) { m.FailPolls(-1, 1); }, &Counts::poll_fail, 1, 1, 1},
        {"poll behind bytes", [](auto& m) { m.FailPolls(-1, 1); }, &Counts::poll_fail, 1, 0, 0,
         "read log port, left tot_read_len=1000 bytes", 1000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        modem.Reset();
        mcl_init();
        g_quarn.read_bytes = 0;
        {
            std::lock_guard lock(g_quarn.stats_mutex);
            g_quarn.stats = {};
        }
        QUARN_RING fresh;
        QUARN_READER_HANDLE handle(&fresh);
        const std::string before = test::StreamBytes(row.before, 1);
        const std::string after = test::StreamBytes(100000, 2);
        test::Feed(before);
        row.arrange(modem);
        const auto begin = std::chrono::steady_clock::now();
        handle.start();
        ASSERT_TRUE(test::WaitUntil([&] { return Stats().*row.counter >= row.count; }));
        ASSERT_TRUE(test::WaitUntil([&] { return modem.calls().open >= row.opens; }));
        // A second passes before each attempt to open the port again.
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(row.opens));
        test::Feed(after);
        const size_t size = before.size() + after.size();
        ASSERT_TRUE(test::WaitUntil([&] { return fresh.current_size() >= size; }));
        handle.stop();

        EXPECT_EQ(std::string(reinterpret_cast<const char*>(fresh.get_buf_ptr()), size),
                  before + after);
        EXPECT_EQ(g_quarn.read_bytes, fresh.current_size());
        const auto calls = modem.calls();
        EXPECT_EQ(calls.close, row.closes);
        EXPECT_EQ(calls.open, row.opens);
        EXPECT_EQ(log.Count("read log port, ..."), row.message != nullptr ? 1u : 0u);
        EXPECT_TRUE(row.message == nullptr || log.Has(ANDROID_LOG_ERROR, row.message));

        const Counts s = Stats();
        EXPECT_EQ(s.tot_read_cnt, calls.read);
        EXPECT_EQ(s.tot_poll_cnt, calls.poll);
        EXPECT_EQ(s.tot_read_cnt, s.read_len_greater_zero + s.read_len_zero + s.read_fail);
        EXPECT_EQ(s.read_fail,
                  s.read_eagain + s.read_eintr + s.read_enodev + s.read_ebadf + s.read_eother);
        EXPECT_EQ(s.tot_poll_cnt, s.poll_success + s.poll_timeout + s.poll_fail);
        // After these results the reader polls the port again at once. After the others it does
        // not.
        EXPECT_EQ(s.tot_poll_cnt, s.read_len_zero + s.read_eagain + s.read_eintr + s.read_enodev);
    }
}

// The main thread logs the counters under their mutex, so the reader must not hold it in its
// pauses.
TEST_F(Reader, ThePauseAfterABadPortLeavesTheCountersFree) {
    constexpr uint64_t kFaults = 6;
    modem.FailReads(EBADF, kFaults);
    reader.start();
    std::vector<uint64_t> seen;
    EXPECT_TRUE(test::WaitUntil([&] {
        std::unique_lock lock(g_quarn.stats_mutex, std::try_to_lock);
        if (!lock) return false;
        const uint64_t count = g_quarn.stats.read_ebadf;
        if (count > 0 && (seen.empty() || seen.back() != count)) seen.push_back(count);
        return count == kFaults;
    }));
    EXPECT_GE(seen.size(), kFaults / 2);  // one in each pause; on a busy machine some are not seen
}

// --- chunks ---

TEST_F(Reader, TenShortReadsMakeAChunk) {
    modem.SetReadLimit(100);
    modem.SetSource(sim::MakeGeneratedSource(1));
    modem.StartStream();
    reader.start();
    ASSERT_TRUE(WaitForHeld(5000));
    reader.stop();
    EXPECT_EQ(ring.current_size() % 1000, 0u);
    EXPECT_EQ(modem.calls().read, ring.current_size() / 100);
    EXPECT_EQ(modem.calls().poll, 0u);
}

TEST_F(Reader, ChunkBehindTheEndIsCarriedToTheStart) {
    const std::string bytes = test::StreamBytes(kChunk);
    ring.set_buf_read_idx(16777000);
    ring.set_buf_write_idx(16777000);
    test::Feed(bytes);
    reader.start();
    ASSERT_TRUE(WaitForHeld(kChunk));
    EXPECT_EQ(ring.get_buf_write_idx(), 65320u);
    const auto* const start = reinterpret_cast<const char*>(ring.get_buf_ptr());
    EXPECT_EQ(std::string(start + 16777000, 216), bytes.substr(0, 216));
    EXPECT_EQ(std::string(start, 65320), bytes.substr(216));
}

TEST_F(Reader, FullRingStallsWithoutReading) {
    QUARN_RING small(kSmallRing);
    QUARN_READER_HANDLE stalled(&small);
    const std::string bytes = test::StreamBytes(2 * kChunk);
    test::Feed(bytes);
    stalled.start();
    ASSERT_TRUE(test::WaitUntil([&] { return small.notification_count() == 1; }));
    // One chunk fits. One byte of the ring always stays free, so there is too little space for a
    // second.
    ASSERT_TRUE(test::WaitUntil([&] { return g_quarn.stall_count >= 3; }));
    EXPECT_EQ(modem.calls().read, 1u);
    EXPECT_EQ(small.current_size(), kChunk);
    small.set_buf_read_idx(kChunk);
    small.notify();
    ASSERT_TRUE(test::WaitUntil([&] { return small.get_buf_write_idx() == 0; }));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(small.get_buf_ptr()), kSmallRing), bytes);
    const uint64_t notified = small.notification_count();
    stalled.stop();
    EXPECT_GT(small.notification_count(), notified);  // so that a stall does not delay the stop

    QUARN_RING exact(kSmallRing);
    exact.set_buf_write_idx(kSmallRing - 1 - kChunk);  // room for just one chunk
    QUARN_READER_HANDLE filling(&exact);
    test::Feed(test::StreamBytes(kChunk));
    filling.start();
    EXPECT_TRUE(test::WaitUntil([&] { return exact.current_size() == kSmallRing - 1; }));
}

// --- the handle ---

TEST_F(Reader, StartsAndStopsOnce) {
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_EQ(log.Count("reader_handler: already stop"), 1u);
    {
        test::NoNewThreads limit;
        EXPECT_EQ(reader.start(), 1);
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "reader_handler: create thread fail, errno=..."));
    for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(reader.start(), 0);
        EXPECT_EQ(reader.start(), 0);
        std::thread other([&] { reader.stop(); });
        reader.stop();
        other.join();
    }
    EXPECT_EQ(log.Count("reader_handler: already start"), 2u);
    EXPECT_EQ(log.Count("reader_handler: stop success"), 2u);
    EXPECT_EQ(log.Count("reader_handler: already stop"), 3u);
}

TEST_F(Reader, ServesItsRequests) {
    const auto started = [&] { return log.Count("reader_handler: start success"); };
    const auto stopped = [&] { return log.Count("reader_handler: stop success"); };
    const auto exec = [&](QUARN_EXEC_ID id) { EXPECT_EQ(reader.exec(id, nullptr), 0); };
    const auto dirty = [] {
        g_quarn.read_bytes = g_quarn.write_bytes = 7;
        std::lock_guard lock(g_quarn.stats_mutex);
        g_quarn.stats.tot_read_cnt = 7;
    };

    exec(EXEC_MD_LOG_STOP);  // the reader ignores it
    EXPECT_EQ(started(), 0u);
    exec(EXEC_START);
    EXPECT_EQ(started(), 1u);
    exec(EXEC_MD_LOG_START);  // the reader changes to the global ring
    EXPECT_EQ(stopped(), 1u);
    EXPECT_EQ(started(), 2u);
    test::Feed("bytes");
    EXPECT_TRUE(test::WaitUntil([] { return g_ring.current_size() == 5; }));
    exec(EXEC_MD_LOG_REOPEN);  // it already uses the global ring
    EXPECT_EQ(started(), 2u);
    exec(EXEC_SET_SAVE_MODE);
    EXPECT_EQ(stopped(), 2u);

    for (const QUARN_EXEC_ID id : {EXEC_MD_LOG_FLUSH_CLOSE, EXEC_MD_EXCEPTION}) {
        g_quarn.is_started = false;
        dirty();
        exec(id);
        EXPECT_EQ(g_quarn.read_bytes + g_quarn.write_bytes, 0u);
        EXPECT_EQ(Stats().tot_read_cnt, 0u);
        g_quarn.is_started = true;
        dirty();
        exec(id);
        EXPECT_EQ(g_quarn.read_bytes + g_quarn.write_bytes, 14u);
        EXPECT_EQ(Stats().tot_read_cnt, 7u);
    }
}

}  // namespace
