#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/quarn.h"
#include "datapath/quarn_socket_io.h"
#include "datapath/quarn_usb_io.h"
#include "datapath/quarn_writer.h"
#include "support.h"
#include "thread_limit.h"

namespace {

using std::chrono::milliseconds;

constexpr const char* kLogFolder = "/data/vendor/radio/quarn/logs";

// A channel that keeps the bytes it gets. The first calls return the results that the test sets.
template <class Base>
struct Channel : Base {
    int io_open() override { return 0; }
    int io_close() override { return 0; }
    int io_write(const void* buf, int len) override {
        if (instead) return instead();
        lengths.push_back(len);
        int taken = len;
        if (!answers.empty()) {
            taken = answers.front();
            answers.erase(answers.begin());
        }
        if (taken > 0) bytes.append(static_cast<const char*>(buf), static_cast<size_t>(taken));
        return taken;
    }

    std::function<int()> instead;
    std::vector<int> answers;
    std::vector<int> lengths;
    std::string bytes;
};

struct UsbChannel : Channel<QUARN_USB_IO> {
    using QUARN_USB_IO::is_paused;
    using QUARN_USB_IO::write_count;
};
struct SocketChannel : Channel<QUARN_SOCKET_IO> {
    using QUARN_SOCKET_IO::server_socket;
};

struct TestWriter : QUARN_WRITER_HANDLER {
    explicit TestWriter(QUARN_RING* log_ring, QUARN_IO* channel = nullptr)
        : QUARN_WRITER_HANDLER(log_ring, HANDLE_WRITER) {
        io = channel;
    }
    using QUARN_WRITER_HANDLER::io;
};

// Puts bytes into the ring as the reader does.
void Put(QUARN_RING& ring, const std::string& bytes) {
    const uint64_t size = ring.capacity() + 1;
    const uint64_t at = ring.get_buf_write_idx();
    const size_t first = std::min<size_t>(bytes.size(), size - at);
    memcpy(ring.get_buf_ptr() + at, bytes.data(), first);
    memcpy(ring.get_buf_ptr(), bytes.data() + first, bytes.size() - first);
    ring.set_buf_write_idx((at + bytes.size()) & ring.capacity());
    ring.notify();
}

bool WaitForEmpty(QUARN_RING& ring) {
    return test::WaitUntil([&] { return ring.current_size() == 0; });
}

class Writer : public testing::Test {
  protected:
    Writer() { test::HandleStopSignal(); }
    test::LogCapture log;
};

// --- draining ---

TEST_F(Writer, DrainsWhateverTheChannelTakes) {
    struct Row {
        const char* name;
        uint64_t ring_size, read_idx;
        size_t held;
        std::vector<int> answers;
        std::vector<int> lengths;  // expected lengths of the writes
    };
    const Row rows[] = {
        {"up to the very end", 1024, 24, 1000, {}, {1000}},
        {"wrapped", 1024, 1000, 100, {}, {24, 76}},
        {"partial", 1024, 0, 100, {60}, {100, 40}},
        {"failed", 1024, 0, 100, {-1, 0}, {100, 100, 100}},
        {"first half partial", 1024, 1000, 100, {10}, {24, 14, 76}},
        {"second half partial", 1024, 1000, 100, {24, 6}, {24, 76, 70}},
        {"second half failed", 1024, 1000, 100, {24, -1}, {24, 76, 76}},
        {"chunk across the end", 1 << 20, 900000, 300000, {}, {148576, 113568, 37856}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        QUARN_RING ring(row.ring_size);
        UsbChannel channel;
        TestWriter writer(&ring, &channel);
        channel.answers = row.answers;
        ring.set_buf_read_idx(row.read_idx);
        ring.set_buf_write_idx(row.read_idx);
        const std::string bytes = test::StreamBytes(row.held);
        Put(ring, bytes);
        g_quarn.write_bytes = 0;
        const auto begin = std::chrono::steady_clock::now();
        writer.start();
        EXPECT_TRUE(WaitForEmpty(ring));
        // The reader may wait for the room. The first notification is that of the bytes.
        EXPECT_TRUE(test::WaitUntil([&] { return ring.notification_count() >= 2; }));
        writer.stop();
        if (row.name == std::string("failed")) {
            EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(400));
        }
        EXPECT_EQ(channel.lengths, row.lengths);
        EXPECT_EQ(channel.bytes, bytes);
        EXPECT_EQ(g_quarn.write_bytes, bytes.size());
    }
}

// --- the thread ---

TEST_F(Writer, StartsAndStopsOnce) {
    QUARN_RING ring(1024);
    UsbChannel channel;
    TestWriter writer(&ring, &channel);
    {
        test::NoNewThreads limit;
        EXPECT_EQ(writer.start(), 1);
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "writer_handler: create thread fail, errno=..."));
    EXPECT_TRUE(channel.is_paused);
    EXPECT_EQ(writer.stop(), 0);
    for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(writer.start(), 0);
        EXPECT_FALSE(channel.is_paused);
        EXPECT_EQ(writer.start(), 0);
        std::thread other([&] { writer.stop(); });
        writer.stop();
        other.join();
        EXPECT_TRUE(channel.is_paused);
    }
    EXPECT_EQ(log.Count("writer_handler: stop success"), 2u);
    EXPECT_EQ(log.Count("writer_handler: quarn_writer_thread start"),
              log.Count("writer_handler: quarn_writer_thread terminate"));
    writer.start();  // it is destroyed while it runs
}

