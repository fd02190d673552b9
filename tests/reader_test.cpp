#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

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
    // What the ring holds, when it has not wrapped.
    std::string Held() {
        return {reinterpret_cast<const char*>(ring.get_buf_ptr()) + ring.get_buf_read_idx(),
                ring.current_size()};
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    QUARN_RING ring;
    QUARN_READER_HANDLE reader{&ring};
};

// --- one row for each way in which the port fails ---

struct FaultRow {
    const char* name;
    std::function<void(sim::Modem&)> arrange;
    uint64_t QUARN_READER_STATS::*counter;
    uint64_t count;
    uint64_t closes, opens;
    const char* message;  // null: none of the reader's error messages
    size_t before = 0;    // bytes that the port gives before it fails
};

void PrintTo(const FaultRow& row, std::ostream* out) { *out << row.name; }

class ReaderFault : public Reader, public testing::WithParamInterface<FaultRow> {};

TEST_P(ReaderFault, IsCountedAndSurvived) {
    const FaultRow& row = GetParam();
    const std::string before = test::StreamBytes(row.before, 1);
    const std::string after = test::StreamBytes(100000, 2);
    test::Feed(before);
    row.arrange(modem);
    reader.start();
    ASSERT_TRUE(test::WaitUntil([&] { return Stats().*row.counter >= row.count; }));
    ASSERT_TRUE(test::WaitUntil([&] { return modem.calls().open >= row.opens; }));
    test::Feed(after);
    ASSERT_TRUE(WaitForHeld(before.size() + after.size()));
    reader.stop();

    EXPECT_EQ(Held(), before + after);
    EXPECT_EQ(g_quarn.read_bytes, ring.current_size());
    const auto calls = modem.calls();
    EXPECT_EQ(calls.close, row.closes);
    EXPECT_EQ(calls.open, row.opens);
    EXPECT_EQ(log.Count("read log port, ..."), row.message != nullptr ? 1u : 0u);
    EXPECT_TRUE(row.message == nullptr || log.Has(ANDROID_LOG_ERROR, row.message));

    const QUARN_READER_STATS s = Stats();
    EXPECT_EQ(s.tot_read_cnt, calls.read);
    EXPECT_EQ(s.tot_poll_cnt, calls.poll);
    EXPECT_EQ(s.tot_read_cnt, s.read_len_greater_zero + s.read_len_zero + s.read_fail);
    EXPECT_EQ(s.read_fail,
              s.read_eagain + s.read_eintr + s.read_enodev + s.read_ebadf + s.read_eother);
    EXPECT_EQ(s.tot_poll_cnt, s.poll_success + s.poll_timeout + s.poll_fail);
    // These ask the port again at once, the others do not.
    EXPECT_EQ(s.tot_poll_cnt, s.read_len_zero + s.read_eagain + s.read_eintr + s.read_enodev);
}

using Stats = QUARN_READER_STATS;

INSTANTIATE_TEST_SUITE_P(
    Port, ReaderFault,
    testing::Values(FaultRow{"Zero", [](auto& m) { m.FailReads(0, 3); }, &Stats::read_len_zero, 3,
                             0, 0, nullptr},
                    FaultRow{"Again", [](auto& m) { m.FailReads(EAGAIN, 3); }, &Stats::read_eagain,
                             3, 0, 0, nullptr},
                    FaultRow{"Interrupted", [](auto& m) { m.FailReads(EINTR, 2); },
                             &Stats::read_eintr, 2, 0, 0, nullptr},
                    FaultRow{"NoDevice", [](auto& m) { m.FailReads(ENODEV, 2); },
                             &Stats::read_enodev, 2, 0, 0, nullptr},
                    FaultRow{"TenBadDescriptors", [](auto& m) { m.FailReads(EBADF, 10); },
                             &Stats::read_ebadf, 10, 1, 1, "read log port, retry=10, errno=EBADF"},
                    FaultRow{"NineBadDescriptors",
                             [](auto& m) {
                                 m.FailReads(EBADF, 9);
                                 m.FailReads(EINTR, 1);
                                 m.FailPolls(
                                     1, 1);  // the chunk's attempts are used up without a time-out
                             },
                             &Stats::read_eintr, 1, 0, 0, nullptr},
                    FaultRow{"Other", [](auto& m) { m.FailReads(EIO, 1); }, &Stats::read_eother, 1,
                             1, 1, nullptr},
                    FaultRow{"OtherAndReopeningFails",
                             [](auto& m) {
                                 m.FailReads(EIO, 1);
                                 m.FailOpens(2);
                             },
                             &Stats::read_eother, 1, 1, 3, nullptr},
                    FaultRow{"PollTimeout", [](auto& m) { m.FailPolls(-2, 2); },
                             &Stats::poll_timeout, 2, 0, 0, nullptr},
                    FaultRow{"PollFailure", [](auto& m) { m.FailPolls(-1, 1); }, &Stats::poll_fail,
                             1, 1, 1, nullptr},
                    FaultRow{"PollFailureBehindBytes", [](auto& m) { m.FailPolls(-1, 1); },
                             &Stats::poll_fail, 1, 0, 0,
                             "read log port, left tot_read_len=1000 bytes", 1000}),
    [](const auto& row) { return row.param.name; });

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
    // One chunk fits; the byte that stays free leaves too little room for a second one.
    ASSERT_TRUE(test::WaitUntil([&] { return g_quarn.stall_count >= 3; }));
    EXPECT_EQ(modem.calls().read, 1u);
    EXPECT_EQ(small.current_size(), kChunk);
    small.set_buf_read_idx(kChunk);
    small.notify();
    ASSERT_TRUE(test::WaitUntil([&] { return small.get_buf_write_idx() == 0; }));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(small.get_buf_ptr()), kSmallRing), bytes);
}

