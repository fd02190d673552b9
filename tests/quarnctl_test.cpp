// quarnctl, against a fake daemon on the two sockets: it shows the exact requests, and answers
// late, in pieces or not at all, which the real daemon never does on demand.
#include <cutils/sockets.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "control/protocol.h"
#include "control/quarn_command.h"
#include "core/version.h"
#include "support.h"

namespace {

struct Listener {
    explicit Listener(const char* name)
        : fd(socket_local_server(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM)) {
        EXPECT_GE(fd, 0);
        fcntl(fd, F_SETFD, FD_CLOEXEC);  // started programs must not inherit it
        const timeval limit = {.tv_sec = 60, .tv_usec = 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));  // of Accept
    }
    ~Listener() { close(fd); }
    int Accept() const {
        int client;
        do {  // a child that ends interrupts a wait that has a limit
            client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        } while (client < 0 && errno == EINTR);
        return client;
    }
    const int fd;
};

// Serves one client after the other. An unknown request gets no answer. The answer "hang up" closes
// the connection.
class FakeDaemon {
  public:
    explicit FakeDaemon(std::map<std::string, std::string> request_replies)
        : replies(std::move(request_replies)), thread([this] { Serve(); }) {}
    ~FakeDaemon() {
        shutdown(listener.fd, SHUT_RDWR);
        thread.join();
    }
    // Returns the requests since the last call.
    std::string Requests() {
        std::lock_guard lock(mutex);
        return std::exchange(requests, "");
    }

  private:
    void Serve() {
        for (int client; (client = listener.Accept()) >= 0; close(client)) {
            std::string request;
            for (char byte; recv(client, &byte, 1, 0) == 1;) {
                if (byte != '\0') {
                    request += byte;
                    continue;
                }
                std::lock_guard lock(mutex);
                requests += request;
                const auto reply = replies.find(std::exchange(request, ""));
                if (reply == replies.end()) continue;
                if (reply->second == "hang up") break;
                std::string block = reply->second;
                block.resize(quarn::protocol::kReplySize);
                // In two pieces, as a busy machine may deliver it.
                send(client, block.data(), 5, MSG_NOSIGNAL);
                send(client, block.data() + 5, block.size() - 5, MSG_NOSIGNAL);
            }
        }
    }

    const Listener listener{quarn::protocol::kCommandSocket};
    const std::map<std::string, std::string> replies;
    std::mutex mutex;
    std::string requests;
    std::thread thread;
};

test::Result Quarnctl(const std::string& arguments) {
    return test::RunMerged(QUARNCTL_PROGRAM " " + arguments);
}

}  // namespace