// Stops a writer whose channel blocks in a write. The request to stop comes before `hang` begins.
template <class Base>
void StopDuringWrite(Channel<Base>& channel, const std::function<void()>& hang) {
    QUARN_RING ring(1024);
    TestWriter writer(&ring, &channel);
    std::atomic<bool> writing{false};
    std::atomic<bool> stopping{false};
    channel.instead = [&] {
        writing = true;
        test::WaitUntil([&] { return stopping.load(); });
        std::this_thread::sleep_for(milliseconds(20));
        hang();
        return -1;
    };
    Put(ring, "x");
    writer.start();
    ASSERT_TRUE(test::WaitUntil([&] { return writing.load(); }));
    stopping = true;
    writer.stop();
    EXPECT_EQ(ring.current_size(), 1u);
}

// The first signal or request may come too early. Then a later one ends the blocked call.
TEST_F(Writer, StopBreaksABlockedUsbWriteAndTheWaitForAHost) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);  // no thread ever writes, and no host connects
    UsbChannel usb;
    StopDuringWrite(usb, [&] {
        char byte;
        EXPECT_EQ(read(ends[0], &byte, 1), -1);
        EXPECT_EQ(errno, EINTR);
    });
    SocketChannel socket;
    socket.is_closed = false;
    socket.server_socket = ends[0];
    StopDuringWrite(socket, [&] { socket.wait_connect(); });
    close(ends[0]);
    close(ends[1]);
}

// --- waiting for an empty ring ---

// If nothing drains the ring, the wait lasts up to its limit. If no host takes the bytes, it ends
// at once.
TEST_F(Writer, WaitsForTheRingAsLongAsSomebodyMightDrainIt) {
    using Clock = std::chrono::steady_clock;
    QUARN_RING full(1024);
    Put(full, "x");
    QUARN_RING empty(1024);
    UsbChannel idle_usb, busy_usb;
    SocketChannel no_host;
    const struct {
        const char* name;
        QUARN_RING& ring;
        QUARN_IO& channel;
        milliseconds least;
    } rows[] = {
        {"somebody drains", full, g_file_io, milliseconds(3500)},
        {"USB takes bytes", full, busy_usb, milliseconds(3500)},
        {"nothing held", empty, g_file_io, milliseconds(1500)},
        {"USB, nothing taken", full, idle_usb, milliseconds(1500)},
        {"no host", full, no_host, milliseconds(1500)},
    };
    std::atomic<int> long_waits{0};
    std::vector<std::thread> waits;
    for (const auto& row : rows) {
        // The long waits come first: another one that lasted as long would end behind them.
        if (waits.size() == 2) std::this_thread::sleep_for(milliseconds(500));
        waits.emplace_back([&row, &long_waits] {
            TestWriter writer(&row.ring, &row.channel);
            const auto begun = Clock::now();
            writer.exec(EXEC_FLUSH_RING, nullptr);
            const auto passed = Clock::now() - begun;
            EXPECT_GE(passed, row.least) << row.name;
            // The cases that end at once come before the case that waits.
            if (row.least > milliseconds(1500)) {
                ++long_waits;
            } else {
                EXPECT_EQ(long_waits, 0) << row.name;
            }
        });
    }
    while (long_waits < 2) {
        ++busy_usb.write_count;
        std::this_thread::sleep_for(milliseconds(1));
    }
    for (std::thread& wait : waits) wait.join();
}