// --- the handle ---

TEST_F(Reader, StartsAndStopsOnce) {
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_EQ(log.Count("reader_handler: already stop"), 1u);
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
    EXPECT_EQ(log.Count("reader_handler: quarn_read_thread start"),
              log.Count("reader_handler: quarn_read_thread terminate"));
}

TEST_F(Reader, SurvivesAThreadThatEndedOrNeverBegan) {
    QUARN_READER_HANDLE no_ring(nullptr);
    for (size_t round = 1; round <= 2; ++round) {
        EXPECT_EQ(no_ring.start(), 0);
        ASSERT_TRUE(log.WaitFor("read_handler: cur_used_buf is NULL", round));
        // The flag falls just behind the message.
        ASSERT_TRUE(test::WaitUntil([&] {
            no_ring.stop();
            return log.Count("reader_handler: already stop") > 0;
        }));
    }
    {
        test::NoNewThreads limit;
        EXPECT_EQ(reader.start(), 1);
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "reader_handler: create thread fail, errno=..."));
    EXPECT_EQ(reader.start(), 0);
}

TEST_F(Reader, ServesItsRequests) {
    const auto started = [&] { return log.Count("reader_handler: start success"); };
    const auto stopped = [&] { return log.Count("reader_handler: stop success"); };
    const auto exec = [&](QUARN_EXEC_ID id) {
        const std::string line = "reader_handler: handle exec_id=" + std::to_string(id);
        const size_t before = log.Count(line);
        EXPECT_EQ(reader.exec(id, nullptr), 0);
        EXPECT_EQ(log.Count(line), before + 1);
        EXPECT_EQ(log.Count(line + " done"), before + 1);
    };
    const auto dirty = [] {
        g_quarn.read_bytes = g_quarn.write_bytes = 7;
        std::lock_guard lock(g_quarn.stats_mutex);
        g_quarn.stats.tot_read_cnt = 7;
        g_quarn.stats.poll_timeout = 7;
    };

    exec(EXEC_MD_LOG_STOP);  // not served
    EXPECT_EQ(started(), 0u);
    exec(EXEC_START);
    EXPECT_EQ(started(), 1u);
    exec(EXEC_MD_LOG_START);  // moves over to the global ring
    EXPECT_EQ(stopped(), 1u);
    EXPECT_EQ(started(), 2u);
    test::Feed("bytes");
    EXPECT_TRUE(test::WaitUntil([] { return g_ring.current_size() == 5; }));
    exec(EXEC_MD_LOG_REOPEN);  // is there already
    EXPECT_EQ(started(), 2u);
    exec(EXEC_SET_SAVE_MODE);
    EXPECT_EQ(stopped(), 2u);

    for (const QUARN_EXEC_ID id : {EXEC_MD_LOG_FLUSH_CLOSE, EXEC_MD_EXCEPTION}) {
        g_quarn.is_started = false;
        dirty();
        exec(id);
        EXPECT_EQ(g_quarn.read_bytes + g_quarn.write_bytes, 0u);
        EXPECT_EQ(Stats().tot_read_cnt + Stats().poll_timeout, 0u);
        g_quarn.is_started = true;
        dirty();
        exec(id);
        EXPECT_EQ(g_quarn.read_bytes + g_quarn.write_bytes, 14u);
        EXPECT_EQ(Stats().tot_read_cnt + Stats().poll_timeout, 14u);
    }
}

}  // namespace
