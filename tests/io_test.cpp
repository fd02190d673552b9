#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "core/quarn.h"
#include "datapath/quarn_io.h"
#include "datapath/quarn_socket_io.h"
#include "support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

template <class Base>
struct Channel : Base {
    using Base::Base;
    int io_open() override { return 0; }
    int io_write(const void* buf, int len) override { return this->common_write(buf, len); }
    int io_close() override { return 0; }
};

// --- writing ---

class CommonWrite : public testing::Test {
  protected:
    static constexpr int kPipeSize = 4096;
    static constexpr int kLen = 2 * kPipeSize;

    CommonWrite() {
        signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        fcntl(ends[1], F_SETPIPE_SZ, kPipeSize);
        channel.fd = ends[1];
        channel.is_closed = false;
    }
    ~CommonWrite() override {
        close(ends[0]);
        close(ends[1]);
    }
    std::string Failure(int retry, int expected, int total) const {
        return "io: common_write fail, fd=" + std::to_string(ends[1]) +
               ", retry=" + std::to_string(retry) +
               ", expect_write_len=" + std::to_string(expected) +
               ", tot_write_len=" + std::to_string(total);
    }
    int Waiting() const {
        int count = 0;
        ioctl(ends[0], FIONREAD, &count);
        return count;
    }

    test::LogCapture log;
    int ends[2];
    Channel<QUARN_IO> channel{IO_TYPE_FILE};
    const std::string bytes = test::StreamBytes(kLen);
};

TEST_F(CommonWrite, ClosedChannelTakesNothing) {
    channel.is_closed = true;
    EXPECT_EQ(channel.common_write(bytes.data(), 0), 0);
    EXPECT_EQ(log.messages().size(), 0u);
    EXPECT_EQ(channel.common_write(bytes.data(), 10), -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, Failure(0, 10, 0)));
    EXPECT_EQ(Waiting(), 0);
}

TEST_F(CommonWrite, GoesOnBehindWhatWentOut) {
    std::string got;
    std::thread host([&] {
        char piece[1024];
        test::WaitUntil([&] {
            for (ssize_t n; (n = read(ends[0], piece, sizeof(piece))) > 0;) {
                got.append(piece, static_cast<size_t>(n));
            }
            return got.size() == bytes.size();
        });
    });
    EXPECT_EQ(channel.common_write(bytes.data(), kLen), kLen);
    host.join();
    EXPECT_EQ(got, bytes);
    EXPECT_EQ(log.messages().size(), 0u);
}

TEST_F(CommonWrite, GivesUpAfterFiveAttempts) {
    const auto start = steady_clock::now();
    EXPECT_EQ(channel.common_write(bytes.data(), kLen), -1);
    EXPECT_GE(steady_clock::now() - start, milliseconds(250));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, Failure(5, kLen, kPipeSize)));
    EXPECT_EQ(Waiting(), kPipeSize);
}

TEST_F(CommonWrite, GivesUpWhenTheChannelIsClosed) {
    std::thread closer([&] {
        test::WaitUntil([&] { return Waiting() == kPipeSize; });
        channel.is_closed = true;
    });
    EXPECT_EQ(channel.common_write(bytes.data(), kLen), -1);
    closer.join();
    EXPECT_EQ(log.Count(Failure(5, kLen, kPipeSize)), 0u);
    EXPECT_EQ(log.Count("io: common_write fail, ..."), 1u);
}

TEST_F(CommonWrite, OtherErrorsAreFinal) {
    close(ends[0]);
    EXPECT_EQ(channel.common_write(bytes.data(), kLen), -1);
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "io: common_write fail, fd=" + std::to_string(ends[1]) +
                                               ", errno=Broken pipe"));
    ends[0] = -1;
}

