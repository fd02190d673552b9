// Handles, router, report, small utilities.
#include <gtest/gtest.h>

#include "core/path_utility.h"
#include "core/quarn.h"
#include "core/system_utility.h"
#include "platform/system_properties.h"
#include "support.h"

TEST(Core, TheRouterReachesEveryHandleAndNoOther) {
    test::LogCapture log;
    for (int id = HANDLE_WRITER; id < HANDLE_MAX; ++id) {
        // Only the log filter manager reports an unknown request.
        EXPECT_EQ(quarn_runHandleExec(static_cast<QUARN_HANDLE_ID>(id), EXEC_RESERVED_14, nullptr),
                  id == HANDLE_LOG_FILTER_MANAGER ? 1 : 0);
    }
    EXPECT_EQ(log.Count("writer_handler: handle exec_id=14 done"), 1u);
    EXPECT_EQ(log.Count("reader_handler: handle exec_id=14 done"), 1u);
    log.Clear();
    EXPECT_EQ(quarn_runHandleExec(HANDLE_MAX, EXEC_START, nullptr), 1);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_DEATH(quarn_runHandleExec(static_cast<QUARN_HANDLE_ID>(-1), EXEC_START, nullptr), "");
}

TEST(Core, TheReportPrintsWhatHappenedAndStartsAfresh) {
    test::LogCapture log;
    g_quarn.read_bytes = 5 << 13;
    g_quarn.write_bytes = 3 << 13;
    g_quarn.stall_count = 7;
    g_quarn.stats = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};  // in the order of the declaration
    quarn_report_statistics();
    const char* const lines[] = {
        "read rate: 5 KB/s, write rate: 3 KB/s",
        "log buffer stall count: 7",
        "tot_read_cnt: 1 (len_greater_zero=2, len_zero=3, fail=4)",
        "fail_read_cnt: 4 (eagain=5, eintr=6, enodev=7, ebadf=8, eother=9)",
        "tot_poll_cnt: 10 (success=11, timeout=13, fail=12)",
    };
    ASSERT_EQ(log.messages().size(), std::size(lines));
    for (size_t i = 0; i < std::size(lines); ++i) EXPECT_EQ(log.messages()[i].text, lines[i]);

    log.Clear();
    quarn_report_statistics();
    // No lines about failures and stalls, since there were none.
    EXPECT_EQ(log.messages().size(), 3u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "read rate: 0 KB/s, write rate: 0 KB/s"));
}

TEST(Core, FoldersAndProperties) {
    test::LogCapture log;
    EXPECT_TRUE(quarn_check_dir_exist("/data"));
    EXPECT_FALSE(quarn_check_dir_exist("/data/none"));
    test::WriteFile("/data/file", "");
    EXPECT_FALSE(quarn_check_dir_exist("/data/file"));

    EXPECT_EQ(quarn_property_set("vendor.quarn.qrx.restart", "0"), 0);
    char value[PROP_VALUE_MAX];
    EXPECT_EQ(__system_property_get("vendor.quarn.qrx.restart", value), 1);
    EXPECT_STREQ(value, "0");
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "quarn_property_set: rc 0"));
    EXPECT_NE(quarn_property_set("", "0"), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "quarn_property_set fail, rc=-1"));
}

TEST(Core, PathTexts) {
    using quarn::zorvex::IsUnderFirstLevelSubfolder;
    using quarn::zorvex::NormalizePathSlash;
    EXPECT_EQ(NormalizePathSlash("//a///b/"), "/a/b/");
    EXPECT_EQ(NormalizePathSlash(""), "");
    const std::string base = "/data/logs/";
    for (const char* allowed :
         {"/data/logs", "/data/logs/", "/data/logs/x/", "/data//logs//x", "/data/logs/.."}) {
        EXPECT_TRUE(IsUnderFirstLevelSubfolder(allowed, base)) << allowed;
    }
    for (const char* refused : {"", "x", "/", "/data", "/data/logs/x/y", "/data/logs/../x",
                                "/data/logsx", "/data/logsx/y"}) {
        EXPECT_FALSE(IsUnderFirstLevelSubfolder(refused, base)) << refused;
    }
    EXPECT_FALSE(IsUnderFirstLevelSubfolder("/x", ""));
}