TEST(Quarnctl, CommandsAndTheirStatus) {
    EXPECT_EQ(Quarnctl("log_mode").status, 3);  // no daemon
    const std::string fits(quarn::protocol::kMaxRequest - sizeof("log_filter ") - 1, 'f');
    FakeDaemon daemon({{"log_mode", "ok,1"},
                       {"log_mode 2", "ok"},
                       {"file_size 4096", "error"},
                       {"log_filter /" + fits, "ok"},
                       {"log_folder /x/file_size", "ok"},
                       {"recycle_ee 1", "ok"},
                       {"log_folder", "ok,/logs, all of them"},
                       {"log_level", "error"},
                       {"transfer_type 3", "hang up"}});
    const struct {
        std::string arguments;
        int status;
        std::string request;  // empty: nothing is sent
        std::string text;     // part of what is printed
    } cases[] = {
        {"log_mode", 0, "log_mode", "ok,1\n"},
        {"log_mode wrapping", 0, "log_mode 2", "ok\n"},
        {"log_mode --timeout=5 wrapping", 0, "log_mode 2", "ok\n"},
        {"recycle_ee yes", 0, "recycle_ee 1", "ok\n"},
        {"file_size 4096", 1, "file_size 4096", "takes 1 to 4095 MB; its log has the reason"},
        {"log_filter /" + fits, 0, "log_filter /" + fits, "ok\n"},
        {"log_folder /x/file_size", 0, "log_folder /x/file_size", "contains the word file_size"},
        {"get log_folder", 0, "log_folder", "/logs, all of them\n"},
        {"get log_level", 1, "log_level", "logcat -s QUARN"},
        {"transfer_type exit", 3, "transfer_type 3", "hung up"},
        {"flush_status --timeout 1", 3, "flush_status", "no answer within 1 s"},
        {"log_filter /f" + fits, 2, "", "too long by 1 bytes"},
        {"log_modes", 2, "", "no such command: log_modes"},
        {"log_mode on", 2, "", "does not know \"on\""},
        {"file_size 4294967297", 2, "", "does not know"},
        {"log_folder '/x\ny'", 2, "", "control character"},
        {"-- log_folder --x", 2, "", "begins with /"},
        {"flush_status 1", 2, "", "takes no argument"},
        {"get log_filter", 2, "", "cannot be queried"},
        {"--timeout=soon log_mode", 2, "", "a number of seconds, not soon"},
        {"--patience 1 log_mode", 2, "", "no such option: --patience"},
        {"--json log_mode", 2, "", "--json goes with"},
        {"", 2, "", "Usage: quarnctl"},
        {"help", 0, "", "1 to 4194303 MB"},
        {"--version", 0, "", std::string("quarnctl ") + quarn::kVersion + "\n"},
        {"log_mode 2>&1 >/dev/full", 4, "log_mode", "standard output could not be written"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        const test::Result run = Quarnctl(c.arguments);
        EXPECT_EQ(run.status, c.status);
        EXPECT_NE(run.text.find(c.text), std::string::npos) << run.text;
        EXPECT_EQ(daemon.Requests(), c.request);
    }
}

TEST(Quarnctl, KnowsEveryCommandOfTheDaemon) {
    const std::string help = Quarnctl("help").text;
    for (const QUARN_COMMAND_INFO& command : quarn_commandTable()) {
        EXPECT_NE(help.find("\n  " + std::string(command.name) + ' '), std::string::npos)
            << command.name;
    }
    const std::string words = std::regex_replace(help, std::regex("\\s+"), " ");
    namespace protocol = quarn::protocol;
    for (const std::span<const char* const> names :
         {std::span<const char* const>(protocol::kLogModes),
          {protocol::kLogLevels},
          {protocol::kTransferTypes}}) {
        for (size_t value = 0; value < names.size(); ++value) {
            const std::string item = " " + std::to_string(value) + " " + names[value];
            EXPECT_NE(words.find(item), std::string::npos) << item;
        }
    }
}

TEST(Quarnctl, StatusNamesValuesAndWarns) {
    std::map<std::string, std::string> replies = {
        {"log_mode", "ok,1"},      {"log_level", "ok,2"},     {"flush_interval", "ok,600000"},
        {"flush_status", "ok,0"},  {"transfer_type", "ok,1"}, {"file_size", "ok,50"},
        {"recycle_size", "ok,50"}, {"recycle_ee", "ok,1"},    {"recycle_keep_ee_size", "ok,49"},
        {"log_folder", "ok,/logs"}};
    const auto expect = [&](int status, const std::vector<std::string>& parts,
                            const std::string& option = "") {
        FakeDaemon daemon(replies);
        const test::Result run = Quarnctl("status " + option);
        EXPECT_EQ(run.status, status);
        for (const std::string& part : parts) {
            EXPECT_NE(run.text.find(part), std::string::npos) << part << " not in\n" << run.text;
        }
        return run.text;
    };
    const std::string fine =
        expect(0, {"1  streaming", "2  standard", "600000 ms", "1  storage", "50 MB", "/logs"});
    EXPECT_EQ(fine.find("warning"), std::string::npos);
    replies["log_mode"] = "ok,0";
    replies["recycle_size"] = "ok,49";
    expect(0, {"recycle_size (49 MB) is below one file (50 MB)",
               "recycle_keep_ee_size (49 MB) is not below recycle_size (49 MB)",
               "log_level is 2 (standard), but log_mode is 0 (disable)"});
    replies["log_mode"] = "error";
    replies["log_level"] = "ok,-1";
    expect(1, {"-1  a custom filter"});
    replies["log_folder"] = "ok,/a \"b\" \xff\\";
    expect(1,
           {R"("log_mode": {"value": null})", R"("value": -1, "name": "a custom filter")",
            R"("file_size": {"value": 50, "unit": "MB"})", R"({"value": "/a \"b\" \u00ff\\"})",
            R"("warnings": ["recycle_size (49 MB) is below)"},
           "--json");
}

