// The command socket, the command table and the state notifications, over real sockets.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "control/client_pace.h"
#include "control/protocol.h"
#include "control/quarn_command.h"
#include "control/quarn_ctrl_connect.h"
#include "control/quarn_state_notify.h"
#include "core/quarn.h"
#include "core/system_utility.h"
#include "modem/quarn_mipc_cmd.h"
#include "sim/modem.h"
#include "support.h"
#include "syscall_faults.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

const std::string kLogs = "/data/vendor/radio/quarn/logs/";
const std::string kConfig = "/data/vendor/radio/quarn/config/quarn.cfg";

using test::Client;
using test::Subscriber;

size_t OpenDescriptors() { return test::List("/proc/self/fd").size(); }

class Control : public testing::Test {
  protected:
    Control() {
        struct sigaction action = {};
        action.sa_handler = quarn_sighandler;
        sigaction(SIGUSR1, &action, nullptr);
        action.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &action, nullptr);
        fs::create_directories("/data/vendor/radio");
        g_file_io.create_top_folder();
        sim::Modem::Instance().Init();
        EXPECT_EQ(quarn_mipcInit("/dev/wwanD0MIPC0"), 0);
        g_writer.init();
        g_log_filter_manager.init();
    }
    ~Control() override {
        handle.stop();
        quarn_mipcDeinit();
        sim::Modem::Instance().Deinit();
    }
    static sim::Modem& modem() { return sim::Modem::Instance(); }

    // Waits until the server has accepted `count` subscribers in total.
    bool AwaitSubscribers(size_t count) const {
        return log.WaitFor("quarn_stateNotify: accept fd=...", count);
    }

    test::LogCapture log;
    QUARN_COMMAND_HANDLE handle;
};

}  // namespace

// --- the command table ---

TEST_F(Control, AnswersEveryRow) {
    ASSERT_EQ(handle.start(), 0);
    test::WriteFile("/data/filter", "filter bytes");
    {
        // The same as for a notification of the log mode, but without the data path.
        std::lock_guard lock(g_quarn.exec_mutex);
        quarn_runHandleExec(HANDLE_LOG_FILTER_MANAGER, EXEC_MD_LOG_START, nullptr);
    }
    struct Row {
        std::string request, reply;
        std::string saved = "";  // what the configuration file contains afterwards
    };
    const Row rows[] = {
        {"log_mode", "ok,0"},
        {"log_mode 1", "ok", "log_mode 1\n"},
        {"log_level 7", "error"},
        {"log_filter /data/filter", "ok", "log_filter /data/filter\n"},
        {"log_filter", "error"},
        {"log_filter /data/none", "error", "log_filter /data/filter\n"},
        {"log_level=5", "ok", "log_level 5\n"},
        {"log_mode 3", "error", "log_mode 1\n"},
        {"log_modeX0", "ok", "log_mode 0\n"},
        {"trigger_flush", "ok"},
        {"flush_status", "ok,0"},
        {"flush_interval 250", "ok", "flush_interval 250\n"},
        {"flush_interval", "ok,250"},
        {"transfer_type,1", "ok", "transfer_type 1\n"},
        {"transfer_type 2", "error"},
        {"transfer_type,1 file_size 5", "ok", "transfer_type 1\n"},  // this value is not saved
        {"file_size 10MB", "ok", "file_size 10MB\n"},
        {"file_size 4096", "error", "file_size 10MB\n"},
        {"file_size", "ok,10"},
        {"file_size ", "error"},  // an empty argument is no query
        {"recycle_size 4194303", "ok", "recycle_size 4194303\n"},
        {"recycle_size 4194304", "error"},
        {"recycle_ee", "ok,1"},
        {"recycle_ee 0", "ok", "recycle_ee 0\n"},
        {"recycle_keep_ee_size 4194303", "ok", "recycle_keep_ee_size 4194303\n"},
        {"recycle_keep_ee_size -1", "error"},
        {"flush_ring_buf", "error"},  // no capture is being written
        {"log_folder", "ok," + kLogs},
        {"log_folder " + kLogs + "run1", "ok", "log_folder " + kLogs + "run1\n"},
        {"log_folder", "ok," + kLogs + "run1"},
        {"copy_log_file", "error"},
        {"copy_log_file /data 1 0", "ok,0"},
        {"flush_log_buffer 1", "error"},
        {"flush_log_buffer", "ok"},
        {"", "error"},
        {" log_mode", "error"},
        {"exit", "error"},
    };
    const Client client;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        EXPECT_EQ(client.Ask(row.request), row.reply);
        EXPECT_NE(("\n" + test::ReadFile(kConfig)).find("\n" + row.saved), std::string::npos);
    }
    EXPECT_EQ(test::ReadFile(kConfig).find("log_filter"), std::string::npos);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                        "command_handler: only accept transfer_type=1 in the "
                        "user build"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "command_handler: already in transfer_type=1"));
    EXPECT_EQ(log.Count("command_handler: Save configuration failed\n"), 1u);
    EXPECT_EQ(log.Count("Flush log buffers done"), 1u);  // a refused request flushes nothing

    g_file_io.io_open();
    EXPECT_EQ(client.Ask("flush_ring_buf"), "ok");
    g_quarn.transfer_type = SAVE_MODE_SOCKET;
    EXPECT_EQ(client.Ask("flush_ring_buf"), "error");
    g_file_io.io_close();
}

