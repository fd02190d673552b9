// The log filter manager.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "core/quarn.h"
#include "modem/log_filter_manager.h"
#include "modem/quarn_mipc_cmd.h"
#include "sim/modem.h"
#include "support.h"

namespace {

using quarn::zorvex::LogFilterManagerHandle;
using sim::IpcFault;

constexpr const char* kFilter = "/data/filter";
const std::string kFilterBytes("\0\r\n\xff text", 9);
constexpr const char* kGaveUp = "SendSetCommand: Error setting log filter by MIPC command";

class LogFilters : public testing::Test {
  protected:
    LogFilters() {
        quarn_mipcInit("/dev/wwanD0MIPC0");
        modem.SetLogMode(1);
        test::WriteFile(kFilter, kFilterBytes);
        manager.init();
    }
    ~LogFilters() override { quarn_mipcDeinit(); }

    void Enter(int state) {
        if ((state & 0x0F) == 1) {
            EXPECT_EQ(Exec(EXEC_MD_LOG_START), 0);
        }
        if ((state & 0xF0) == 0) {
            EXPECT_EQ(Exec(EXEC_LOGGING_STATE_NORMAL), 0);
        }
        settled = modem.ipc_requests().size();
        log.Clear();
    }
    int32_t Exec(QUARN_EXEC_ID id, const void* arg = nullptr) {
        return manager.exec(id, const_cast<void*>(arg));
    }
    // Returns the levels and filters that the modem got since the manager entered its state.
    std::string Reached() const {
        std::string text;
        const auto requests = modem.ipc_requests();
        for (size_t i = settled; i < requests.size(); ++i) {
            const auto& message = requests[i].message;
            if (message.id() == 43) text += "level " + std::to_string(*message.Number(256)) + ";";
            if (message.id() != 161) continue;
            const auto bytes = message.Bytes(256);
            text += std::string(bytes.begin(), bytes.end()) == kFilterBytes ? "filter;" : "bytes;";
        }
        return text;
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
    LogFilterManagerHandle manager;
    size_t settled = 0;
};

// --- one row for each state and request ---

struct Row {
    int state;
    QUARN_EXEC_ID id;
    const void* arg;
    int32_t result;
    std::string message;  // one of the messages
    const char* reached;
    const char* reached_once_normal = nullptr;  // after the request that ends the power-on phase
};

constexpr int32_t kThree = 3, kSix = 6, kSeven = 7, kMinusOne = -1;
constexpr QUARN_EXEC_ID kStart = EXEC_MD_LOG_START, kStop = EXEC_MD_LOG_STOP,
                        kLevel = EXEC_SET_LOG_LEVEL, kSetFilter = EXEC_SET_LOG_FILTER,
                        kNormal = EXEC_LOGGING_STATE_NORMAL;
const std::string kChanged = "Log Filter Manager: logging state changes to ";
const std::string kRefusedLevel = "exec: Error setting log level in logging state ";
const std::string kRefusedFilter = "exec: Error setting log filter in logging state ";

const Row kRows[] = {
    {0x10, kStart, nullptr, 0, kChanged + "0x11", "", "level 2;"},
    {0x10, kStop, nullptr, 1, "exec: Error changing state LM = stop", ""},
    {0x10, kLevel, &kThree, 1, kRefusedLevel + "0x10", ""},
    {0x10, kSetFilter, kFilter, 1, kRefusedFilter + "0x10", ""},
    {0x10, kNormal, nullptr, 0, kChanged + "0x0", ""},
    {0x11, kStart, nullptr, 1, "exec: Error changing state LM = start", "", "level 2;"},
    {0x11, kStop, nullptr, 0, kChanged + "0x10", "", ""},
    {0x11, kLevel, &kThree, 0, "Log Filter Manager: get input command log_level=3", "", "level 3;"},
    {0x11, kLevel, &kSeven, 1, "SetLogLevel: Error inputting invalid log level", "", "level 2;"},
    {0x11, kLevel, nullptr, 1, "exec: Error getting null log level", "", "level 2;"},
    {0x11, kSetFilter, kFilter, 0, kChanged + "0x1", "filter;"},
    {0x11, kSetFilter, nullptr, 1, "SetLogFilter: Error getting null log filter", "", "level 2;"},
    {0x11, kNormal, nullptr, 0, kChanged + "0x1", "level 2;"},
    {0x01, kStop, nullptr, 0, kChanged + "0x0", ""},
    {0x01, kLevel, &kSix, 0, "Log Filter Manager: set log_level=6 successfully", "level 6;"},
    {0x01, kLevel, &kMinusOne, 1, "SetLogLevel: Error inputting invalid log level", ""},
    {0x01, kSetFilter, kFilter, 0, "Log Filter Manager: set log_filter=/data/filter successfully",
     "filter;"},
    {0x01, kNormal, nullptr, 0, "Log Filter Manager: LS is already in Normal", ""},
    {0x00, kStart, nullptr, 0, kChanged + "0x1", ""},
    {0x00, kLevel, &kThree, 1, kRefusedLevel + "0x0", ""},
    {0x00, kSetFilter, kFilter, 1, kRefusedFilter + "0x0", ""},
};

TEST_F(LogFilters, ServeEachRequestInEachState) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.message);
        manager.init();
        Enter(row.state);
        EXPECT_EQ(Exec(row.id, row.arg), row.result);
        EXPECT_EQ(log.Count(row.message), 1u);
        EXPECT_EQ(Reached(), row.reached);
        const std::string line = "Log Filter Manager: handle exec_id=" + std::to_string(row.id);
        EXPECT_EQ(log.messages().front().text, line);
        EXPECT_EQ(log.messages().back().text, line + " done");
        if (row.reached_once_normal == nullptr) continue;
        EXPECT_EQ(Exec(kNormal), 0);
        EXPECT_EQ(Reached(), row.reached_once_normal);
    }
    EXPECT_EQ(Exec(EXEC_START), 1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "exec: Error getting unknown exec_id"));
}

