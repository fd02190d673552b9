// Modem IPC commands, flushing, notifications.
#include "sim/modem.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <numeric>
#include <thread>

#include "core/quarn.h"
#include "modem/log_flush.h"
#include "modem/quarn_mipc_cmd.h"
#include "modem/quarn_notify_handler.h"
#include "support.h"

namespace {

using namespace quarn::zorvex;
using namespace std::chrono_literals;
using sim::IpcFault;

constexpr const char* kPort = "/dev/wwanD0MIPC0";
constexpr int kUntouched = -99;

std::string Number(int32_t value) { return {reinterpret_cast<const char*>(&value), 4}; }

class Mipc : public testing::Test {
  protected:
    Mipc() { EXPECT_EQ(quarn_mipcInit(kPort), 0); }
    ~Mipc() override {
        quarn_mipcDeinit();
        EXPECT_EQ(modem.ipc_status().misused, 0u);
    }

    // Numbers that went to the modem in requests of this id.
    std::vector<int32_t> Sent(int id) const {
        std::vector<int32_t> numbers;
        for (const auto& request : modem.ipc_requests()) {
            if (request.message.id() != id) continue;
            numbers.push_back(request.message.Number(256).value_or(kUntouched));
        }
        return numbers;
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
};

// --- one row for each command ---

struct CommandRow {
    const char* name;
    int id;
    std::function<int32_t(int* answer)> run;
    std::vector<std::pair<int, std::string>> values;
    const char* send_failure;
    const char* answer_failure = nullptr;  // null: asks for nothing
};

void PrintTo(const CommandRow& row, std::ostream* out) { *out << row.name; }

long noon = 1709208000;  // 2024-02-29 12:00:00 UTC

const CommandRow kCommands[] = {
    {"SetLogMode",
     39,
     [](int*) { return quarn_mipcSetLogMode(2); },
     {{256, Number(2)}},
     "send mipc cmd (set log mode) fail, mipc_rc = "},
    {"Disable",
     39,
     [](int*) { return quarn_mipcSetLogMode(0); },
     {{256, Number(0)}, {257, "\1"}},
     "send mipc cmd (set log mode) fail, mipc_rc = "},
    {"GetLogMode",
     41,
     quarn_mipcGetLogMode,
     {},
     "send mipc cmd (get log mode) fail, mipc_rc = ",
     "get mipc cmd cnf log mode fail, mipc_rc = 0\n"},
    {"SetLogLevel",
     43,
     [](int*) { return quarn_mipcSetLogLevel(5); },
     {{256, Number(5)}},
     "send mipc cmd (set log level) fail, mipc_rc = "},
    {"GetLogLevel",
     45,
     quarn_mipcGetLogLevel,
     {},
     "send mipc cmd (get log level) fail, mipc_rc = ",
     "get mipc cmd cnf log level fail, mipc_rc = 0\n"},
    {"SetFlushInterval",
     119,
     [](int*) { return quarn_mipcSetFlushInterval(70000); },
     {{256, Number(70000)}},
     "send mipc cmd (set flush interval) fail, mipc_rc = "},
    {"GetFlushInterval",
     121,
     quarn_mipcGetFlushInterval,
     {},
     "send mipc cmd (get flush interval) fail, mipc_rc = ",
     "get mipc cmd cnf flush interval fail, mipc_rc = 0\n"},
    {"TriggerFlush",
     137,
     quarn_mipcTriggerFlush,
     {},
     "send mipc cmd (trigger flush) fail, mipc_rc = ",
     "get mipc cmd cnf trigger flush result fail, mipc_rc = 0\n"},
    {"GetFlushStatus",
     139,
     quarn_mipcGetFlushStatus,
     {},
     "send mipc cmd (get flush status) fail, mipc_rc = ",
     "get mipc cmd cnf flush status fail, mipc_rc = 0\n"},
    {"SetTime",
     65,
     [](int*) { return quarn_mipcSetTime(&noon); },
     {{256, Number(2024)},
      {257, Number(2)},
      {258, Number(29)},
      {259, Number(12)},
      {260, Number(0)},
      {261, Number(0)},
      {262, Number(0)}},
     "send mipc cmd (set time req) fail, mipc_rc = "},
    {"SetCustomFilter",
     161,
     [](int* answer) {
         char bytes[] = {'a', '\0', '\n', '\xff'};
         return quarn_mipcSetCustomFilter(sizeof(bytes), bytes, answer);
     },
     {{256, std::string("a\0\n\xff", 4)}},
     "send mipc cmd (set filter) fail, mipc_rc = ",
     "get mipc cmd cnf (set filter) fail, mipc_rc = 0\n"},
};

class MipcCommand : public Mipc, public testing::WithParamInterface<CommandRow> {};
INSTANTIATE_TEST_SUITE_P(Each, MipcCommand, testing::ValuesIn(kCommands),
                         [](const auto& row) { return row.param.name; });

TEST_P(MipcCommand, SendsItsValuesAndReadsItsAnswer) {
    const CommandRow& row = GetParam();
    modem.FailIpc(row.id, IpcFault::kAnswer, 77, 1);
    int answer = kUntouched;
    EXPECT_EQ(row.run(&answer), 0);
    EXPECT_EQ(answer, row.answer_failure != nullptr ? 77 : kUntouched);
    EXPECT_EQ(modem.ipc_status().timeout_ms, 5000);

    const auto requests = modem.ipc_requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].message.id(), row.id);
    EXPECT_EQ(requests[0].selector, 16);
    EXPECT_EQ(requests[0].timeout_ms, 5000);
    ASSERT_EQ(requests[0].message.count(), row.values.size());
    for (const auto& [type, value] : row.values) {
        const auto bytes = requests[0].message.Bytes(type);
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), value) << type;
    }
}