TEST_F(Control, AnswersErrorWhenTheModemFails) {
    ASSERT_EQ(handle.start(), 0);
    const Client client;
    using sim::IpcFault;
    const struct {
        const char *request, *message;
        IpcFault fault = IpcFault::kResult;
        int value = 1;
    } rows[] = {
        {"log_mode 2", "HandleLogMode: Set log mode = 2 (wrapping) fail, mipc_rc = 1\n"},
        {"log_mode", "HandleLogMode: Get unexpected log mode = 3\n", IpcFault::kAnswer, 3},
        {"trigger_flush", "handleTriggerFlush: Trigger flush fail, trigger_result=4\n",
         IpcFault::kAnswer, 4},
        {"flush_status", "handleFlushStatus: Get flush status fail, mipc_rc = 1\n"},
        {"flush_interval 9", "handleFlushInterval: Set flush interval = 9(ms) fail"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        modem().FailIpc(0, row.fault, row.value, 1);
        EXPECT_EQ(client.Ask(row.request), "error");
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, row.message));
    }
    EXPECT_FALSE(fs::exists(kConfig));  // nothing was saved
    modem().FailIpc(0, IpcFault::kAnswer, -1, 1);
    EXPECT_EQ(client.Ask("log_level"), "ok,-1");
}

TEST_F(Control, SwitchesToStorageAndTellsIt) {
    ASSERT_EQ(handle.start(), 0);
    const Subscriber subscriber;
    ASSERT_TRUE(AwaitSubscribers(1));
    g_quarn.transfer_type = SAVE_MODE_SOCKET;
    const Client client;
    EXPECT_EQ(client.Ask("transfer_type 1"), "ok");
    EXPECT_EQ(subscriber.Receive(19), "cb_transfer_type,1\0"s);
    EXPECT_EQ(client.Ask("transfer_type"), "ok,1");
    // The reader, the writer and the tool port get the new transfer type and then start.
    std::string done;
    for (const auto& [priority, text] : log.messages()) {
        const size_t id = text.find("exec_id=");
        const bool ends = id != std::string::npos && text.ends_with(" done");
        if (ends) done += text[0] + text.substr(id + 8, 2) + ' ';
    }
    EXPECT_EQ(done, "r11 w11 t11 w12 r12 t12 ");
    g_reader.stop();
    g_writer.stop();
}

TEST_F(Control, ExitsOnRequestWithoutWaitingForOtherRequests) {
    ASSERT_EQ(handle.start(), 0);
    ASSERT_EQ(g_writer.start(), 0);
    const std::lock_guard busy(g_quarn.exec_mutex);
    const Client client;
    EXPECT_EQ(client.Ask("transfer_type 3"), "ok");
    EXPECT_TRUE(g_quarn.is_close);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "writer_handler: stop success"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, "command_handler: Do not save transfer_type 3\n"));
    EXPECT_EQ(client.Ask("transfer_type"),
              "<closed>");  // the exit is the last request that gets a reply
    EXPECT_EQ(g_quarn.transfer_type, SAVE_MODE_STORAGE);
    EXPECT_EQ(test::ReadFile(kConfig), "");
}