// --- requests ---

TEST_F(Writer, MakesWayForTheHostTool) {
    QUARN_RING ring(1024);
    UsbChannel channel;
    TestWriter writer(&ring, &channel);
    writer.exec(EXEC_TOOL_CONNECTED, nullptr);
    writer.exec(EXEC_TOOL_DISCONNECTED, nullptr);
    EXPECT_EQ(log.Count("writer_handler: already stop"), 0u);
    EXPECT_EQ(log.Count("writer_handler: start success"), 0u);
    writer.exec(EXEC_START, nullptr);
    writer.exec(EXEC_TOOL_CONNECTED, nullptr);
    EXPECT_EQ(log.Count("writer_handler: stop success"), 1u);
    writer.exec(EXEC_TOOL_DISCONNECTED, nullptr);
    EXPECT_EQ(log.Count("writer_handler: start success"), 2u);
    // An exit in between cannot be undone.
    writer.exec(EXEC_TOOL_CONNECTED, nullptr);
    QUARN_SAVE_MODE mode = SAVE_MODE_STORAGE;
    writer.exec(EXEC_SET_SAVE_MODE, &mode);
    writer.exec(EXEC_TOOL_DISCONNECTED, nullptr);
    EXPECT_EQ(log.Count("writer_handler: start success"), 2u);
}

TEST_F(Writer, SwitchesTheChannel) {
    QUARN_RING ring(1024);
    UsbChannel channel;
    channel.instead = [] { return -1; };
    TestWriter writer(&ring, &channel);
    writer.start();
    writer.exec(EXEC_SET_SAVE_MODE, nullptr);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "write_handler: arg is NULL"));
    EXPECT_EQ(writer.io, &channel);
    EXPECT_EQ(log.Count("writer_handler: stop success"), 0u);

    Put(ring, test::StreamBytes(321));
    QUARN_SAVE_MODE mode = SAVE_MODE_STORAGE;
    writer.exec(EXEC_SET_SAVE_MODE, &mode);
    EXPECT_EQ(log.Count("writer_handler: stop success"), 1u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, "write_handler: drop 321 bytes data from cur_used_buf"));
    EXPECT_EQ(ring.current_size(), 0u);
    EXPECT_EQ(writer.io, &g_file_io);

    mode = SAVE_MODE_EXIT;
    writer.exec(EXEC_SET_SAVE_MODE, &mode);
    EXPECT_EQ(writer.io, nullptr);
    EXPECT_EQ(log.Count("write_handler: drop ..."), 1u);
    Put(ring, "x");
    EXPECT_EQ(writer.start(), 0);  // there is no channel for the bytes
    EXPECT_EQ(writer.stop(), 0);
    EXPECT_EQ(ring.current_size(), 1u);
}

// No request can start the writer between its stop and the change of its channel.
TEST_F(Writer, NobodyStartsItInTheMiddleOfASwitch) {
    static QUARN_RING ring(1024);
    static TestWriter writer(&ring);
    static std::atomic<bool> started{false};
    static std::thread starting;
    // The writer logs this line between its stop and the change.
    __android_log_set_logger([](const __android_logger_data*, const char* text) {
        if (!std::string(text).starts_with("write_handler: drop ")) return;
        starting = std::thread([] { started = writer.start() == 0; });
        EXPECT_FALSE(test::WaitUntil([] { return started.load(); }, milliseconds(200)));
    });
    Put(ring, "x");
    QUARN_SAVE_MODE mode = SAVE_MODE_EXIT;
    const auto begin = std::chrono::steady_clock::now();
    writer.exec(EXEC_SET_SAVE_MODE, &mode);
    EXPECT_GE(std::chrono::steady_clock::now() - begin,
              milliseconds(1900));  // 200 of them for a last drain
    starting.join();
    EXPECT_TRUE(started);
    writer.stop();
}