TEST_P(MipcCommand, ReportsEachFailureOnceAndWritesNothing) {
    const CommandRow& row = GetParam();
    int answer = kUntouched;
    const auto expect_failure = [&](int32_t status, const char* reason) {
        log.Clear();
        EXPECT_EQ(row.run(&answer), status);
        EXPECT_EQ(answer, kUntouched);
        const std::string message = row.send_failure + std::to_string(status) + "\n";
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message)) << message;
        EXPECT_TRUE(reason == nullptr || log.Has(ANDROID_LOG_ERROR, reason)) << reason;
        EXPECT_EQ(log.messages().size(), reason != nullptr ? 2u : 1u);
    };
    const struct {
        IpcFault kind;
        int value;
        int32_t status;
        const char* reason;
    } faults[] = {
        {IpcFault::kMessage, 0, 1, nullptr},
        {IpcFault::kCause, -7, 1, "send mipc cmd fail, cause=-7\n"},
        {IpcFault::kSilence, 10, 2, "send mipc cmd timeout\n"},
        {IpcFault::kResult, 5, 1, "mipc cmd fail, result=5\n"},
        {IpcFault::kNoResult, 0, 1, "get mipc cmd result fail\n"},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(static_cast<int>(fault.kind));
        modem.FailIpc(row.id, fault.kind, fault.value, 1);
        expect_failure(fault.status, fault.reason);
    }
    if (!row.values.empty()) {  // half a request is not sent
        const uint64_t exchanges = modem.ipc_status().exchanges;
        modem.FailIpc(row.id, IpcFault::kValue, 0, 1);
        expect_failure(1, nullptr);
        EXPECT_EQ(modem.ipc_status().exchanges, exchanges);
    }
    if (row.answer_failure != nullptr) {
        for (const IpcFault fault : {IpcFault::kNoAnswer, IpcFault::kShort}) {
            modem.FailIpc(row.id, fault, 0, 1);
            log.Clear();
            EXPECT_EQ(row.run(&answer), 1);
            EXPECT_EQ(answer, kUntouched);
            EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, row.answer_failure));
            EXPECT_EQ(log.messages().size(), 1u);
        }
    }
    quarn_mipcDeinit();
    expect_failure(1, nullptr);
}