// --- framing of requests ---

TEST_F(Control, ReadsRequestsHoweverTheyArrive) {
    ASSERT_EQ(handle.start(), 0);
    // The server waits 1 s for the rest of a request. A reply that takes 5 s is too late.
    const Client client(quarn::protocol::kCommandSocket, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                        std::chrono::seconds(5));
    const auto padded = [](size_t length) { return "file_size 7" + std::string(length - 11, ' '); };
    const struct {
        std::string bytes;
        std::vector<std::string> replies;
    } rows[] = {
        {padded(126) + '\0', {"ok"}},
        {padded(quarn::protocol::kMaxRequest) + '\0', {"ok", "error"}},
        {"file_size\0recycle_ee\0"s, {"ok,7"}},  // only the first request of a packet counts
        {"file_size", {"ok,7"}},                 // a time limit ends a request without a zero byte
        {std::string(10000, 'x'), std::vector<std::string>(79, "error")},
        {"file_size\0"s, {"ok,7"}},
    };
    for (const auto& [bytes, replies] : rows) {
        SCOPED_TRACE(bytes);
        ASSERT_TRUE(client.Send(bytes));
        for (const std::string& reply : replies) EXPECT_EQ(client.Reply(), reply);
    }
    // Sends a request in ten pieces. The server reads each piece before the next one arrives.
    for (const char c : "recycle_ee"s) {
        log.Clear();
        ASSERT_TRUE(client.Send(std::string(1, c)));
        ASSERT_TRUE(log.WaitFor("ctrl_connect: The delimiter of read message is not found..."));
    }
    ASSERT_TRUE(client.Send("\0"s));
    EXPECT_EQ(client.Reply(), "ok,1");
    EXPECT_EQ(client.Ask("file_size"), "ok,7");  // the server sent no extra reply
    // A closed connection ends a request without a zero byte, too.
    {
        const Client hasty;
        ASSERT_TRUE(hasty.Send("file_size 9"));
    }
    EXPECT_TRUE(test::WaitUntil([] { return g_file_io.get_file_size() == 9; }));
}

// --- clients ---

TEST_F(Control, HoldsTenClientsAndReusesSlots) {
    const size_t before = OpenDescriptors();
    ASSERT_EQ(handle.start(), 0);
    {
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < 10; ++i) {
            clients.push_back(std::make_unique<Client>());
            EXPECT_EQ(clients.back()->Ask("recycle_ee"), "ok,1");
        }
        const Client eleventh;
        EXPECT_EQ(eleventh.Reply(), "<closed>");
        EXPECT_TRUE(log.WaitFor("ctrl_connect: array full, accept fd=..."));
        clients[3]->Close();
        ASSERT_TRUE(log.WaitFor("command_handler: receive cmd fail, rc=0..."));
        clients[3] = std::make_unique<Client>();
        for (const auto& client : clients) EXPECT_EQ(client->Ask("recycle_ee"), "ok,1");
    }
    // A client that closes its connection at once does not keep a slot.
    for (int i = 0; i < 50; ++i) {
        const Client client;
        ASSERT_TRUE(client.Send("recycle_ee\0"s));
    }
    ASSERT_TRUE(log.WaitFor("ctrl_connect: begin to accept...", 62));
    const Client client;
    EXPECT_EQ(handle.start(), 0);  // it is already started
    handle.stop();
    handle.stop();
    EXPECT_EQ(OpenDescriptors(), before + 1);
}

