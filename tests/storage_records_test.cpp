// The folder history and the custom header.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/system_properties.h"
#include "storage/custom_header.h"
#include "storage/folder_history.h"
#include "support.h"

namespace fs = std::filesystem;
using namespace quarn::zorvex;

namespace {

const std::string kHistory = "/data/vendor/radio/quarn/log_folder_history";

class StorageRecords : public testing::Test {
  protected:
    StorageRecords() { fs::create_directories("/data/vendor/radio/quarn"); }
    test::LogCapture log;
};

std::string Lines(int first, int last) {
    std::string lines;
    for (int i = first; i <= last; ++i) lines += "/logs/QRXMDLog_" + std::to_string(i) + "_x\n";
    return lines;
}

std::string CustomBlock() {
    CUSTOM_HEADER_INFO info = {};
    GetCustomHeaderInfo(info);
    EXPECT_EQ(info.present == 1, info.data != nullptr);
    return {static_cast<const char*>(info.data), info.length};
}

}  // namespace

TEST_F(StorageRecords, TheHistoryIsMadeReadAndCut) {
    EXPECT_TRUE(GetLatestHistoryRecord(20).empty());
    umask(077);
    EXPECT_EQ(UpdateFolderHistory("/logs/QRXMDLog_1_x"), 0);
    EXPECT_EQ(test::ReadFile(kHistory), Lines(1, 1));
    struct stat status;
    ASSERT_EQ(stat(kHistory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);

    // At exactly the limit nothing is cut. With one byte more, only the last 20 records stay.
    std::string full = Lines(1, 5000);
    full = full.substr(full.size() - 102400);
    test::WriteFile(kHistory, full);
    EXPECT_EQ(UpdateFolderHistory("/logs/QRXMDLog_5001_x"), 0);
    EXPECT_EQ(test::ReadFile(kHistory), full + Lines(5001, 5001));
    EXPECT_EQ(UpdateFolderHistory("/logs/QRXMDLog_5002_x"), 0);
    EXPECT_EQ(test::ReadFile(kHistory), Lines(4982, 5002));
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_DEBUG, "CopyLogFile: finish truncating file to keep last 20 records"));

    const auto records = GetLatestHistoryRecord(3);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records.front(), "/logs/QRXMDLog_5000_x");

    // Records may be as long as a path.
    const std::string path(4095, 'x');
    test::WriteFile(kHistory, path + "\n" + path + "\n" + path + "\n");
    EXPECT_EQ(GetLatestHistoryRecord(2), std::deque<std::string>({path, path}));

    // Of a very large file, only the end is read.
    fs::resize_file(kHistory, uintmax_t{1} << 40);
    EXPECT_LE(GetLatestHistoryRecord(20).size(), 1u);
    // Opening a pipe does not block.
    fs::remove(kHistory);
    ASSERT_EQ(mkfifo(kHistory.c_str(), 0600), 0);
    EXPECT_TRUE(GetLatestHistoryRecord(20).empty());
    EXPECT_EQ(UpdateFolderHistory("/logs/QRXMDLog_1_x"), -1);
}

TEST_F(StorageRecords, TheCustomHeaderHoldsWhatTheDeviceTells) {
    EXPECT_EQ(CustomBlock(), "");
    CustomHeaderInfoInit();
    const std::string tag = std::string("\0\x10\0", 3) + "ZORVEXHEADERINFO";
    EXPECT_EQ(CustomBlock(), tag);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "Custom header: failed to get platform data"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_DEBUG,
                        "Custom header: value of property ro.boot.cdt_hwid is not found"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                        "GetRadioVersion: Error reading symbolic link: No such file or directory"));

    fs::create_directories("/mnt/vendor/modem_img/images");
    fs::create_symlink("radio-1.2.3", "/mnt/vendor/modem_img/images/default");
    ASSERT_EQ(__system_property_set("ro.boot.cdt_hwid", "BOARD7"), 0);
    CustomHeaderInfoInit();
    EXPECT_EQ(CustomBlock(), tag + std::string("\1\x0b\0", 3) + "radio-1.2.3" +
                                 std::string("\2\x06\0", 3) + "BOARD7");

    // An entry may fill the block to the last byte. One byte more does not fit.
    const size_t left = 1024 - CustomBlock().size();
    const auto type = static_cast<CustomHeaderInfoType>(9);
    AppendInfoToBuffer(type, std::string(left - 3 + 1, 'x'));
    EXPECT_EQ(CustomBlock().size(), 1024 - left);
    AppendInfoToBuffer(type, std::string(left - 3, 'x'));
    EXPECT_EQ(CustomBlock().size(), 1024u);
    log.Clear();
    AppendInfoToBuffer(type, std::string(65535, 'x'));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "Custom header: custom header info buffer is full"));
    AppendInfoToBuffer(type, std::string(65536, 'x'));
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_ERROR, "Custom header: the value length 65536 of type 9 is too large"));
}
