// The configuration file: loading, applying, saving.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "control/quarn_command.h"
#include "core/quarn.h"
#include "core/quarn_config.h"
#include "core/setting_table.h"
#include "core/utility.h"
#include "modem/quarn_mipc_cmd.h"
#include "sim/modem.h"
#include "support.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

const std::string kPath = kConfigPath;
const std::string kDefault = "/vendor/etc/quarn_default.cfg";
const std::string kLogs = "/data/vendor/radio/quarn/logs/";
constexpr int kGetLogMode = 41;  // message ids of modem IPC
constexpr int kSetFlushInterval = 119;

class Config : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories("/data/vendor/radio");
        g_file_io.create_top_folder();
        g_writer.init();
        g_notify.init();
        g_log_filter_manager.init();
        mcl_init();
        quarn_mipcInit("/dev/wwanD0MIPC0");
    }
    void TearDown() override {
        quarn_mipcDeinit();
        mcl_deinit();
    }

    // Writes `text` to the configuration file and loads it.
    int32_t Load(const std::string& text, int32_t log_mode_only = 0) {
        test::WriteFile(kPath, text);
        log.Clear();
        return quarn_loadConfig(kConfigPath, log_mode_only);
    }
    static unsigned int Recycle(QUARN_RECYCLE_OPT opt) {
        unsigned int value = 0;
        EXPECT_EQ(g_file_io.get_recycle_option(opt, &value), 0);
        return value;
    }
    // Ends the power-on phase, so that the log filter manager sends the pending level or filter.
    static void EndPowerOnPhase() {
        std::lock_guard lock(g_quarn.exec_mutex);
        quarn_runHandleExec(HANDLE_LOG_FILTER_MANAGER, EXEC_LOGGING_STATE_NORMAL, nullptr);
    }

    test::LogCapture log;
    sim::Modem& modem = sim::Modem::Instance();
};

}  // namespace

TEST(ConfigText, StrictReading) {
    using quarn::zorvex::ParseIntConfig;
    using quarn::zorvex::ParseStringConfig;
    const std::string missing = "The value of config key is missing in the file";
    const std::string invalid = "The value of config key is invalid";
    const std::string range = "The value of config key is out of range";
    const std::string unended = "Config key ends without a newline in the file";
    const struct {
        const char* text;
        bool int_read;
        int number;
        std::string int_warning;
        bool string_read;
        std::string string;
        std::string string_warning;
    } cases[] = {
        {"other 1\n", false, 7, "", false, "old", ""},
        {"other 1\nkey \t-3\nkey 4\n", true, -3, "", true, "-3", ""},
        {"a key5\n", true, 5, "", true, "5", ""},
        {"key \t\n", false, 7, missing, false, "old", missing},
        {"key +1\n", false, 7, invalid, true, "+1", ""},
        {"key 2147483648\n", false, 7, range, true, "2147483648", ""},
        {"key -2147483648\n", true, -2147483647 - 1, "", true, "-2147483648", ""},
        {"key 2", false, 2, unended, false, "old", unended},
        {"key 2\r\n", false, 2, unended, true, "2\r", ""},
    };
    test::LogCapture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        int number = 7;
        log.Clear();
        EXPECT_EQ(ParseIntConfig(c.text, "key", number), c.int_read);
        EXPECT_EQ(number, c.number);
        EXPECT_EQ(log.messages().size(), c.int_warning.empty() ? 0u : 1u);
        EXPECT_EQ(log.Has(ANDROID_LOG_WARN, c.int_warning), !c.int_warning.empty());

        std::string string = "old";
        log.Clear();
        EXPECT_EQ(ParseStringConfig(c.text, "key", string), c.string_read);
        EXPECT_EQ(string, c.string);
        EXPECT_EQ(log.messages().size(), c.string_warning.empty() ? 0u : 1u);
        EXPECT_EQ(log.Has(ANDROID_LOG_WARN, c.string_warning), !c.string_warning.empty());
    }
}

TEST(ConfigText, WhatCommandsSaveIsASetting) {
    std::set<std::string> saved, settings;
    for (const QUARN_COMMAND_INFO& command : quarn_commandTable()) {
        if (command.save_on_success != 0) saved.insert(command.name);
    }
    for (const auto& setting : quarn::zorvex::kSettings) settings.insert(setting.key);
    EXPECT_EQ(saved, settings);
}