TEST_F(Control, AClientThatDoesNotReadIsLetGo) {
    ASSERT_EQ(handle.start(), 0);
    const Client deaf, other;
    std::thread flood([&] {
        while (deaf.Send(std::string(quarn::protocol::kMaxRequest * 16, 'x'))) continue;
    });
    EXPECT_TRUE(log.WaitFor("command_handler: send cmd ack=error fail, rc=-1..."));
    EXPECT_EQ(other.Ask("recycle_ee"), "ok,1");
    flood.join();
}

// Clients connect to both sockets, and one client sends single bytes, all without pause. The daemon
// accepts the first 100 connections and pieces of requests at once, and then one every 2 ms.
TEST_F(Control, ClientsWithoutPauseWaitForTheirTurns) {
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(handle.start(), 0);
    const Client slow;
    std::atomic<bool> ends{false};
    std::vector<std::thread> storms;
    storms.emplace_back([&] {
        while (!ends && slow.Send("x")) continue;
    });
    for (const char* name : {quarn::protocol::kCommandSocket, quarn::protocol::kNotifySocket}) {
        storms.emplace_back([&ends, name] {
            while (!ends) {
                const Client storming(name);
            }
        });
    }
    const auto bytes = [&] { return log.Count("ctrl_connect: The delimiter of read ..."); };
    const auto clients = [&] { return log.Count("ctrl_connect: begin to accept ..."); };
    const auto subscribers = [&] { return log.Count("quarn_stateNotify: begin to accept ..."); };
    EXPECT_TRUE(test::WaitUntil([&] { return bytes() + clients() + subscribers() >= 600; }));
    const size_t turns = bytes() + clients() + subscribers();
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(elapsed, (turns - 101) * std::chrono::milliseconds(2));
    EXPECT_GT(std::min({bytes(), clients(), subscribers()}), 20u);
    ends = true;
    handle.stop();
    for (std::thread& storm : storms) storm.join();
}

TEST(ClientPace, TheFirstHundredTurnsAreFree) {
    rusage before, after;
    getrusage(RUSAGE_THREAD, &before);
    for (int i = 0; i < 100; ++i) quarn::zorvex::AwaitClientTurn();
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 50);  // how often the thread slept
}

TEST_F(Control, StopsWhateverClientsDo) {
    for (int round = 0; round < 20; ++round) {
        log.Clear();
        ASSERT_EQ(handle.start(), 0);
        const Client half, silent;
        if (round % 2 != 0) {
            ASSERT_TRUE(half.Send("file_size 3"));
            ASSERT_TRUE(log.WaitFor("ctrl_connect: The delimiter of read message is not found..."));
        }
        handle.stop();
        EXPECT_EQ(half.Reply(), "<closed>");
    }
    EXPECT_EQ(g_file_io.get_file_size(), 50);  // an incomplete request is not executed
}

// --- state notifications ---

TEST_F(Control, RefusesDescriptorsTooLargeForSelect) {
    ASSERT_EQ(handle.start(), 0);
    const rlimit limit = {.rlim_cur = 4096, .rlim_max = 4096};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) GTEST_SKIP() << "the limit of descriptors is fixed";
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < 1024) fillers.push_back(dup(0));
    const Client client;
    EXPECT_EQ(client.Reply(), "<closed>");
    const Subscriber subscriber;
    EXPECT_EQ(subscriber.Receive(1), "");
    EXPECT_TRUE(log.WaitFor("fail, too large for select...", 2));
    for (const int fd : fillers) close(fd);
    const Client later;
    EXPECT_EQ(later.Ask("recycle_ee"), "ok,1");
}