// --- the channel ---

TEST(MipcChannel, OpensOnceAtATime) {
    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    std::string response;
    quarn_mipcDeinit();  // was never open
    EXPECT_EQ(quarn_mipcSetLogLevel(1), 1);
    EXPECT_FALSE(SendAtCommandByMipc("AT", response));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "AT command: Send mipc cmd failed: 1"));

    modem.FailIpcInit(-3, 1);
    EXPECT_EQ(quarn_mipcInit(kPort), 1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "mipcInit: mipc init failed, rc=-3\n"));
    quarn_mipcDeinit();
    EXPECT_EQ(quarn_mipcSetLogLevel(1), 1);

    EXPECT_EQ(quarn_mipcInit(kPort), 0);
    EXPECT_EQ(modem.ipc_status().port, kPort);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "mipcInit: set mipc port: /dev/wwanD0MIPC0\n"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "mipcInit: mipc init success\n"));
    std::atomic<bool> opened = false;
    std::thread second([&] {
        EXPECT_EQ(quarn_mipcInit(kPort), 0);
        opened = true;
        quarn_mipcDeinit();
    });
    EXPECT_FALSE(test::WaitUntil([&] { return opened.load(); }, 100ms));
    quarn_mipcDeinit();
    second.join();
    quarn_mipcDeinit();
    EXPECT_EQ(modem.ipc_status().misused, 0u);
}

TEST_F(Mipc, ClosingLetsExchangesEndAndRefusesLaterOnes) {
    constexpr int kThreads = 4;
    std::atomic<int> answered = 0;
    modem.FailIpc(45, IpcFault::kDelay, 30, INT_MAX);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            int level = 0;
            while (quarn_mipcGetLogLevel(&level) == 0) ++answered;
        });
    }
    ASSERT_TRUE(test::WaitUntil([&] { return modem.ipc_status().under_way == kThreads; }));
    quarn_mipcDeinit();
    for (std::thread& thread : threads) thread.join();
    EXPECT_GE(answered, kThreads);  // those under way ended well
    EXPECT_EQ(log.Count("send mipc cmd fail, ..."), 0u);
    EXPECT_EQ(log.Count("send mipc cmd (get log level) fail, mipc_rc = 1\n"), size_t{kThreads});
}

// --- log mode, time, AT commands ---

TEST_F(Mipc, AModeThatWasSetIsToldAndStreamingSendsTheIntervalAgain) {
    constexpr const char* kTold = "quarn_stateNotify: no callback client connected!";
    g_quarn.flush_interval = 1234;
    EXPECT_EQ(quarn_mipcSetLogMode(1), 0);
    EXPECT_EQ(log.Count(kTold), 1u);
    EXPECT_EQ(Sent(119), std::vector<int32_t>{1234});
    modem.FailIpc(119, IpcFault::kResult, 1, 1);
    EXPECT_EQ(quarn_mipcSetLogMode(1), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "HandleLogMode: set flush interval to 1234 failed!"));
    EXPECT_EQ(log.Count(kTold), 2u);
    modem.FailIpc(39, IpcFault::kResult, 1, 1);
    EXPECT_EQ(quarn_mipcSetLogMode(1), 1);
    EXPECT_EQ(log.Count(kTold), 2u);
    EXPECT_EQ(quarn_mipcSetLogMode(2), 0);
    EXPECT_EQ(log.Count(kTold), 3u);
    EXPECT_EQ(Sent(119).size(), 2u);
}