TEST_F(Config, AMissingFileIsMadeFromTheDefault) {
    EXPECT_EQ(quarn_loadConfig(kConfigPath, 0), -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "open file: " + kPath + " failed, errno=..."));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "no default config file"));
    EXPECT_FALSE(fs::exists(kPath));

    const std::string text = "file_size 9\nlog_mode 2\n";
    test::WriteFile(kDefault, text);
    EXPECT_EQ(quarn_loadConfig(kConfigPath, 0), 0);
    EXPECT_EQ(test::ReadFile(kPath), text);
    EXPECT_EQ(fs::status(kPath).permissions(), fs::perms{0774});
    EXPECT_EQ(g_file_io.get_file_size(), 9);
    EXPECT_EQ(modem.settings().log_mode, 2);
    // The factory default is copied only if the file does not exist.
    fs::remove(kPath);
    fs::create_directory(kPath);
    EXPECT_EQ(quarn_loadConfig(kConfigPath, 0), -1);
    EXPECT_TRUE(fs::is_empty(kPath));
}

TEST_F(Config, EverySettingIsInForceAfterALoad) {
    ASSERT_EQ(Load("file_size 7\nrecycle_size 321\nrecycle_ee 0\nrecycle_keep_ee_size 12\n"
                   "log_folder " +
                   kLogs +
                   "mine\nflush_interval 1234\nlog_level 4\n"
                   "log_filter /data/none\ntransfer_type 1\nlog_mode 1\n"),
              0);
    EXPECT_EQ(g_file_io.get_file_size(), 7);
    EXPECT_EQ(Recycle(RECYCLE_OPT_SIZE), 321u);
    EXPECT_EQ(Recycle(RECYCLE_OPT_EE), 0u);
    EXPECT_EQ(Recycle(RECYCLE_OPT_KEEP_EE_SIZE), 12u);
    EXPECT_EQ(g_file_io.get_log_folder(), kLogs + "mine");
    EXPECT_TRUE(fs::is_directory(kLogs + "mine"));
    EXPECT_EQ(g_quarn.flush_interval, 1234u);
    EXPECT_EQ(modem.settings().log_mode, 1);
    EXPECT_EQ(modem.settings().flush_interval, 1234);
    EndPowerOnPhase();
    EXPECT_EQ(modem.settings().log_level, 4);
    EXPECT_EQ(log.Count("Fail to set ..."), 0u);  // the missing filter file is not opened

    // A modem that is already streaming gets the flush interval, but not the log mode.
    const size_t requests = modem.ipc_requests().size();
    ASSERT_EQ(Load("log_mode 1\nflush_interval abc\n"), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, "The value of config flush_interval is invalid"));
    EXPECT_EQ(g_quarn.flush_interval, 600000u);
    EXPECT_EQ(modem.settings().flush_interval, 600000);
    const auto all = modem.ipc_requests();
    ASSERT_EQ(all.size(), requests + 2);
    EXPECT_EQ(all[requests].message.id(), kGetLogMode);
    EXPECT_EQ(all[requests + 1].message.id(), kSetFlushInterval);
    // A missing setting gets its default value. The log folder stays as it is.
    EXPECT_EQ(g_file_io.get_file_size(), 50);
    EXPECT_EQ(Recycle(RECYCLE_OPT_SIZE), 2500u);
    EXPECT_EQ(Recycle(RECYCLE_OPT_EE), 1u);
    EXPECT_EQ(Recycle(RECYCLE_OPT_KEEP_EE_SIZE), 0u);
    EXPECT_EQ(g_file_io.get_log_folder(), kLogs + "mine");

    ASSERT_EQ(Load("file_size 8\nlog_mode 2\n", 1), 0);
    EXPECT_EQ(g_file_io.get_file_size(), 50);
    EXPECT_EQ(g_quarn.flush_interval, 0u);  // sent to the streaming modem
    EXPECT_EQ(modem.settings().log_mode, 2);
    // Only a modem that streams gets the interval. Any mode but 0 counts as logging.
    const size_t before = modem.ipc_requests().size();
    EXPECT_EQ(g_log_filter_manager.exec(EXEC_MD_LOG_STOP, nullptr), 0);
    ASSERT_EQ(Load("log_mode 2\n"), 0);
    EXPECT_EQ(modem.ipc_requests().size(), before + 1);
    EXPECT_EQ(g_log_filter_manager.exec(EXEC_MD_LOG_START, nullptr), 1);  // already logging
    EXPECT_EQ(log.Count("Fail to set log level..."), 0u);

    // Bytes after the first 1023 are ignored.
    const std::string filler = "x " + std::string(1023 - 1 - 3 - 11, 'x') + "\n";
    ASSERT_EQ(Load("\n" + filler + "file_size 12\nrecycle_size 77\n"), 0);
    EXPECT_EQ(g_file_io.get_file_size(), 1);  // the limit lies within the number
    EXPECT_EQ(Recycle(RECYCLE_OPT_SIZE), 2500u);
}