// --- sending ---

TEST_F(LogFilters, ASecondAttemptCountsAndAThirdDoesNot) {
    Enter(0x01);
    modem.FailIpc(43, IpcFault::kResult, 9, 1);
    EXPECT_EQ(Exec(kLevel, &kThree), 0);
    EXPECT_EQ(Reached(), "level 3;level 3;");
    EXPECT_EQ(log.Count("SendMipcSetCommand: Error setting log_level=3, mipc_rc=1"), 1u);

    modem.FailIpc(43, IpcFault::kResult, 9, 2);
    EXPECT_EQ(Exec(kLevel, &kSix), 1);
    EXPECT_EQ(Reached(), "level 3;level 3;level 6;level 6;level 6;");
    EXPECT_EQ(modem.settings().log_level, 6);
    EXPECT_EQ(log.Count(kGaveUp), 1u);
    EXPECT_TRUE(manager.SendSetCommand());  // it is still pending
}

TEST_F(LogFilters, NothingIsSentWhileTheModemIsNotLogging) {
    Enter(0x01);
    modem.SetLogMode(0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Exec(kLevel, &kThree), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));
    EXPECT_EQ(log.Count("SendSetCommand: Error unexpected logging mode"), 3u);
    EXPECT_EQ(log.Count(kGaveUp), 1u);
    g_quarn.is_close = true;  // the daemon is ending, and waits for this call
    EXPECT_FALSE(manager.SendSetCommand());
    EXPECT_EQ(log.Count("SendSetCommand: Error unexpected logging mode"), 4u);
    g_quarn.is_close = false;
    EXPECT_EQ(Reached(), "");
    modem.SetLogMode(2);
    modem.FailIpc(41, IpcFault::kSilence, 1, 1);
    EXPECT_TRUE(manager.SendSetCommand());
    EXPECT_EQ(Reached(), "level 3;");
}

TEST_F(LogFilters, AFilterGoesOutAsItIs) {
    Enter(0x01);
    modem.FailIpc(161, IpcFault::kAnswer, 9, 1);
    EXPECT_EQ(Exec(kSetFilter, kFilter), 0);
    EXPECT_EQ(Reached(), "filter;filter;");
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_ERROR,
                "SendMipcSetCommand: Error setting log_filter=/data/filter, mipc_rc=0, result=9"));
    for (const size_t size : {0, 16 << 20}) {
        std::filesystem::resize_file(kFilter, size);
        EXPECT_EQ(Exec(kSetFilter, kFilter), 0);
        EXPECT_EQ(modem.settings().filter.size(), size);
    }
}

// --- paths that are no filters, either when they are chosen or when they are read ---

const struct {
    const char* name;
    std::function<void(const char* path)> make;
    const char* message;  // message when the file is read
} kOddFiles[] = {
    {"Fifo", [](auto path) { mkfifo(path, 0600); }, "using"},
    {"Device", [](auto path) { std::filesystem::create_symlink("/dev/zero", path); }, "using"},
    {"Huge",
     [](auto path) {
         test::WriteFile(path, "");
         std::filesystem::resize_file(path, (16 << 20) + 1);
     },
     "using"},
    {"Gone", [](auto) {}, "opening"},
};

TEST_F(LogFilters, OddPathsAreRefusedAndNeverBlock) {
    for (const auto& [name, make, message] : kOddFiles) {
        SCOPED_TRACE(name);
        const std::string odd = std::string("/data/") + name;
        make(odd.c_str());
        manager.init();
        Enter(0x11);
        EXPECT_EQ(Exec(kSetFilter, odd.c_str()), 1);
        EXPECT_EQ(log.Count("SetLogFilter: Error ..."), 1u);
        EXPECT_EQ(Exec(kNormal), 0);
        EXPECT_EQ(Reached(), "level 2;");  // the previous level stays

        manager.init();
        Enter(0x11);
        test::WriteFile("/data/swapped", "filter");
        EXPECT_TRUE(manager.SetLogFilter("/data/swapped"));
        std::filesystem::remove("/data/swapped");
        make("/data/swapped");
        EXPECT_EQ(Exec(kNormal), 1);
        EXPECT_EQ(Reached(), "");
        EXPECT_EQ(log.Count(std::string("SendMipcSetCommand: Error ") + message +
                            " log filter /data/swapped..."),
                  3u);
        std::filesystem::remove("/data/swapped");
    }
}

}  // namespace
