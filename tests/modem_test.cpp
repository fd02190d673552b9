// Modem IPC commands, flushing, notifications.
#include "sim/modem.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
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

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
};

// --- one row for each command ---

long noon = 1709208000;  // 2024-02-29 12:00:00 UTC

struct Command {
    int id;
    const char* name;
    const char* asks_for;  // null if the command returns no value
    int32_t (*run)(int* answer);
    std::vector<std::string> values;  // values of the types 256, 257, ...
};

template <auto kSetter, int kNumber>
int32_t Set(int*) {
    return kSetter(kNumber);
}

int32_t SetFilter(int* answer) {
    char bytes[] = {'a', '\0', '\n', '\xff'};
    return quarn_mipcSetCustomFilter(sizeof(bytes), bytes, answer);
}

const Command kCommands[] = {
    {39, "set log mode", nullptr, Set<quarn_mipcSetLogMode, 2>, {Number(2)}},
    {39, "set log mode", nullptr, Set<quarn_mipcSetLogMode, 0>, {Number(0), "\1"}},
    {41, "get log mode", "log mode", quarn_mipcGetLogMode, {}},
    {43, "set log level", nullptr, Set<quarn_mipcSetLogLevel, 5>, {Number(5)}},
    {45, "get log level", "log level", quarn_mipcGetLogLevel, {}},
    {65,
     "set time req",
     nullptr,
     [](int*) { return quarn_mipcSetTime(&noon); },
     {Number(2024), Number(2), Number(29), Number(12), Number(0), Number(0), Number(0)}},
    {119, "set flush interval", nullptr, Set<quarn_mipcSetFlushInterval, 70000>, {Number(70000)}},
    {121, "get flush interval", "flush interval", quarn_mipcGetFlushInterval, {}},
    {137, "trigger flush", "trigger flush result", quarn_mipcTriggerFlush, {}},
    {139, "get flush status", "flush status", quarn_mipcGetFlushStatus, {}},
    {161, "set filter", "(set filter)", SetFilter, {std::string("a\0\n\xff", 4)}},
};

// Runs each test with a library that returns the lengths of values, and with one that does not.
class MipcLibrary : public Mipc, public testing::WithParamInterface<bool> {
  protected:
    MipcLibrary() {
        if (!tells_lengths) modem.FailIpc(0, IpcFault::kNoLength, 0, INT_MAX);
    }
    const bool tells_lengths = GetParam();
};
INSTANTIATE_TEST_SUITE_P(Lengths, MipcLibrary, testing::Bool());

TEST_P(MipcLibrary, CommandsSendTheirValuesAndReportEachFailureOnce) {
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
    for (const auto& [id, name, asks_for, run, values] : kCommands) {
        SCOPED_TRACE(name);
        modem.FailIpc(id, IpcFault::kAnswer, 77, 1);
        uint64_t exchanges = modem.ipc_status().exchanges;
        int answer = kUntouched;
        EXPECT_EQ(run(&answer), 0);
        EXPECT_EQ(answer, asks_for != nullptr ? 77 : kUntouched);
        EXPECT_EQ(modem.ipc_status().exchanges, ++exchanges);
        modem.FailIpc(id, IpcFault::kAnswer, 0, 0);
        const sim::IpcRequest request = modem.ipc_requests().back();
        EXPECT_EQ(request.message.id(), id);
        EXPECT_EQ(request.selector, 16);
        EXPECT_EQ(request.timeout_ms, 5000);
        ASSERT_EQ(request.message.count(), values.size());
        for (size_t i = 0; i < values.size(); ++i) {
            const auto bytes = request.message.Bytes(256 + static_cast<int>(i));
            EXPECT_EQ(std::string(bytes.begin(), bytes.end()), values[i]) << i;
        }

        const auto fails = [&](int32_t status, const std::string& message, const char* reason) {
            log.Clear();
            answer = kUntouched;
            EXPECT_EQ(run(&answer), status);
            EXPECT_EQ(answer, kUntouched);
            EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message)) << message;
            EXPECT_TRUE(reason == nullptr || log.Has(ANDROID_LOG_ERROR, reason)) << reason;
            EXPECT_EQ(log.messages().size(), reason != nullptr ? 2u : 1u);
        };
        const std::string sending = std::string("send mipc cmd (") + name + ") fail, mipc_rc = ";
        for (const auto& fault : faults) {
            modem.FailIpc(id, fault.kind, fault.value, 1);
            fails(fault.status, sending + std::to_string(fault.status) + "\n", fault.reason);
        }
        if (!values.empty()) {  // an incomplete request is not sent
            exchanges = modem.ipc_status().exchanges;
            modem.FailIpc(id, IpcFault::kValue, 0, 1);
            fails(1, sending + "1\n", nullptr);
            EXPECT_EQ(modem.ipc_status().exchanges, exchanges);
        }
        if (asks_for != nullptr) {
            const std::string asked = asks_for;
            for (int missing = 0; missing <= (tells_lengths ? 4 : 0); ++missing) {
                modem.FailIpc(id, missing == 0 ? IpcFault::kNoAnswer : IpcFault::kShort, missing,
                              1);
                fails(1, "get mipc cmd cnf " + asked + " fail, mipc_rc = 0\n", nullptr);
            }
        }
        quarn_mipcDeinit();
        fails(1, sending + "1\n", nullptr);
        EXPECT_EQ(quarn_mipcInit(kPort), 0);
    }
}