TEST_F(Mipc, TimeIsUtcWithTheLocalOffset) {
    const auto set_zone = [](const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    };
    const struct {
        const char* zone;
        int minutes;
    } zones[] = {{"UTC0", 0}, {"EAST-5:30", 330}, {"WEST3:30", -210}, {"ODD0:01:59", -1}};
    for (const auto& [zone, minutes] : zones) {
        set_zone(zone);
        log.Clear();
        EXPECT_EQ(quarn_mipcSetTime(&noon), 0);
        EXPECT_EQ(modem.ipc_status().clock,
                  "2024-02-29 12:00:00 UTC, offset " + std::to_string(minutes) + " minutes");
        EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "MIPC SYS_SET_TIME_REQ: 2024/2/29 - 12:0:0 - " +
                                                  std::to_string(minutes) + "\n"));
    }
    const uint64_t exchanges = modem.ipc_status().exchanges;
    long never = LONG_MAX;
    EXPECT_EQ(quarn_mipcSetTime(&never), 1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "get gmtime fail\n"));
    long last = 67768036191676799;  // no later second has a year that fits
    set_zone("EAST-5:30");
    EXPECT_EQ(quarn_mipcSetTime(&last), 1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                        std::string("localtime_r fail, errno = ") + strerror(EOVERFLOW) + "\n"));
    EXPECT_EQ(modem.ipc_status().exchanges, exchanges);
}

TEST_F(Mipc, AtCommandsGiveWhateverTextCameBack) {
    std::string response = "old";
    modem.AnswerAt("ERROR\r\n", 1);
    EXPECT_TRUE(SendAtCommandByMipc("AT+X", response));
    EXPECT_EQ(response, "ERROR\r\n");
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "AT command: Send mipc cmd: AT+X"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_DEBUG, "AT command: Return result message: ERROR\r\n"));
    const auto requests = modem.ipc_requests();
    const auto text = requests.back().message.Bytes(33024);
    EXPECT_EQ(std::string(text.begin(), text.end()), std::string("AT+X\0", 5));

    const struct {
        IpcFault kind;
        const char* message;
    } faults[] = {
        {IpcFault::kMessage, "AT command: Init mipc cmd message failed"},
        {IpcFault::kValue, "AT command: Form mipc cmd message failed"},
        {IpcFault::kCause, "AT command: Send mipc cmd failed: 1"},
        {IpcFault::kSilence, "AT command: Send mipc cmd failed: 2"},
        {IpcFault::kNoAnswer, "AT command: Get mipc cmd cnf result failed"},
    };
    for (const auto& [kind, message] : faults) {
        response = "old";
        modem.FailIpc(3, kind, 1, 1);
        EXPECT_FALSE(SendAtCommandByMipc("AT", response));
        EXPECT_EQ(response, "");
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message)) << message;
    }
}

TEST_F(Mipc, AnAtTextMayLackItsEnd) {
    std::string response;
    sim::Modem::Instance().AnswerAt("OK", 1);
    sim::Modem::Instance().FailIpc(3, IpcFault::kShort, 0, 1);
    EXPECT_TRUE(SendAtCommandByMipc("AT", response));
    EXPECT_EQ(response, "OK");
}

TEST(AtStatus, IsTheLastLine) {
    test::LogCapture log;
    for (const char* good : {"OK", "OK\r\n", "AT+X\r\nOK\r\n", "ERROR\nOK\n\r\n"}) {
        EXPECT_TRUE(GetAtCommandExecStatus(good)) << good;
    }
    for (const char* bad : {"ERROR\r\n", "OK \r\n", " OK", "OK\r\nERROR", "OKOK", "ok"}) {
        EXPECT_FALSE(GetAtCommandExecStatus(bad)) << bad;
    }
    EXPECT_TRUE(log.messages().empty());
    EXPECT_FALSE(GetAtCommandExecStatus(""));
    EXPECT_FALSE(GetAtCommandExecStatus("\r\n\n"));
    EXPECT_EQ(log.Count("AT command: execution status not found"), 2u);
}

// --- flushing ---

TEST_F(Mipc, TheConfiguredIntervalIsWhatTheModemTook) {
    EXPECT_TRUE(SetFlushInterval(500));
    EXPECT_EQ(g_quarn.flush_interval, 500u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "Set flush interval to 500 by MIPC command"));
    modem.FailIpc(119, IpcFault::kSilence, 1, 1);
    EXPECT_FALSE(SetFlushInterval(600));
    EXPECT_EQ(g_quarn.flush_interval, 500u);
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_ERROR,
                "SendSetFlushIntervalCommand: Error setting flush interval MIPC command: 2"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "SetFlushInterval: Error setting flush interval"));
}