// The wait for an empty ring goes on if the writer has not been started yet. It ends if the writer
// was stopped before or is stopped during the wait.
TEST_F(Writer, AStopEndsTheWaitForTheRing) {
    QUARN_RING ring(1024);
    TestWriter unstarted(&ring), writer(&ring);  // have no channel for the bytes
    Put(ring, "x");
    const auto begin = std::chrono::steady_clock::now();
    std::atomic<bool> given_up{false};
    std::thread patient([&] {
        unstarted.wait_buffer_clean(4000);
        given_up = true;
    });
    writer.start();
    std::thread waiting([&] { writer.wait_buffer_clean(1'000'000); });
    std::this_thread::sleep_for(milliseconds(1700));
    writer.stop();
    waiting.join();
    for (int i = 0; i < 4; ++i) writer.wait_buffer_clean(1'000'000);
    EXPECT_FALSE(given_up);
    patient.join();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(5500));
}

TEST_F(Writer, SteersTheStorageChannel) {
    QUARN_RING ring(1 << 20);
    TestWriter writer(&ring);
    const auto exec = [&](QUARN_EXEC_ID id, uint32_t word = 0) {
        uint32_t payload[2] = {7, word};
        writer.exec(id, payload);
    };
    const auto folders = [] { return test::List(kLogFolder); };
    std::filesystem::create_directories("/data/vendor/radio");
    g_file_io.create_top_folder();
    writer.init();

    exec(EXEC_MD_LOG_START, 0);
    EXPECT_EQ(folders().size(), 0u);
    exec(EXEC_MD_LOG_START, 1);
    ASSERT_EQ(folders().size(), 1u);
    EXPECT_TRUE(folders()[0].ends_with("t"));

    writer.start();
    Put(ring, test::StreamBytes(5000));
    exec(EXEC_FLUSH_RING);
    EXPECT_EQ(log.Count("file_io: flush compress_buf data to log file"), 1u);
    exec(EXEC_MD_EXCEPTION);
    ASSERT_EQ(folders().size(), 1u);
    EXPECT_TRUE(folders()[0].ends_with("t_EE"));

    Put(ring, test::StreamBytes(5000));
    exec(EXEC_MD_LOG_FLUSH_CLOSE);
    EXPECT_EQ(log.Count("file_io: flush compress_buf data to log file"), 2u);
    EXPECT_EQ(log.Count("file_io: close log_file=..."), 1u);
    EXPECT_TRUE(g_file_io.check_io_open());
    for (const QUARN_EXEC_ID id : {EXEC_MD_LOG_STOP, EXEC_MD_LOG_CLOSE, EXEC_MD_LOG_END}) {
        const size_t before = folders().size();
        exec(EXEC_MD_LOG_REOPEN);
        EXPECT_TRUE(g_file_io.check_io_open());
        exec(id);
        EXPECT_FALSE(g_file_io.check_io_open());
        EXPECT_EQ(folders().size(), id == EXEC_MD_LOG_STOP ? before : before + 1);
    }

    // An exception is never without a capture. A new start ends the mark of the files.
    exec(EXEC_MD_EXCEPTION);
    EXPECT_TRUE(g_file_io.check_io_open());
    EXPECT_TRUE(folders().back().ends_with("t_EE")) << folders().back();
    exec(EXEC_MD_LOG_REOPEN);
    Put(ring, test::StreamBytes(5000));
    exec(EXEC_MD_LOG_STOP);
    EXPECT_FALSE(test::List(kLogFolder + ("/" + folders().back())).at(0).ends_with("_EE.muxz.tmp"));

    // Bytes for a closed channel open it again. A stop closes it.
    Put(ring, test::StreamBytes(5000));
    EXPECT_TRUE(WaitForEmpty(ring));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "writer_handler: file_io is closed, try reopen"));
    EXPECT_TRUE(g_file_io.check_io_open());
    writer.stop();
    EXPECT_FALSE(g_file_io.check_io_open());
    EXPECT_EQ(test::DecodeTree(kLogFolder), test::StreamBytes(5000) + test::StreamBytes(5000) +
                                                test::StreamBytes(5000) + test::StreamBytes(5000));
}

}  // namespace
