#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "datapath/quarn_io.h"
#include "datapath/quarn_socket_io.h"
#include "support.h"
#include "syscall_faults.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Call;
using test::FailCalls;
using test::Fault;

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
    static constexpr const char* kPath = "/data/out";
    static constexpr int kLen = 8192;

    CommonWrite() {
        channel.fd = open(kPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        channel.is_closed = false;
    }
    ~CommonWrite() override { close(channel.fd); }
    std::string Failure(const std::string& why) const {
        return "io: common_write fail, fd=" + std::to_string(channel.fd) + ", " + why;
    }

    test::LogCapture log;
    Channel<QUARN_IO> channel{IO_TYPE_FILE};
    const std::string bytes = test::StreamBytes(kLen);
    const Fault first_piece{.call = Call::kWrite, .where = kPath, .count = 1, .limit = 4096};
};

TEST_F(CommonWrite, AClosedChannelAndErrorsAreFinal) {
    channel.is_closed = true;
    EXPECT_EQ(channel.common_write(bytes.data(), 0), 0);
    EXPECT_EQ(log.messages().size(), 0u);
    EXPECT_EQ(channel.common_write(bytes.data(), 10), -1);
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_ERROR, Failure("retry=0, expect_write_len=10, tot_write_len=0")));
    channel.is_closed = false;
    const FailCalls broken({Call::kWrite, EPIPE, kPath, 1});
    EXPECT_EQ(channel.common_write(bytes.data(), kLen), -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, Failure("errno=Broken pipe")));
    EXPECT_EQ(log.messages().size(), 2u);
    EXPECT_EQ(test::ReadFile(kPath), "");
}

TEST_F(CommonWrite, GoesOnBehindWhatWentOut) {
    const FailCalls full({Call::kWrite, EAGAIN, kPath, 3});
    const FailCalls piece(first_piece);
    EXPECT_EQ(channel.common_write(bytes.data(), kLen), kLen);
    EXPECT_EQ(full.failed(), 3);
    EXPECT_EQ(test::ReadFile(kPath), bytes);
    EXPECT_EQ(log.messages().size(), 0u);
}

TEST_F(CommonWrite, GivesUpAfterFiveAttemptsOrWhenTheChannelIsClosed) {
    const FailCalls full({Call::kWrite, EAGAIN, kPath});
    const std::string failure = Failure("retry=5, expect_write_len=8192, tot_write_len=4096");
    {
        const FailCalls piece(first_piece);
        const auto start = steady_clock::now();
        EXPECT_EQ(channel.common_write(bytes.data(), kLen), -1);
        EXPECT_GE(steady_clock::now() - start, milliseconds(250));
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, failure));
        EXPECT_EQ(test::ReadFile(kPath), bytes.substr(0, 4096));
    }
    const FailCalls piece(first_piece);
    std::thread closer([&, before = full.failed()] {
        test::WaitUntil([&] { return full.failed() > before; });
        channel.is_closed = true;
    });
    EXPECT_EQ(channel.common_write(bytes.data(), kLen), -1);
    closer.join();
    EXPECT_EQ(log.Count(failure), 1u);
    EXPECT_EQ(log.Count("io: common_write fail, ..."), 2u);
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
    std::thread waiter([&] {
        const FailCalls gone({Call::kAccept, EAGAIN, "", 1});  // the host left before
        channel.wait_connect();
    });
    const int host = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(host, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    waiter.join();
    ASSERT_TRUE(channel.is_connected());
    EXPECT_EQ(log.Count("socket_io: wait socket connect socket fail"), 0u);
    const std::string fd = std::to_string(channel.fd);
    EXPECT_EQ(fcntl(channel.fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_INFO, "socket_io: connect to ip=127.0.0.1 success, accept_fd = " + fd));
    EXPECT_EQ(channel.io_write("hello", 5), 5);
    char got[8];
    EXPECT_EQ(read(host, got, sizeof(got)), 5);

    channel.wait_connect();
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "socket_io: accept_fd=" + fd + " already connect"));
    channel.disconnect();
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "socket_io: disconnect accept_fd=" + fd + ", rc=0"));
    EXPECT_EQ(read(host, got, sizeof(got)), 0);
    channel.disconnect();
    EXPECT_EQ(log.Count("socket_io: accept_fd=-1 already disconnect"), 1u);
    EXPECT_FALSE(channel.is_connected());
    close(host);
}

// Each wait lasts for one poll of the socket, so the waits run side by side.
TEST(SocketIo, GivesUpWaiting) {
    test::LogCapture log;
    SocketChannel not_open, stopped, closed_later, bad;
    bad.server_socket = 1 << 20;  // no descriptor
    not_open.wait_connect();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "socket_io: server_socket is not open"));
    stopped.Listen();
    closed_later.Listen();
    std::atomic<int> ended{0};
    const auto begin = steady_clock::now();
    std::vector<std::thread> waiters;
    for (SocketChannel* channel : {&stopped, &closed_later, &bad}) {
        waiters.emplace_back([channel, &ended] {
            channel->wait_connect();
            ++ended;
        });
    }
    EXPECT_TRUE(log.WaitFor("socket_io: server_socket=1048576 select failed, ...", 3));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(2000));  // it does not spin
    bad.is_closed = true;
    closed_later.is_closed = true;
    // A stop has no effect before the wait has begun.
    EXPECT_TRUE(test::WaitUntil([&] {
        stopped.stop_wait_connect();
        return ended == 3;
    }));
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_FALSE(stopped.is_connected());
}

}  // namespace