TEST(Quarnctl, WaitsUntilTheDaemonAnswers) {
    EXPECT_EQ(Quarnctl("wait --timeout 1").status, 3);
    // First a listener that does not answer.
    std::optional<Listener> silent(std::in_place, quarn::protocol::kCommandSocket);
    std::optional<FakeDaemon> daemon;
    std::thread starts([&] {
        close(silent->Accept());
        silent.reset();
        daemon.emplace(std::map<std::string, std::string>{{"file_size", "ok,50"}});
    });
    EXPECT_EQ(Quarnctl("wait --timeout 60").status, 0);
    starts.join();
}

// quarnctl counts single notifications, however they arrive.
TEST(Quarnctl, WatchEndsAsAsked) {
    const struct {
        std::string options;
        int status;
        std::vector<std::string> parts;  // of what is printed, in order; the last one ends it
    } cases[] = {
        {"--count 2", 0, {"cb_log_mode,1  streaming\n", "cb_reboot  the modem rebooted"}},
        {"--until cb_transfer", 0, {"cb_reboot", "cb_transfer_type,1  storage\n"}},
        {"--until nothing --timeout 1",
         3,
         {"cb_transfer_type,1", "the notification did not come in time"}},
        {"--json --count 3",
         0,
         {R"("event": "connected"})", R"("event": "cb_log_mode", "value": 1, "name": "streaming"})",
          R"("event": "cb_reboot"})", R"("event": "cb_transfer_type", "value": 1)"}},
    };
    const Listener listener(quarn::protocol::kNotifySocket);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        std::thread daemon([&] {
            const int subscriber = listener.Accept();
            const std::string_view sent("cb_log_mode,1\0cb_reboot\0cb_transfer_type,1", 43);
            send(subscriber, sent.data(), sent.size(), MSG_NOSIGNAL);
            char until_it_leaves;
            recv(subscriber, &until_it_leaves, 1, 0);
            close(subscriber);
        });
        const test::Result run = Quarnctl("watch " + c.options);
        daemon.join();
        EXPECT_EQ(run.status, c.status);
        size_t at = 0;
        for (const std::string& part : c.parts) {
            at = run.text.find(part, at);
            ASSERT_NE(at, std::string::npos) << part << " not in\n" << run.text;
        }
        EXPECT_GE(at + c.parts.back().size() + 30, run.text.size()) << run.text;
    }
    // Connections wait until the daemon, which hangs, can take no more.
    int fd;
    do {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    } while (socket_local_client_connect(fd, quarn::protocol::kNotifySocket,
                                         ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM) >= 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Quarnctl("watch --timeout 1").status, 3);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(Quarnctl, WatchOutlivesTheDaemon) {
    const std::string path = "/data/watched";
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", "exec " QUARNCTL_PROGRAM " watch >/data/watched 2>&1",
              nullptr);
        _exit(127);
    }
    const auto printed = [&](const std::string& text) {
        return test::WaitUntil(
            [&] { return test::ReadFile(path).find(text) != std::string::npos; });
    };
    EXPECT_TRUE(printed("waiting for the daemon"));
    for (const std::string mode : {"1", "0"}) {
        const Listener listener(quarn::protocol::kNotifySocket);
        const int subscriber = listener.Accept();
        const std::string sent = "cb_log_mode," + mode + '\0' + "cb_transfer_type,1" + '\0';
        send(subscriber, sent.data(), 20, MSG_NOSIGNAL);  // ends within the second text
        EXPECT_TRUE(printed("cb_log_mode," + mode + (mode == "1" ? "  streaming" : "  disable")));
        send(subscriber, sent.data() + 20, sent.size() - 20, MSG_NOSIGNAL);
        EXPECT_TRUE(printed("cb_transfer_type,1  storage\n"));
        close(subscriber);
        EXPECT_TRUE(printed("the daemon went away"));
    }
    kill(pid, SIGTERM);
    EXPECT_EQ(WTERMSIG(test::WaitForChild(pid)), SIGTERM);
}