// --- the channel ---

TEST(MipcChannel, OpensOnceAtATime) {
    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    std::string response;
    quarn_mipcDeinit();  // the channel was never open
    EXPECT_FALSE(SendAtCommandByMipc("AT", response));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "AT command: Send mipc cmd failed: 1"));
    mipc_msg_t* confirmation = nullptr;
    EXPECT_EQ(quarn_mipcSendCmd(nullptr, &confirmation), 1);
    EXPECT_EQ(log.Count("send mipc cmd fail, ..."), 0u);  // the library was not called

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
    std::atomic<bool> closed = false, let_up = false;
    modem.FailIpc(45, IpcFault::kDelay, 30, INT_MAX);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            int level = 0;
            while (!let_up) answered += quarn_mipcGetLogLevel(&level) == 0 ? 1 : 0;
        });
    }
    EXPECT_TRUE(test::WaitUntil([&] { return modem.ipc_status().under_way == kThreads; }));
    threads.emplace_back([&] {
        constexpr char kRefused[] = "send mipc cmd (get log level) fail, mipc_rc = 1\n";
        EXPECT_TRUE(
            test::WaitUntil([&] { return closed && log.Has(ANDROID_LOG_ERROR, kRefused); }));
        let_up = true;
    });
    quarn_mipcDeinit();
    closed = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_GE(answered, kThreads);  // exchanges that had begun ended well
    EXPECT_EQ(log.Count("send mipc cmd fail, ..."), 0u);
}

// --- log mode, time, AT commands ---

TEST_F(Mipc, StreamingSendsTheIntervalAgainThatTheModemTook) {
    EXPECT_TRUE(SetFlushInterval(1234));
    modem.FailIpc(119, IpcFault::kSilence, 1, 1);
    EXPECT_FALSE(SetFlushInterval(600));
    EXPECT_EQ(g_quarn.flush_interval, 1234u);
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_ERROR,
                "SendSetFlushIntervalCommand: Error setting flush interval MIPC command: 2"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "SetFlushInterval: Error setting flush interval"));
    for (const int mode : {1, 2}) EXPECT_EQ(quarn_mipcSetLogMode(mode), 0);
    EXPECT_EQ(log.Count("Set flush interval to 1234 by MIPC command"), 2u);
    modem.FailIpc(119, IpcFault::kResult, 1, 1);
    EXPECT_EQ(quarn_mipcSetLogMode(1), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "HandleLogMode: set flush interval to 1234 failed!"));
}

