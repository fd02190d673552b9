// The host tool port, with a simulated host behind a USB channel and behind a socket channel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <thread>

#include "core/quarn.h"
#include "datapath/quarn_socket_io.h"
#include "datapath/quarn_usb_io.h"
#include "modem/quarn_tool.h"
#include "sim/host_tool.h"
#include "sim/modem.h"
#include "support.h"
#include "thread_limit.h"

namespace {

std::atomic<bool> short_waits{false};

}  // namespace

// Replaces the function of the C library. A wait for a host then checks its flag every 20 ms
// instead of every 5 s.
extern "C" int poll(pollfd* fds, nfds_t count, int timeout_ms) {
    if (short_waits && timeout_ms == 5000) timeout_ms = 20;
    const timespec limit = {timeout_ms / 1000, timeout_ms % 1000 * 1'000'000L};
    return ppoll(fds, count, timeout_ms < 0 ? nullptr : &limit, nullptr);
}

namespace {

constexpr char kNotForFiles[] = "tool_handler: not support when io is file";
constexpr char kRecovery[] = "tool_handler: start handle host port error";

struct ToolAccess : QUARN_TOOL_HANDLE {
    static void SetChannel(QUARN_IO* io) { g_tool.*(&ToolAccess::tool_io) = io; }
};

void Close(std::atomic<int32_t>& fd) {
    if (const int open = fd.exchange(-1); open >= 0) close(open);
}

sockaddr_in Loopback(in_port_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = port;
    return address;
}

// Each of the two channels is a port whose host is a socket of the test.
struct UsbChannel : QUARN_USB_IO {
    int io_open() override {
        std::lock_guard lock(cable);
        int ends[2];
        if (broken || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return -1;
        fd = ends[0];
        host = ends[1];
        return 0;
    }
    int io_write(const void* buf, int len) override { return common_write(buf, len); }
    int io_close() override {
        Close(fd);
        Close(host);
        return 0;
    }
    std::mutex cable;  // opening blocks as long as the test holds this mutex
    std::atomic<bool> broken{false};
    std::atomic<int32_t> host{-1};
};

struct SocketChannel : QUARN_SOCKET_IO {
    using QUARN_SOCKET_IO::server_socket;
    int io_open() override {
        sockaddr_in address = Loopback(0);
        socklen_t length = sizeof(address);
        const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (bind(made, reinterpret_cast<sockaddr*>(&address), length) != 0) return -1;
        if (listen(made, 64) != 0) return -1;
        getsockname(made, reinterpret_cast<sockaddr*>(&address), &length);
        port = address.sin_port;
        server_socket = made;
        is_closed = false;
        return 0;
    }
    int io_write(const void* buf, int len) override { return common_write(buf, len); }
    int io_close() override {
        is_closed = true;
        Close(server_socket);
        Close(fd);
        return 0;
    }
    std::atomic<in_port_t> port{0};
};

class ToolPort : public testing::TestWithParam<QUARN_IO_TYPE> {
  protected:
    ToolPort() {
        signal(SIGPIPE, SIG_IGN);
        short_waits = true;
        host.Reset();
        modem.Init();
        g_tool.init();
        ToolAccess::SetChannel(is_usb ? static_cast<QUARN_IO*>(&usb) : &socket);
    }
    ~ToolPort() override {
        g_tool.stop();
        Close(client);
        EXPECT_FALSE(host.status().listening);
        EXPECT_EQ(usb.fd, -1);
        EXPECT_EQ(socket.fd, -1);
    }