TEST_F(Config, WhatIsRefusedEndsTheLoadOrIsPassedOver) {
    // Each text is refused. The settings before the wrong one were applied and stay in force.
    const struct {
        std::string text;
        std::string message;
        int32_t rc;
        int file_size;
        unsigned int recycle_size;
        int mode;
    } cases[] = {
        {"transfer_type 2\n", "[Error] Set transfer type 2 failed, rc=-1\n", -1, 50, 2500, 1},
        {"recycle_size 0\n", "[Error] Set recycle size 0(MB) failed, rc=-1\n", -1, 5, 2500, 1},
        {"recycle_keep_ee_size 4194304\n", "[Error] Set keep ee size 4194304(MB) failed, rc=-1\n",
         -1, 5, 60, 1},
        {"log_mode 3\n", "[Error] Set modem log mode 3 failed, rc=1\n", -1, 5, 60, 1},
        {"log_folder /data/x\n", "Fail to set log folder /data/x from config file", 0, 5, 60, 0},
        {"log_mode 1\nlog_level 7\n", "Fail to set log level 7 from config file", 0, 5, 60, 1},
        {"log_mode 1\nflush_interval -2\n", "[Error] Set flush interval -2 failed, rc=0\n", 0, 5,
         60, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(g_file_io.set_file_size(50), 0);
        ASSERT_EQ(g_file_io.set_recycle_option(RECYCLE_OPT_SIZE, 2500), 0);
        ASSERT_TRUE(modem.SetLogMode(1));
        EXPECT_EQ(Load(c.text + "file_size 5\nrecycle_size 60\n"), c.rc);
        EXPECT_EQ(log.Count(c.message), 1u);
        EXPECT_EQ(g_file_io.get_file_size(), c.file_size);
        EXPECT_EQ(Recycle(RECYCLE_OPT_SIZE), c.recycle_size);
        EXPECT_EQ(modem.settings().log_mode, c.mode);
    }
    // If the modem does not return its log mode, no setting is applied.
    g_file_io.set_file_size(50);
    modem.FailIpc(kGetLogMode, sim::IpcFault::kResult, 1, 1);
    EXPECT_EQ(Load("file_size 5\n"), -1);
    EXPECT_EQ(log.Count("[Error] Get modem log mode failed, rc=1\n"), 1u);
    EXPECT_EQ(g_file_io.get_file_size(), 50);
}

TEST_F(Config, SavedLines) {
    const std::string longest(509, 'x');  // with its newline, a line of 510 bytes
    const struct {
        std::string before;  // empty: there is no file
        const char* key;
        std::string value;
        std::vector<const char*> displaced;
        std::string after;
    } cases[] = {
        {"", "log_mode", "1", {}, "log_mode 1\n"},
        {"a 1\nlog_mode 1\nb 2\n", "log_mode", "2", {}, "a 1\nlog_mode 2\nb 2\n"},
        {"log_level 1\nx log_filter\nlog_level 2\n",
         "log_level",
         "3",
         {"log_filter", "x"},
         "log_level 3\nlog_level 3\n"},
        {"log_filter /data/log_mode\n", "log_mode", "1", {}, "log_mode 1\n"},
        {"log_folder /a", "log_mode", "1", {}, "log_folder /a\nlog_mode 1\n"},
        {longest + "\na 1\n", "a", "2", {}, longest + "\na 2\n"},
        // The line is read in pieces of 510 bytes. The second piece contains the key.
        {longest + "x" + "key 1\n", "key", "2", {}, longest + "xkey 2\n"},
        {longest + "\n" + std::string(501, 'x') + "\n",
         "log_mode",
         "1",
         {},
         longest + "\n" + std::string(501, 'x') + "\nlog_mode 1\n"},  // 1023 bytes
        {"a 1\0\n\0\0"s, "log_mode", "1", {}, "a 1\nlog_mode 1\n"},
    };
    const size_t descriptors = test::List("/proc/self/fd").size();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.before + "| " + c.key);
        fs::remove(kPath);
        if (!c.before.empty()) test::WriteFile(kPath, c.before);
        log.Clear();
        EXPECT_EQ(quarn_command_saveConfig(c.key, c.value.c_str(), c.displaced), 0);
        EXPECT_EQ(test::ReadFile(kPath), c.after);
        if (c.before.empty()) {
            EXPECT_EQ(fs::status(kPath).permissions(), fs::perms{0774});
        }
        EXPECT_EQ(log.Has(ANDROID_LOG_WARN, "saveConfig: open file: " + kPath + " failed, ..."),
                  c.before.empty());
    }
    EXPECT_EQ(test::List("/proc/self/fd").size(), descriptors);
    // The file keeps its mode, whatever the umask is. A link in its place is replaced by a file,
    // and the file that it points to stays unchanged.
    umask(077);
    fs::permissions(kPath, fs::perms{0640});
    EXPECT_EQ(quarn_command_saveConfig("log_level", "5", {}), 0);
    EXPECT_EQ(fs::status(kPath).permissions(), fs::perms{0640});
    fs::rename(kPath, "/data/elsewhere");
    fs::create_symlink("/data/elsewhere", kPath);
    const std::string linked = test::ReadFile(kPath);
    EXPECT_EQ(quarn_command_saveConfig("log_level", "6", {}), 0);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kPath)));
    EXPECT_EQ(test::ReadFile("/data/elsewhere"), linked);
    EXPECT_NE(test::ReadFile(kPath), linked);
}