TEST_F(Mipc, TimeIsUtcWithTheLocalOffset) {
    for (const auto& [zone, minutes] :
         {std::pair{"UTC0", 0}, {"EAST-5:30", 330}, {"WEST3:30", -210}, {"ODD0:01:59", -1}}) {
        setenv("TZ", zone, 1);
        tzset();
        log.Clear();
        EXPECT_EQ(quarn_mipcSetTime(&noon), 0);
        const std::string offset = std::to_string(minutes);
        EXPECT_EQ(modem.ipc_status().clock,
                  "2024-02-29 12:00:00 UTC, offset " + offset + " minutes");
        EXPECT_EQ(log.Count("MIPC SYS_SET_TIME_REQ: 2024/2/29 - 12:0:0 - " + offset + "\n"), 1u);
    }
    const uint64_t exchanges = modem.ipc_status().exchanges;
    long never = LONG_MAX;
    EXPECT_EQ(quarn_mipcSetTime(&never), 1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "get gmtime fail\n"));
    EXPECT_EQ(modem.ipc_status().exchanges, exchanges);
}

TEST_P(MipcLibrary, AtCommandsGiveWhateverTextCameBack) {
    std::string response = "old";
    modem.AnswerAt("ERROR\r\n", 1);
    EXPECT_TRUE(SendAtCommandByMipc("AT+X", response));
    EXPECT_EQ(response, "ERROR\r\n");
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "AT command: Send mipc cmd: AT+X"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_DEBUG, "AT command: Return result message: ERROR\r\n"));
    const sim::IpcRequest request = modem.ipc_requests().back();
    const auto text = request.message.Bytes(33024);
    EXPECT_EQ(std::string(text.begin(), text.end()), std::string("AT+X\0", 5));
    modem.AnswerAt("OK", 1);
    modem.FailIpc(3, IpcFault::kShort, 1, 1);  // without its NUL, if the library returns lengths
    EXPECT_TRUE(SendAtCommandByMipc("AT", response));
    EXPECT_EQ(response, "OK");
    constexpr size_t kNearestNul = 65535;  // offset of the last byte in which a NUL is searched
    for (const size_t size : {kNearestNul, kNearestNul + 1}) {
        const bool ends = size == kNearestNul || tells_lengths;
        modem.AnswerAt(std::string(size, 'x'), 1);
        EXPECT_EQ(SendAtCommandByMipc("AT", response), ends);
        EXPECT_EQ(response, std::string(ends ? size : 0, 'x'));
    }

    for (const auto& [kind, message] :
         {std::pair{IpcFault::kMessage, "AT command: Init mipc cmd message failed"},
          {IpcFault::kValue, "AT command: Form mipc cmd message failed"},
          {IpcFault::kSilence, "AT command: Send mipc cmd failed: 2"},
          {IpcFault::kNoAnswer, "AT command: Get mipc cmd cnf result failed"}}) {
        response = "old";
        modem.FailIpc(3, kind, 1, 1);
        EXPECT_FALSE(SendAtCommandByMipc("AT", response));
        EXPECT_EQ(response, "");
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, message)) << message;
    }
}

TEST(AtStatus, IsTheLastLine) {
    for (const char* good : {"OK", "AT+X\r\nOK\r\n", "ERROR\nOK\n\r\n"}) {
        EXPECT_TRUE(GetAtCommandExecStatus(good)) << good;
    }
    for (const char* bad : {"", "OK \r\n", " OK", "OK\r\nERROR", "OKOK", "ok"}) {
        EXPECT_FALSE(GetAtCommandExecStatus(bad)) << bad;
    }
}

// --- flushing ---

TEST_F(Mipc, FlushingShortensTheIntervalThenDrainsTheRing) {
    const std::string shorter = "Set flush interval to 50 by MIPC command";
    const std::string failed =
        "SendSetFlushIntervalCommand: Error setting flush interval MIPC command: 1";
    const std::string drain = "writer_handler: handle exec_id=18";
    const struct {
        int configured;
        std::vector<int> results;  // result codes of the modem's answers
        std::vector<std::string> lines;
    } rows[] = {
        {51, {0, 0}, {shorter, "Set flush interval to 51 by MIPC command", drain}},
        {50, {}, {drain}},
        {-1, {}, {drain}},
        {600000, {1}, {failed, drain}},
        {600000, {0, 1}, {shorter, failed, drain}},
    };
    for (const auto& row : rows) {
        g_quarn.flush_interval = static_cast<uint32_t>(row.configured);
        for (const int result : row.results) modem.FailIpc(119, IpcFault::kResult, result, 1);
        log.Clear();
        const auto start = std::chrono::steady_clock::now();
        FlushLogBuffers();
        // The modem gets 50 ms, the ring its first 1.5 s.
        EXPECT_GE(std::chrono::steady_clock::now() - start, 1550ms);
        std::vector<std::string> lines;
        for (const auto& [priority, text] : log.messages()) {
            if (text.starts_with("Se") || text == drain) lines.push_back(text);
        }
        EXPECT_EQ(lines, row.lines);
        EXPECT_EQ(log.messages().back().text, "Flush log buffers done");
        EXPECT_EQ(static_cast<int>(g_quarn.flush_interval), row.configured);
    }
}

