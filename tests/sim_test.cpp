// The simulated phone, which all other tests and the measurements use.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>

#include "platform/mcl.h"
#include "platform/mipc.h"
#include "sim/console.h"
#include "sim/console_server.h"
#include "sim/modem.h"
#include "sim/replay_place.h"
#include "sim/socket_address.h"
#include "tests/client.h"
#include "tests/support.h"

namespace {

using sim::Modem;

const std::string kFolder = "/box/modem";
const std::string kLogFile = "/box/stream";

// Reads the log port once. Returns "" after an error.
std::string ReadPort(size_t len) {
    std::string bytes(len, '\0');
    int error = 0;
    const int got = mcl_readFromLogPort(bytes.data(), static_cast<unsigned>(len), &error);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

std::string Send(std::string_view lines) {
    const test::Client console((kFolder + "/" + sim::kConsoleSocketName).c_str(),
                               ANDROID_SOCKET_NAMESPACE_FILESYSTEM);
    // Sends two pieces, so that a line may arrive in parts. The send may fail, because the phone
    // closes the connection in the middle of a line that is too long. Only the reply counts.
    const size_t half = lines.size() / 2;
    if (console.Send(lines.substr(0, half))) console.Send(lines.substr(half));
    console.EndSending();
    return console.Receive(1 << 20);
}

struct Seen {
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> notifications;
    std::atomic<bool> inside{false};
    std::atomic<bool> hold{false};
};

int Keep(void* user, MCL_NTFY_CODE code, void* payload) {
    Seen& seen = *static_cast<Seen*>(user);
    EXPECT_FALSE(seen.inside.exchange(true)) << "one at a time";
    test::WaitUntil([&] { return !seen.hold; });
    {
        std::lock_guard lock(seen.mutex);
        seen.notifications.emplace_back(
            code, payload != nullptr ? std::string(static_cast<char*>(payload), 8) : "none");
    }
    seen.inside = false;
    return 0;
}

TEST(SimLayer, NotificationsComeInOrder) {
    Modem& modem = Modem::Instance();
    Seen seen;
    ASSERT_EQ(mcl_registerNotifyCallback(Keep, &seen), 0);
    char payload[8] = {'p', 'a', 'y', 'l', 'o', 'a', 'd', '1'};
    modem.Notify(NTFY_MD_LOG_START, payload, sizeof(payload));
    payload[7] = '2';
    ASSERT_EQ(mcl_init(), 0);
    modem.Notify(NTFY_MD_INFO_UPDATE);
    for (int i = 0; i < 50; ++i) modem.Notify(static_cast<MCL_NTFY_CODE>(100 + i));
    modem.WaitForNotifications();
    ASSERT_EQ(seen.notifications.size(), 52u);
    EXPECT_EQ(seen.notifications[0], std::pair(1, std::string("payload1")));
    EXPECT_EQ(seen.notifications[1], std::pair(9, std::string("none")));
    for (size_t i = 0; i < 50; ++i) EXPECT_EQ(seen.notifications[2 + i].first, 100 + int(i));

    // mcl_deinit waits for the handler that is running, and calls no further handler.
    seen.hold = true;
    modem.Notify(NTFY_MD_LOG_STOP);
    modem.Notify(NTFY_MD_LOG_END);
    EXPECT_TRUE(test::WaitUntil([&] { return seen.inside.load(); }));
    std::thread down([] { mcl_deinit(); });
    EXPECT_TRUE(test::WaitUntil([&] { return !modem.status().up; }));
    seen.hold = false;
    down.join();
    EXPECT_EQ(seen.notifications.size(), 53u);
    EXPECT_EQ(seen.notifications.back().first, NTFY_MD_LOG_STOP);
}

// --- modem IPC ---

struct Value {
    int type;
    std::string bytes;
};

std::string Word(int32_t number) {
    return std::string(reinterpret_cast<const char*>(&number), sizeof(number));
}

struct Confirmation {
    std::optional<std::string> result, number, text;
};

std::optional<std::string> ValueOf(mipc_msg_t* message, int type) {
    int length = -1;
    const void* const value = mipc_msg_get_val_ptr(message, type, &length);
    EXPECT_EQ(mipc_msg_get_val_ptr(message, type, nullptr), value);
    if (value == nullptr || length < 0) return std::nullopt;
    return std::string(static_cast<const char*>(value), static_cast<size_t>(length));
}

Confirmation Ask(int id, const std::vector<Value>& values = {}) {
    mipc_msg_t* const request = mipc_msg_init(id, 16);
    EXPECT_NE(request, nullptr);
    for (const auto& [type, bytes] : values) {
        EXPECT_EQ(mipc_msg_add_tlv(request, type, static_cast<int>(bytes.size()), bytes.data()), 0);
    }
    mipc_msg_set_timeout_once(10'000);
    mipc_msg_t* confirmation = nullptr;
    mipc_msg_sync_timeout_with_cause(request, &confirmation);
    mipc_msg_deinit(request);
    if (confirmation == nullptr) return {};
    const Confirmation seen = {ValueOf(confirmation, 0), ValueOf(confirmation, 256),
                               ValueOf(confirmation, 33024)};
    mipc_msg_deinit(confirmation);
    return seen;
}

std::string AskAt(const std::string& command) {
    return Ask(3, {{33024, std::string(command.c_str(), command.size() + 1)}}).text.value_or("");
}

class SimIpc : public testing::Test {
  protected:
    SimIpc() {
        EXPECT_EQ(mcl_init(), 0);
        EXPECT_EQ(mcl_registerNotifyCallback(Keep, &seen), 0);
        EXPECT_EQ(mipc_init("/dev/wwanD0MIPC0"), 0);
    }
    ~SimIpc() override {
        mipc_deinit();
        mcl_deinit();
    }

    // Returns the codes of the notifications in the order of arrival.
    std::vector<int> Codes() {
        std::lock_guard lock(seen.mutex);
        std::vector<int> codes;
        for (const auto& [code, payload] : seen.notifications) codes.push_back(code);
        return codes;
    }

    Modem& modem = Modem::Instance();
    Seen seen;
};

TEST_F(SimIpc, AChangeOfTheLogModeIsToldBeforeItIsConfirmed) {
    modem.SetSource(sim::MakeGeneratedSource(1));
    const struct {
        int mode, code;  // 0: no notification
        bool streaming;
    } kCases[] = {{1, NTFY_MD_LOG_START, true},  {1, 0, true},
                  {2, NTFY_MD_LOG_CLOSE, false}, {1, NTFY_MD_LOG_REOPEN, true},
                  {0, NTFY_MD_LOG_STOP, false},  {0, 0, false},
                  {2, NTFY_MD_LOG_START, false}, {0, NTFY_MD_LOG_STOP, false}};
    std::vector<int> codes;
    for (const auto& test : kCases) {
        EXPECT_EQ(Ask(39, {{256, Word(test.mode)}}).result, Word(0));
        if (test.code != 0) codes.push_back(test.code);
        EXPECT_EQ(Codes(), codes);
        EXPECT_EQ(modem.status().streaming, test.streaming);
    }
    EXPECT_EQ(seen.notifications[0].second, Word(0) + Word(1));
    EXPECT_EQ(seen.notifications[4].second, Word(0) + Word(2));

    // The modem waits for a handler, but not forever: here the handler does not return.
    seen.hold = true;
    EXPECT_EQ(Ask(39, {{256, Word(1)}}).result, Word(0));
    EXPECT_EQ(Codes(), codes);
    seen.hold = false;
    modem.WaitForNotifications();
}

TEST_F(SimIpc, TheFlushIntervalHoldsTheStreamBack) {
    modem.SetSource(sim::MakeGeneratedSource(1));
    modem.SetRate(400'000);
    EXPECT_EQ(Ask(119, {{256, Word(60'000)}}).result, Word(0));
    ASSERT_TRUE(modem.SetLogMode(1));
    const auto held = [&](size_t bytes) {
        return test::WaitUntil([&] { return modem.ipc_status().held_back >= bytes; });
    };
    ASSERT_TRUE(held(4000));
    EXPECT_EQ(ReadPort(1), "");
    EXPECT_EQ(Ask(139).number, Word(0));
    EXPECT_EQ(Ask(137).number, Word(0));
    EXPECT_EQ(Ask(139).number, Word(1)) << "flushed, but not read yet";
    EXPECT_GE(ReadPort(1'000'000).size(), 4000u);
    EXPECT_EQ(Ask(139).number, Word(0));
    EXPECT_EQ(ReadPort(1), "");

    // A shorter interval counts from the last release. If it is set back at once, no byte is lost.
    ASSERT_TRUE(held(30'000));
    EXPECT_EQ(Ask(119, {{256, Word(20)}}).result, Word(0));
    EXPECT_EQ(Ask(119, {{256, Word(60'000)}}).result, Word(0));
    EXPECT_GE(ReadPort(1'000'000).size(), 30'000u);
}

TEST(SimConsole, LinesAreExecutedOrRefusedWithTheReason) {
    test::WriteFile("/box/with blank", "abc");
    ASSERT_EQ(mkfifo("/box/pipe", 0600), 0);
    const struct {
        std::string line, refusal;  // a part of the refusal; empty: the line is accepted
    } kCases[] = {
        {"source replay \"/box/with blank\" 1", ""},
        {"source replay /box/pipe", "cannot replay /box/pipe: Invalid argument"},
        {" source\tgenerated 18446744073709551615 \r", ""},
        {"source generated 18446744073709551616", "SEED is not a number"},
        {"rate 64Mi", ""},
        {"ipc init -3 1", ""},
        {"ipc 45 no_length 1", ""},
        {"at \"1\\r\\nOK\" 1", ""},
        {"stream \"start", "quotes are not closed"},
        {std::string("rate 1\0", 7), "control character"},
        {std::string(sim::kMaxLine, ' '), ""},
        {std::string(sim::kMaxLine + 1, ' '), "line of more than 8192 bytes"},
        {"a b c d e f g h i j k l m n o p q r s t u v w x y z a b c d e f g", "more than 32 words"},
        {"after 5s rate 4Q", "after: rate: BYTES is not a number"},
        {"after 5 weeks rate 4", "after: no such command: weeks"},
        {"after 3651d exception", "after: TIME is not a time"},
        {"after 1s after 1s exception", "after cannot stand after a time"},
        {"after 1s expect missing = 0", "expect cannot stand after a time"},
        {"clock 1d", "neither +TIME nor -TIME"},
        {"free_space 1M", "/data has no size of its own"},
        {"storage 0", "BYTES is not a number"},
        {"expect missing = 0", ""},
        {"expect log \"a b\" >= 2", ""},
        {"expect log a", "use: expect"},
        {"expect lost = 0", "no such figure: lost"},
        {"expect missing == 0", "not = != < <= > or >=: =="},
        {"client " + std::string(127, 'x'), "a request has 1 to 126 bytes"},
    };
    // Only the phone itself can find these faults. The check of a line accepts them.
    const auto is_checked = [](const std::string& line) {
        return line != "source replay /box/pipe" && line != "free_space 1M";
    };
    const sim::Console console("");
    for (const auto& test : kCases) {
        const auto state = [] { return Modem::Instance().status().source; };
        const std::string before = state(), why = console.Check(test.line);
        EXPECT_EQ(state(), before) << test.line;
        const sim::Reply reply = console.Execute(test.line);
        EXPECT_EQ(why, is_checked(test.line) ? reply.text : "") << test.line;
        EXPECT_EQ(reply.ok, test.refusal.empty()) << test.line << ": " << reply.text;
        if (reply.ok) continue;
        EXPECT_NE(reply.text.find(test.refusal), std::string::npos) << reply.text;
        EXPECT_EQ(reply.text.find('\n'), std::string::npos) << reply.text;
    }
    const Modem::Status status = Modem::Instance().status();
    EXPECT_EQ(status.source, "generated 18446744073709551615");
    EXPECT_EQ(status.rate, 64u << 20);
    EXPECT_EQ(mipc_init("port"), -3);
    EXPECT_EQ(mipc_init("port"), 0);
    EXPECT_EQ(Ask(45).number, std::nullopt);
    EXPECT_EQ(AskAt("AT"), std::string("1\r\nOK\0", 6));
}

TEST(SimConsole, ThePhoneStartsWithItsScenarioAndConsole) {
    test::LogCapture log;
    test::WriteFile(kFolder + "/scenario", "fail init 1\n# remark\nrate fast\nsource generated 4");
    test::WriteFile(kFolder + "/console.socket", "left by a process that was killed");
    setenv("QUARN_SIM_DIR", kFolder.c_str(), 1);
    EXPECT_NE(mcl_init(), 0);
    EXPECT_EQ(mcl_init(), 0);
    EXPECT_EQ(log.Count("/box/modem/scenario, line 3: rate: BYTES is not a number..."), 1u);

    EXPECT_EQ(Send("property a.b c\nproperty a.b\nrate 7\nrate x\nstream start\n"),
              "= ok\nc\n= ok\n= ok\n"
              "= error: rate: BYTES is not a number from 0 to 1000000000000: x\n= ok\n");
    EXPECT_NE(Send("state\n").find("source: generated 4\n"), std::string::npos);
    EXPECT_EQ(Send(std::string(100'000, 'x')), "= error: line of more than 8192 bytes\n");
    EXPECT_EQ(Send("rate 8"), "") << "a line without its end";
    EXPECT_EQ(Modem::Instance().status().rate, 7u);
}

TEST(SimConsole, AScenarioGoesOnOverARestart) {
    test::LogCapture log;
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    // The phone's first process, with another id, began ten seconds ago.
    const int64_t began = now.tv_sec * 1000 + now.tv_nsec / 1'000'000 - 10'000;
    test::WriteFile(kFolder + "/began", std::to_string(began) + " 1\n");
    test::WriteFile(kFolder + "/lines",
                    "rate 5\nafter 3s rate 7\nafter 4s rate 8\nafter 3s fail init 1\n"
                    "after 11s source replay /box/none\nafter 10100ms source generated 6\n"
                    "after 1000s rate 9\nafter 12 weeks\n");
    const sim::Console console(kFolder);
    EXPECT_EQ(console.CheckScenario(kFolder + "/lines").size(), 1u);
    EXPECT_EQ(console.CheckScenario(kFolder + "/lines")[0].line, 8);
    console.RunScenario(kFolder + "/lines");
    EXPECT_EQ(Modem::Instance().status().rate, 8u) << "past settings are in force, in their order";
    EXPECT_EQ(mcl_init(), 0) << "a past event does not happen again";
    EXPECT_EQ(log.Count("/box/modem/lines, line 8: no such command: weeks..."), 1u);
    ASSERT_TRUE(test::WaitUntil(
        [&] { return log.Count("/box/modem/lines, line 5: source: cannot replay...") == 1; }));
    EXPECT_EQ(Modem::Instance().status().source, "generated 6") << "by time, not by line";
    mcl_deinit();
}

TEST(SimConsole, AReplayGoesOnWhereAKilledProcessLeftIt) {
    const std::string bytes = test::StreamBytes(2'000'000);
    test::WriteFile(kLogFile, bytes);
    test::WriteFile(kFolder + "/scenario", "");
    const sim::Console console(kFolder);
    const std::string replay = "source replay " + kLogFile;

    const pid_t child = fork();
    if (child == 0) {
        if (mcl_init() != 0 || !console.Execute(replay).ok) _exit(1);
        Modem::Instance().StartStream();
        for (int i = 0; i < 10; ++i) ReadPort(12345);
        kill(getpid(), SIGKILL);
    }
    ASSERT_EQ(WTERMSIG(test::WaitForChild(child)), SIGKILL);

    EXPECT_EQ(sim::ReadReplayPlace(kFolder, kLogFile), 123450u);
    EXPECT_EQ(sim::ReadReplayPlace(kFolder, "/box/other"), 0u);
    ASSERT_EQ(mcl_init(), 0);
    ASSERT_TRUE(console.Execute(replay).ok);
    Modem::Instance().StartStream();
    EXPECT_EQ(ReadPort(1000), bytes.substr(123450, 1000));
    ASSERT_TRUE(console.Execute(replay + " 5").ok);
    EXPECT_EQ(ReadPort(1000), bytes.substr(5, 1000));
    ASSERT_TRUE(console.Execute(replay).ok);
    EXPECT_EQ(ReadPort(1000), bytes.substr(1005, 1000));
    mcl_deinit();
}

}  // namespace