    void Connect() {
        if (is_usb) return;
        Close(client);
        client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = Loopback(socket.port);
        connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    // Connects a host, if the channel waits for one.
    void ConnectAndBeTaken() {
        if (is_usb) return;
        constexpr char kTaken[] = "socket_io: wait socket connect success";
        const size_t before = log.Count(kTaken);
        Connect();
        EXPECT_TRUE(log.WaitFor(kTaken, before + 1));
    }
    // Returns true if bytes that the host sends reach the modem.
    bool Arrives() {
        if (!test::WaitUntil([&] { return host.status().listening; })) return false;
        const std::string text = "message " + std::to_string(++sent) + ";";
        const int line = is_usb ? usb.host : client;
        if (write(line, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            return false;
        return test::WaitUntil([&] { return modem.written().find(text) != std::string::npos; });
    }
    // Breaks the port. Returns when the recovery has begun; on a socket channel it then waits for a
    // host.
    void BreakPort() {
        const size_t before = log.Count(kRecovery);
        host.Deliver(TCL_MSG_HOST_PORT_ERROR);
        host.WaitForMessages();
        EXPECT_TRUE(log.WaitFor(kRecovery, before + 1));
        EXPECT_TRUE(is_usb || test::WaitUntil([&] { return !socket.is_connected(); }));
    }
    void DoAnything(std::mt19937_64& random) {
        const uint64_t dice = random() % 6;
        if (dice < 2) {
            g_tool.start();
        } else if (dice == 2) {
            g_tool.stop();
        } else if (dice == 3) {
            std::lock_guard lock(g_quarn.exec_mutex);
            quarn_runHandleExec(HANDLE_TOOL, EXEC_START, nullptr);
        } else {
            host.Deliver(TCL_MSG_HOST_PORT_ERROR);
        }
    }

    const bool is_usb = GetParam() == IO_TYPE_USB;
    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    sim::HostTool& host = sim::HostTool::Instance();
    UsbChannel usb;
    SocketChannel socket;
    std::atomic<int32_t> client{-1};
    int sent = 0;
};

INSTANTIATE_TEST_SUITE_P(Channels, ToolPort, testing::Values(IO_TYPE_USB, IO_TYPE_SOCKET),
                         [](const auto& each) {
                             return each.param == IO_TYPE_USB ? "Usb" : "Socket";
                         });

TEST_P(ToolPort, EveryPortErrorIsRecovered) {
    EXPECT_EQ(g_tool.start(), 0);
    EXPECT_EQ(host.status().listening, is_usb);
    ConnectAndBeTaken();
    EXPECT_TRUE(Arrives());
    BreakPort();
    ConnectAndBeTaken();
    EXPECT_TRUE(Arrives());

    // An error during a recovery blocks no thread. It is recovered afterwards.
    std::unique_lock unplugged(usb.cable);
    BreakPort();
    host.Deliver(TCL_MSG_HOST_PORT_ERROR);
    host.WaitForMessages();
    EXPECT_EQ(log.Count(kRecovery), 2u);
    EXPECT_FALSE(host.status().listening);
    unplugged.unlock();
    ConnectAndBeTaken();
    EXPECT_TRUE(log.WaitFor(kRecovery, 3));
    EXPECT_TRUE(is_usb || test::WaitUntil([&] { return !socket.is_connected(); }));
    ConnectAndBeTaken();
    EXPECT_TRUE(test::WaitUntil([&] { return host.status().listen_calls == 4; }));
    EXPECT_TRUE(Arrives());

    // Stop during a recovery. The recovery must not listen again afterwards.
    unplugged.lock();
    const uint64_t stops = host.status().stop_calls;
    BreakPort();
    QUARN_SAVE_MODE mode = SAVE_MODE_STORAGE;
    std::thread stopper([&] { g_tool.exec(EXEC_SET_SAVE_MODE, &mode); });
    EXPECT_TRUE(test::WaitUntil([&] { return host.status().stop_calls == stops + 2; }));
    unplugged.unlock();
    stopper.join();
    EXPECT_EQ(g_tool.exec(EXEC_START, nullptr), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, kNotForFiles));
    EXPECT_FALSE(host.status().listening);
}

TEST_P(ToolPort, AfterAFailureTheNextStartBeginsAfresh) {
    {
        const test::NoNewThreads limit;
        EXPECT_EQ(g_tool.start(), 1);
        EXPECT_EQ(usb.fd, -1);
        EXPECT_EQ(socket.server_socket, -1);
    }
    EXPECT_EQ(g_tool.start(), 0);
    ConnectAndBeTaken();
    EXPECT_TRUE(Arrives());
    usb.broken = true;
    Close(socket.server_socket);
    BreakPort();
    EXPECT_TRUE(log.WaitFor(is_usb ? "tool_handler: open usb port fail"
                                   : "tool_handler: wait socket connect fail"));
    EXPECT_TRUE(log.WaitFor("tool_handler: host_port_error_handle_thread terminate"));
    host.Deliver(TCL_MSG_HOST_PORT_ERROR);
    host.WaitForMessages();
    EXPECT_EQ(g_tool.start(), is_usb ? 1 : 0);
    EXPECT_EQ(log.Has(ANDROID_LOG_ERROR, "tool_handler: open io port fail"), is_usb);
    usb.broken = false;
    EXPECT_EQ(g_tool.start(), 0);
    ConnectAndBeTaken();
    EXPECT_TRUE(Arrives());
    EXPECT_EQ(log.Count(kRecovery), 1u);
}

TEST_P(ToolPort, ErrorsHostsStartsAndStopsInAnyOrder) {
    host.Deliver(TCL_MSG_RESERVED_2);  // the library's own thread is there from now on
    host.WaitForMessages();
    const auto left = [] {
        return std::pair(test::List("/proc/self/fd").size(), test::List("/proc/self/task").size());
    };
    const auto before = left();
    for (uint64_t seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        const auto chaos = [&](uint64_t own_seed) {
            std::mt19937_64 random(own_seed);
            for (int i = 0; i < 12; ++i) DoAnything(random);
        };
        std::thread one(chaos, 2 * seed), other(chaos, 2 * seed + 1);
        std::mt19937_64 random(seed);
        for (int i = 0; i < 12; ++i) {
            Connect();
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 8));
        }
        one.join();
        other.join();
        host.WaitForMessages();
        if (seed % 2 == 0) Close(client);  // nobody there when it stops
        g_tool.stop();
        Close(client);
        EXPECT_FALSE(host.status().listening);
        ASSERT_TRUE(test::WaitUntil([&] { return left() == before; }));

        ASSERT_EQ(g_tool.start(), 0);
        ConnectAndBeTaken();
        ASSERT_TRUE(Arrives());
        const uint64_t listened = host.status().listen_calls;
        BreakPort();
        ConnectAndBeTaken();
        ASSERT_TRUE(test::WaitUntil([&] { return host.status().listen_calls > listened; }));
        ASSERT_TRUE(Arrives());
    }
    g_tool.stop();
    EXPECT_EQ(host.status().misused, 0u);
}

TEST(Tool, MessagesBecomeRequestsUntilTheEnd) {
    test::LogCapture log;
    sim::HostTool& host = sim::HostTool::Instance();
    g_tool.init();
    for (const bool ended : {false, true}) {
        if (ended) quarn_endCallbacks();
        for (const auto& [message, requests] :
             {std::pair{0, "w9 t9 "}, {1, "t10 w10 "}, {2, ""}, {3, "t13 "}, {7, ""}}) {
            log.Clear();
            host.Deliver(static_cast<TCL_MSG>(message));
            host.WaitForMessages();
            std::string begun;
            for (const auto& [priority, text] : log.messages()) {
                const size_t id = text.find("exec_id=");
                const bool begins = id != std::string::npos && !text.ends_with(" done");
                if (begins) begun += text[0] + text.substr(id + 8) + ' ';
            }
            EXPECT_EQ(begun, ended ? "" : requests);
            EXPECT_EQ(log.Count("tool_handler: handle tcl_msg=" + std::to_string(message)), 1u);
            EXPECT_EQ(log.Count("tool_handler: receive unknown tcl_msg = 7 at tcl callback"),
                      message == 7 && !ended ? 1u : 0u);
        }
    }
}

}  // namespace