// --- notifications ---

class Notify : public testing::Test {
  protected:
    Notify() {
        EXPECT_EQ(handler.init(), 0);
        mcl_init();
    }
    ~Notify() override { mcl_deinit(); }

    void Raise(int code, bool with_payload = true) {
        modem.Notify(static_cast<MCL_NTFY_CODE>(code), with_payload ? payload.data() : nullptr,
                     payload.size());
        modem.WaitForNotifications();
    }
    // Returns which handles got requests, in order: r (reader), w (writer), L (log filter manager).
    std::string Requests(int code) const {
        std::string who;
        for (const auto& [priority, text] : log.messages()) {
            if (text.ends_with(": handle exec_id=" + std::to_string(code))) who += text[0];
        }
        return who;
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    QUARN_NOTIFY_HANDLER handler;
    std::array<uint8_t, 216> payload = {};
};

TEST_F(Notify, KeepTheModemInformationAndAskTheHandlesUntilTheEnd) {
    const struct {
        int code;
        const char* requests;
        size_t record;  // offset of the modem information; 0 if there is none
    } rows[] = {{1, "rwL", 8}, {2, "wL", 0}, {3, "rw", 4}, {4, "w", 0}, {5, "rw", 0},
                {6, "rw", 4},  {7, "w", 0},  {9, "", 4},   {0, "", 0},  {10, "", 0}};
    for (const auto& [code, requests, record] : rows) {
        SCOPED_TRACE(code);
        const std::string number = std::to_string(code);
        std::iota(payload.begin(), payload.end(), static_cast<uint8_t>(code));
        for (const bool with_payload : {false, true}) {
            log.Clear();
            g_quarn.md_info_time = 0;
            Raise(code, with_payload);
            EXPECT_EQ(log.Count("notify_handler: ntfy_code=" + number), 1u);
            EXPECT_EQ(log.Count("notify_handler: unknown ntfy_code=" + number),
                      code % 10 ? 0u : 1u);
            EXPECT_EQ(Requests(code), requests);
            const std::lock_guard lock(g_quarn.md_info_mutex);
            EXPECT_EQ(g_quarn.md_info_time != 0, with_payload && record != 0);
        }
        if (record == 0) continue;
        const std::lock_guard lock(g_quarn.md_info_mutex);
        EXPECT_EQ(memcmp(&g_quarn.md_info, payload.data() + record, 204), 0);
        EXPECT_EQ(memcmp(&g_quarn.md_info_word_a, payload.data() + record + 204, 4), 0);
    }
    log.Clear();
    g_quarn.md_info_time = 0;
    // quarn_endCallbacks waits for a callback that is running.
    std::unique_lock running(g_quarn.exec_mutex);
    std::thread end(quarn_endCallbacks);
    EXPECT_FALSE(test::WaitUntil([] { return g_quarn.callbacks_ended.load(); }, 100ms));
    running.unlock();
    end.join();
    for (int code = 1; code <= 9; ++code) {
        Raise(code);
        EXPECT_EQ(Requests(code), "");
    }
    EXPECT_EQ(g_quarn.md_info_time, 0);
    EXPECT_EQ(modem.calls().write, 2u);  // for the two exceptions above
}

TEST_F(Notify, TheStorageQueryIsAnsweredInPlace) {
    for (const auto& [type, answer] : {std::pair{SAVE_MODE_STORAGE, 1u}, {SAVE_MODE_USB, 0u}}) {
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
    EXPECT_EQ(log.messages().back().text, kFailed);  // the capture was marked before
}

}  // namespace