TEST_F(Mipc, FlushingShortensTheIntervalThenDrainsTheRing) {
    using Lines = std::vector<std::string>;
    const std::string shorter = "Set flush interval to 50 by MIPC command";
    const std::string failed =
        "SendSetFlushIntervalCommand: Error setting flush interval MIPC command: 1";
    const struct {
        int configured;
        std::vector<int> results;  // of the modem's answers
        Lines lines;
    } rows[] = {
        {51, {0, 0}, {shorter, "Set flush interval to 51 by MIPC command"}},
        {50, {}, {}},
        {-1, {}, {}},
        {600000, {1}, {failed}},
        {600000, {0, 1}, {shorter, failed}},
    };
    for (const auto& row : rows) {
        g_quarn.flush_interval = static_cast<uint32_t>(row.configured);
        const size_t sent = Sent(119).size();
        for (const int result : row.results) modem.FailIpc(119, IpcFault::kResult, result, 1);
        log.Clear();
        const auto start = std::chrono::steady_clock::now();
        FlushLogBuffers();
        EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
        Lines lines;
        for (const auto& message : log.messages()) {
            if (message.text.find("flush interval to") != std::string::npos ||
                message.text.find("Error") != std::string::npos) {
                lines.push_back(message.text);
            } else if (message.text == "writer_handler: handle exec_id=18") {
                lines.push_back("drain");
            }
        }
        Lines expected = row.lines;
        expected.push_back("drain");
        EXPECT_EQ(lines, expected);
        EXPECT_EQ(log.messages().back().text, "Flush log buffers done");
        EXPECT_EQ(Sent(119).size(), sent + row.results.size());
        EXPECT_EQ(static_cast<int>(g_quarn.flush_interval), row.configured);
    }
}

// --- notifications ---

class Notify : public testing::Test {
  protected:
    Notify() {
        std::iota(payload.begin(), payload.end(), uint8_t{1});
        EXPECT_EQ(handler.init(), 0);
        mcl_init();
    }
    ~Notify() override { mcl_deinit(); }