// A value is not saved if the next load would not read it as it was set.
TEST_F(Config, ValuesThatAreNotSaved) {
    const std::string before = "log_level 5\n" + std::string(490, 'x') + "\n";
    const struct {
        const char* key;
        std::string value;
        std::string reason;  // empty: the value is saved
    } cases[] = {
        {"transfer_type", "1 file_size 5", "holds the key file_size"},
        {"log_filter", "/data/log_filter", "holds the key log_filter"},
        {"log_folder", kLogs + "a\ntransfer_type 3", "holds a control character"},
        {"log_folder", kLogs + "a\n", "holds a control character"},
        {"log_mode", "1\r", "holds a control character"},
        {"log_folder", kLogs + "a\x7f", "holds a control character"},
        {"log_folder",
         kLogs + "stra\xc3\x9f"
                 "e ",
         ""},
        {"log_filter", " /data/f", "begins with a blank"},
        {"log_filter", "/data/" + std::string(503, 'f'), "makes the file too long"},
        {"file_size", "5" + std::string(32, ' '), "is too long"},
        {"file_size", "5" + std::string(31, ' '), ""},
        {"file_size", " +5MB", ""},
        {"log_mode", "", ""},
        {"flush_interval", "", "is not a plain number"},
        {"flush_interval", "+250", "is not a plain number"},
        {"flush_interval", "250 ", "is not a plain number"},
        {"log_level", "99999999999", "is not a plain number"},
        {"log_level", " 2", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        test::WriteFile(kPath, before);
        log.Clear();
        EXPECT_EQ(quarn_command_saveConfig(c.key, c.value.c_str(), {}), c.reason.empty() ? 0 : -1);
        EXPECT_EQ(test::ReadFile(kPath) == before, !c.reason.empty());
        EXPECT_EQ(log.messages().size(), c.reason.empty() ? 0u : 1u);
        EXPECT_EQ(log.Has(ANDROID_LOG_WARN, "saveConfig: the value of "s + c.key + " " + c.reason +
                                                " and is not saved"),
                  !c.reason.empty());
    }
    EXPECT_EQ(quarn_command_saveConfig("log_level", nullptr, {}), 0);  // a query
}

// The path of the configuration file leads to an endless file, or to a file whose read blocks.
TEST_F(Config, NoFileHoldsTheDaemonUp) {
    fs::remove(kPath);
    ASSERT_EQ(mkfifo(kPath.c_str(), 0600), 0);
    EXPECT_EQ(quarn_loadConfig(kConfigPath, 0), -1);
    EXPECT_EQ(quarn_command_saveConfig("log_level", "5", {}), -1);
    fs::remove(kPath);
    fs::create_symlink("/dev/zero", kPath);
    EXPECT_EQ(quarn_command_saveConfig("log_level", "5", {}), -1);
    fs::remove(kPath);
    test::WriteFile(kPath, "a 1\n");
    fs::resize_file(kPath, uintmax_t{1} << 40);
    EXPECT_EQ(quarn_command_saveConfig("log_level", "5", {}), 0);
    EXPECT_EQ(test::ReadFile(kPath), "a 1\nlog_level 5\n");
    // The same for the path of the new file.
    const std::string next = kPath + ".new";
    ASSERT_EQ(mkfifo(next.c_str(), 0600), 0);
    EXPECT_EQ(quarn_command_saveConfig("log_level", "4", {}), 0);
    fs::create_symlink("/data/elsewhere", next);
    EXPECT_EQ(quarn_command_saveConfig("log_level", "3", {}), 0);
    EXPECT_FALSE(fs::exists("/data/elsewhere"));
    EXPECT_EQ(test::ReadFile(kPath), "a 1\nlog_level 3\n");
    fs::create_directory(next);
    EXPECT_EQ(quarn_command_saveConfig("log_level", "1", {}), -1);
    EXPECT_EQ(test::ReadFile(kPath), "a 1\nlog_level 3\n");
}