TEST_F(Control, TellsEverySubscriber) {
    EXPECT_EQ(quarn_notifyLogModeUpdate(1), 0);
    EXPECT_EQ(log.Count("quarn_stateNotify: no callback client connected!"), 1u);
    EXPECT_EQ(quarn_stateNotify("x", 1, 1000), -1);
    ASSERT_EQ(handle.start(), 0);
    std::vector<std::unique_ptr<Subscriber>> subscribers;
    for (size_t i = 0; i < 10; ++i) subscribers.push_back(std::make_unique<Subscriber>());
    ASSERT_TRUE(AwaitSubscribers(10));
    const Subscriber refused;
    EXPECT_EQ(refused.Receive(1), "");
    EXPECT_TRUE(log.WaitFor("quarn_stateNotify: array full, accept fd=..."));
    subscribers[4]->Close();
    subscribers[4] = std::make_unique<Subscriber>();  // takes the slot of the closed connection
    ASSERT_TRUE(log.WaitFor("quarn_stateNotify: accept fd=...", 11));
    EXPECT_EQ(quarn_notifyTransferTypeUpdate(-5), 0);
    for (const auto& subscriber : subscribers) {
        EXPECT_EQ(subscriber->Receive(20), "cb_transfer_type,-5\0"s);
    }
    // The next message removes a subscriber that has closed its connection. The others get the
    // message, even if a descriptor became invalid after the server collected the descriptors.
    subscribers[0]->Close();
    {
        const test::FailCalls gone({test::Call::kSelect, EBADF, "", 1});
        EXPECT_EQ(quarn_notifyLogModeUpdate(2), 0);
    }
    EXPECT_EQ(subscribers[9]->Receive(14), "cb_log_mode,2\0"s);
    EXPECT_EQ(quarn_notifyLogModeUpdate(1), 0);
    EXPECT_EQ(log.Count("quarn_stateNotify: Fail to send data to fd=..."), 1u);
    {
        const test::FailCalls broken({test::Call::kSelect, EBADF});
        EXPECT_EQ(quarn_notifyLogModeUpdate(2), -1);
        EXPECT_EQ(broken.failed(), 2);
    }
    EXPECT_EQ(log.Count("quarn_stateNotify: select failed, errno = Bad file descriptor"), 1u);
}

TEST_F(Control, ASubscriberThatDoesNotReadDelaysNobody) {
    ASSERT_EQ(handle.start(), 0);
    const Subscriber deaf;
    ASSERT_TRUE(AwaitSubscribers(1));
    const std::string large(1 << 20, 'x');  // more than a socket takes
    EXPECT_LT(quarn_stateNotify(large.data(), static_cast<int>(large.size()), 50), 0);
    EXPECT_EQ(log.Count("quarn_stateNotify: Data paritially sent to fd=..."), 1u);
    while (quarn_notifyLogModeUpdate(1) == 0) continue;
    EXPECT_EQ(log.Count("quarn_stateNotify: Timeout occurred while waiting for sockets to be "
                        "writable."),
              1u);
    const Subscriber other;
    ASSERT_TRUE(AwaitSubscribers(2));
    EXPECT_EQ(quarn_notifyLogModeUpdate(0), 0);
    EXPECT_EQ(other.Receive(14), "cb_log_mode,0\0"s);
}

TEST_F(Control, SubscribersStayOverAStop) {
    const size_t before = OpenDescriptors();
    ASSERT_EQ(handle.start(), 0);
    EXPECT_EQ(quarn_start_state_notify_socket_server(), -1);  // the first server keeps running
    Subscriber subscriber;
    ASSERT_TRUE(AwaitSubscribers(1));
    quarn_stop_state_notify_socket_server();
    quarn_notifyModemReboot();
    EXPECT_EQ(subscriber.Receive(10), "cb_reboot\0"s);
    // The modem's restart and the end of the daemon may stop the server at the same time.
    ASSERT_EQ(quarn_start_state_notify_socket_server(), 0);
    EXPECT_EQ(subscriber.Receive(1), "");  // a new server starts without subscribers
    std::thread other(quarn_stop_state_notify_socket_server);
    handle.stop();
    other.join();
    subscriber.Close();
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(Control, NotifiesFromManyThreadsWhileSubscribersComeAndGo) {
    ASSERT_EQ(handle.start(), 0);
    std::vector<std::thread> threads;
    for (int mode = 0; mode < 3; ++mode) {
        threads.emplace_back([mode] {
            for (int i = 0; i < 100; ++i) quarn_notifyLogModeUpdate(mode);
        });
    }
    for (int i = 0; i < 30; ++i) Subscriber().Send("ignored");
    quarn_stop_state_notify_socket_server();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(log.Count("quarn_stateNotify: Data paritially sent..."), 0u);
}