    void Raise(int code, bool with_payload = true) {
        modem.Notify(static_cast<MCL_NTFY_CODE>(code), with_payload ? payload.data() : nullptr,
                     payload.size());
        modem.WaitForNotifications();
    }
    // Who got requests, in order: R, W, L.
    std::string Requests(int code) const {
        const std::string tail = ": handle exec_id=" + std::to_string(code);
        std::string who;
        for (const auto& message : log.messages()) {
            if (!message.text.ends_with(tail)) continue;
            const char first = message.text[0];
            who += first == 'r' ? 'R' : first == 'w' ? 'W' : first;
        }
        return who;
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    QUARN_NOTIFY_HANDLER handler;
    std::array<uint8_t, 216> payload = {};
};

struct NotifyRow {
    int code;
    const char* requests;
    size_t record;  // where the modem information starts; 0: there is none
};

void PrintTo(const NotifyRow& row, std::ostream* out) { *out << row.code; }

class NotifyCode : public Notify, public testing::WithParamInterface<NotifyRow> {};
INSTANTIATE_TEST_SUITE_P(Each, NotifyCode,
                         testing::Values(NotifyRow{1, "RWL", 8}, NotifyRow{2, "WL", 0},
                                         NotifyRow{3, "RW", 4}, NotifyRow{4, "W", 0},
                                         NotifyRow{5, "RW", 0}, NotifyRow{6, "RW", 4},
                                         NotifyRow{7, "W", 0}, NotifyRow{9, "", 4},
                                         NotifyRow{0, "", 0}, NotifyRow{10, "", 0}),
                         [](const auto& row) { return std::to_string(row.param.code); });

TEST_P(NotifyCode, KeepsTheModemInformationAndAsksTheHandles) {
    const auto& [code, requests, record] = GetParam();
    const auto known = [] {
        std::lock_guard lock(g_quarn.md_info_mutex);
        return g_quarn.md_info_time;
    };
    Raise(code, false);
    EXPECT_EQ(Requests(code), requests);
    EXPECT_EQ(known(), 0);
    log.Clear();
    const time_t before = time(nullptr);
    Raise(code);
    EXPECT_EQ(log.Count("notify_handler: ntfy_code=" + std::to_string(code)), 1u);
    EXPECT_EQ(Requests(code), requests);
    EXPECT_EQ(
        log.Has(ANDROID_LOG_WARN, "notify_handler: unknown ntfy_code=" + std::to_string(code)),
        code == 0 || code == 10);
    EXPECT_EQ(modem.calls().write, code == 6 ? 2u : 0u);
    if (record == 0) {
        EXPECT_EQ(known(), 0);
        return;
    }
    EXPECT_GE(known(), before);
    std::lock_guard lock(g_quarn.md_info_mutex);
    EXPECT_EQ(memcmp(&g_quarn.md_info, payload.data() + record, 204), 0);
    EXPECT_EQ(memcmp(&g_quarn.md_info_word_a, payload.data() + record + 204, 4), 0);
}

TEST_F(Notify, TheStorageQueryIsAnsweredInPlace) {
    for (const auto& [type, answer] :
         {std::pair{SAVE_MODE_STORAGE, 1u}, {SAVE_MODE_USB, 0u}, {SAVE_MODE_SOCKET, 0u}}) {
        g_quarn.transfer_type = type;
        uint32_t words[2] = {7, 7};
        EXPECT_EQ(quarn_mclNtfyCallback(nullptr, NTFY_QUERY_STORAGE_MODE, words), 0);
        EXPECT_EQ(words[0], answer);
        EXPECT_EQ(words[1], 7u);
    }
    EXPECT_EQ(quarn_mclNtfyCallback(nullptr, NTFY_QUERY_STORAGE_MODE, nullptr), 0);
}

TEST_F(Notify, AnExceptionPutsTheSyncBlockIntoThePort) {
    constexpr char kFailed[] = "notify_handler: write sync data failed";
    const std::string block(
        "\xac\xca\xef\x10\x18\0\0\0\x10\xa0\0\0\xa4\x6a\xef\x10\x17\x08\0\0"
        "\xac\xdb\xcf\xe5\x16\x10\0\0\0\x2e\0\x2e\0\x02\0\0\xbd\xdb\x5e\0",
        40);
    g_quarn.transfer_type = SAVE_MODE_USB;
    Raise(6);
    EXPECT_EQ(modem.calls().write, 0u);
    g_quarn.transfer_type = SAVE_MODE_STORAGE;
    modem.FailWrites(10);
    const auto start = std::chrono::steady_clock::now();
    Raise(6);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(modem.calls().write, 11u);
    EXPECT_EQ(modem.written(), block);
    EXPECT_EQ(log.Count(kFailed), 0u);
    modem.FailWrites(11);
    Raise(6);
    EXPECT_EQ(modem.calls().write, 22u);
    EXPECT_EQ(modem.written(), block);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, kFailed));
}

TEST_F(Notify, NothingHappensAfterTheEnd) {
    g_quarn.callbacks_ended = true;
    uint32_t word = 7;
    for (int code = 1; code <= 9; ++code) {
        EXPECT_EQ(quarn_mclNtfyCallback(nullptr, static_cast<MCL_NTFY_CODE>(code),
                                        code == 8 ? static_cast<void*>(&word) : payload.data()),
                  0);
        EXPECT_EQ(Requests(code), "");
    }
    EXPECT_EQ(word, 7u);
    EXPECT_EQ(g_quarn.md_info_time, 0);
    EXPECT_EQ(modem.calls().write, 0u);
}

}  // namespace