TEST(SaveModeIo, EveryModeButExitHasTheStorageChannel) {
    for (const int mode : {0, 1, 2}) {
        EXPECT_EQ(quarn_getSaveModeIo(static_cast<QUARN_SAVE_MODE>(mode)), &g_file_io);
    }
    for (const int mode : {3, 4, 1000}) {
        EXPECT_EQ(quarn_getSaveModeIo(static_cast<QUARN_SAVE_MODE>(mode)), nullptr);
    }
}

// --- waiting for a host ---

struct SocketChannel : Channel<QUARN_SOCKET_IO> {
    using QUARN_SOCKET_IO::server_socket;
    SocketChannel() { is_closed = false; }
    ~SocketChannel() override { close(server_socket); }

    sockaddr_in Listen() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        server_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_EQ(::bind(server_socket, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(server_socket, 1), 0);
        getsockname(server_socket, reinterpret_cast<sockaddr*>(&address), &length);
        return address;
    }
};

TEST(SocketIo, ConnectsAndDisconnects) {
    test::LogCapture log;
    SocketChannel channel;
    const sockaddr_in address = channel.Listen();
    std::thread waiter([&] { channel.wait_connect(); });
    const int host = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(host, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    waiter.join();
    ASSERT_TRUE(channel.is_connected());
    const std::string fd = std::to_string(channel.fd);
    EXPECT_EQ(fcntl(channel.fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_INFO, "socket_io: connect to ip=127.0.0.1 success, accept_fd = " + fd));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "socket_io: wait socket connect success"));
    EXPECT_EQ(channel.io_write("hello", 5), 5);
    char got[8];
    EXPECT_EQ(read(host, got, sizeof(got)), 5);

    channel.wait_connect();
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "socket_io: accept_fd=" + fd + " already connect"));
    EXPECT_EQ(channel.connect(), -1);  // no wait goes on
    channel.disconnect();
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "socket_io: disconnect accept_fd=" + fd + ", rc=0"));
    EXPECT_EQ(read(host, got, sizeof(got)), 0);
    channel.disconnect();
    channel.disconnect();
    EXPECT_EQ(log.Count("socket_io: accept_fd=-1 already disconnect"), 2u);
    EXPECT_FALSE(channel.is_connected());
    close(host);
}

// The waits last as long as one look at the socket, so they run side by side.
TEST(SocketIo, GivesUpWaiting) {
    test::LogCapture log;
    SocketChannel not_open, closed, stopped, closed_later, bad_socket, not_listening;
    not_open.wait_connect();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "socket_io: server_socket is not open"));
    log.Clear();
    closed.is_closed = true;
    closed.wait_connect();
    EXPECT_EQ(log.messages().size(), 0u);

    stopped.Listen();
    closed_later.Listen();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    EXPECT_EQ(write(pair[1], "x", 1), 1);
    not_listening.server_socket = pair[0];
    bad_socket.server_socket = dup(pair[0]);
    close(bad_socket.server_socket);
    std::atomic<int> ended{0};
    std::vector<std::thread> waiters;
    for (SocketChannel* channel : {&stopped, &closed_later, &bad_socket, &not_listening}) {
        waiters.emplace_back([channel, &ended] {
            channel->wait_connect();
            ++ended;
        });
    }
    const std::string fd = std::to_string(pair[0]);
    EXPECT_TRUE(
        log.WaitFor("socket_io: server_socket=" + fd + " accept fail, errno=Invalid argument"));
    EXPECT_TRUE(log.WaitFor("socket_io: wait socket connect socket fail"));
    EXPECT_TRUE(log.WaitFor("socket_io: server_socket=" + std::to_string(bad_socket.server_socket) +
                            " select failed, errno = Bad file descriptor"));
    closed_later.is_closed = true;
    not_listening.is_closed = true;
    // A stop counts only for a wait that has begun.
    EXPECT_TRUE(test::WaitUntil([&] {
        stopped.stop_wait_connect();
        bad_socket.stop_wait_connect();
        return ended == 4;
    }));
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_FALSE(stopped.is_connected());
    close(pair[1]);
}

}  // namespace
