// The storage channel: folders, files, their names and their content.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include "core/quarn.h"
#include "storage/custom_header.h"
#include "support.h"
#include "tools/muxz/header.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/tree.h"

namespace fs = std::filesystem;
using test::List;

namespace {

const std::string kBase = "/data/vendor/radio/quarn/";
const std::string kLogs = kBase + "logs/";
const std::string kTime = R"(\d{4}_\d{4}_\d{6})";

class FileIo : public testing::Test {
  protected:
    FileIo() { fs::create_directories("/data/vendor/radio"); }

    // Does to the channel what a restart of the daemon does.
    void Restart() {
        io = std::make_unique<QUARN_FILE_IO>(kBase);
        io->create_top_folder();
    }
    void SetUp() override { Restart(); }

    // Writes `bytes` as the writer does: 256 KiB at a time, and opens a new capture if the channel
    // closed the old one. Returns false if the channel refuses a write.
    bool Write(const std::string& bytes) {
        for (size_t at = 0; at < bytes.size(); at += kChunk) {
            const auto len = static_cast<int>(std::min(kChunk, bytes.size() - at));
            if (io->io_write(bytes.data() + at, len) == len) continue;
            if (io->check_io_open() || io->io_open() != 0) return false;
            if (io->io_write(bytes.data() + at, len) != len) return false;
        }
        return true;
    }
    std::string OnlyFolder() const {
        const auto folders = List(kLogs);
        EXPECT_EQ(folders.size(), 1u);
        return folders.empty() ? "" : kLogs + folders[0];
    }

    static constexpr size_t kChunk = 262144;
    test::LogCapture log;
    std::unique_ptr<QUARN_FILE_IO> io;
};

void ExpectName(const std::string& name, const std::string& pattern) {
    EXPECT_TRUE(std::regex_match(name, std::regex(pattern))) << name << " is not " << pattern;
}

mode_t Mode(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

}  // namespace

TEST_F(FileIo, CreatesTheTopFoldersOnceWithTheirModes) {
    for (const auto& folder : {kBase, kBase + "config", kLogs}) EXPECT_EQ(Mode(folder), 0775u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "file_io: create folder " + kLogs));
    EXPECT_EQ(umask(022), 0u);
    log.Clear();
    fs::remove(kBase + "config");
    EXPECT_EQ(io->create_top_folder(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: folder already created"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "file_io: create folder " + kBase + "config/"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: " + kLogs + " folder already created"));
}

TEST_F(FileIo, ACaptureHoldsWhatWasWritten) {
    const std::string bytes = test::StreamBytes(5 * kChunk + 12345);
    EXPECT_EQ(io->io_write(bytes.data(), 10), -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: already close"));
    ASSERT_EQ(io->io_open(), 0);
    EXPECT_TRUE(io->check_io_open());
    ASSERT_EQ(io->io_open(), 0);  // the capture is already open and stays open
    ExpectName(fs::path(OnlyFolder()).filename(), "QRXMDLog_0_" + kTime + "t");
    EXPECT_EQ(Mode(OnlyFolder()), 0775u);
    EXPECT_TRUE(List(OnlyFolder()).empty());  // the first flushed block opens the file

    quarn::zorvex::CustomHeaderInfoInit();
    ASSERT_TRUE(Write(bytes));
    const std::string too_large(1024 * 1024, 'x');
    EXPECT_EQ(io->io_write(too_large.data(), static_cast<int>(too_large.size())), -1);
    EXPECT_EQ(io->io_close(), 0);
    EXPECT_FALSE(io->check_io_open());
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "file_io: flush compress_buf data to log file"));

    const auto files = List(OnlyFolder());
    ASSERT_EQ(files.size(), 1u);
    ExpectName(files[0], "QRXMDLog_0_" + kTime + R"(\.muxz\.tmp)");
    EXPECT_EQ(Mode(OnlyFolder() + "/" + files[0]), 0775u);
    EXPECT_TRUE(test::DecodeTree(kLogs) == bytes);
    // The history has the final name of the folder.
    const std::string folder = OnlyFolder();
    EXPECT_EQ(test::ReadFile(kBase + "log_folder_history"),
              kLogs + "/" +
                  fs::path(folder).filename().string().substr(0, folder.size() - kLogs.size() - 1) +
                  "\n");
}

// Rows: the folders in the tree when a capture opens, the name of the previous folder afterwards,
// and the index of the new capture.
TEST_F(FileIo, TheNextCaptureFinishesTheOneBefore) {
    struct {
        std::vector<std::string> left;
        std::string finished;
        int next_idx;
    } const cases[] = {
        {{"QRXMDLog_7_2024_0101_000000t_EE"}, "QRXMDLog_7_2024_0101_000000_EE", 8},
        // An unfinished folder counts before a finished one with a higher index.
        {{"QRXMDLog_3_2024_0101_000000t", "QRXMDLog_9_2024_0101_000000"},
         "QRXMDLog_3_2024_0101_000000",
         4},
        {{"QRXMDLog_10_2024_0101_000000t", "QRXMDLog_9_2024_0101_000000t"},
         "QRXMDLog_10_2024_0101_000000",
         11},
        {{"QRXMDLog_0_2024_0101_000000t", "QRXMDLog_9_2024_0101_000000"},
         "QRXMDLog_0_2024_0101_000000",
         1},
        {{"QRXMDLog_5", "unrelated"}, "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.left[0]);
        fs::remove_all(kLogs);
        fs::create_directories(kLogs);
        for (const auto& folder : c.left) {
            test::WriteFile(kLogs + folder + "/QRXMDLog_2_2024_0101_000001.muxz.tmp", "x");
        }
        Restart();
        ASSERT_EQ(io->io_open(), 0);
        ASSERT_TRUE(Write("abc"));
        io->flush_ringBuf();
        const auto folders = List(kLogs);
        ASSERT_EQ(folders.size(), c.left.size() + 1);
        ExpectName(fs::path(io->get_latest_folder_path()).filename(),
                   "QRXMDLog_" + std::to_string(c.next_idx) + "_" + kTime + "t");
        if (c.finished.empty()) continue;
        EXPECT_EQ(List(kLogs + c.finished),
                  std::vector<std::string>{"QRXMDLog_2_2024_0101_000001.muxz"});
    }
}

TEST_F(FileIo, ACaptureWithoutFileLeavesTheFileBeforeToTheNextOne) {
    for (const std::string bytes : {"a", "", "b"}) {
        ASSERT_EQ(io->io_open(), 0);
        ASSERT_TRUE(Write(bytes));
        io->io_close();
    }
    EXPECT_TRUE(List(kLogs + List(kLogs)[0]).at(0).ends_with(".muxz"));
}

// The exception comes before the new capture has a file. The file that waits for its final name
// still lies in the previous capture.
TEST_F(FileIo, MarksAreSoughtInTheLastPathComponentOnly) {
    ASSERT_EQ(io->set_log_folder(kLogs + "a_EE.tmpt"), 0);
    for (int capture = 0; capture < 3; ++capture) {
        ASSERT_EQ(io->io_open(), 0);
        if (capture == 1) {
            io->set_file_suffix("_EE");
            io->rename_folder_ee();
        }
        ASSERT_TRUE(Write("capture " + std::to_string(capture) + "\n"));
        io->io_close();
    }
    const auto folders = List(kLogs + "a_EE.tmpt");
    ASSERT_EQ(folders.size(), 3u);
    ExpectName(folders[0], "QRXMDLog_0_" + kTime);
    ExpectName(folders[1], "QRXMDLog_1_" + kTime + "_EE");
    ExpectName(folders[2], "QRXMDLog_2_" + kTime + "t");
    for (size_t i = 0; i < 3; ++i) {
        const auto files = List(kLogs + "a_EE.tmpt/" + folders[i]);
        ASSERT_EQ(files.size(), 1u);
        const char* const endings[] = {R"(\.muxz)", R"(_EE\.muxz)", R"(\.muxz\.tmp)"};
        ExpectName(files[0], "QRXMDLog_0_" + kTime + endings[i]);
    }
    EXPECT_EQ(test::DecodeTree(kLogs), "capture 0\ncapture 1\ncapture 2\n");
}

TEST_F(FileIo, FilesRotateBySizeAndAnExceptionMarksThemAndTheFolder) {
    ASSERT_EQ(io->set_file_size(1), 0);
    ASSERT_EQ(io->io_open(), 0);
    const std::string bytes = test::StreamBytes(30 * kChunk);
    ASSERT_TRUE(Write(bytes.substr(0, 14 * kChunk)));
    const std::string before = OnlyFolder();
    io->rename_folder_ee();  // does nothing without the suffix
    EXPECT_EQ(OnlyFolder(), before);
    io->set_file_suffix("_EE");
    io->rename_folder_ee();
    EXPECT_EQ(OnlyFolder(), before + "_EE");
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "file_io: rename log folder to " + kLogs + "/" +
                                              fs::path(before).filename().string() + "_EE"));
    io->rename_folder_ee();  // the second call does nothing
    EXPECT_EQ(OnlyFolder(), before + "_EE");
    ASSERT_TRUE(Write(bytes.substr(14 * kChunk)));
    io->io_close();
    EXPECT_TRUE(test::DecodeTree(kLogs) == bytes);
    const auto files = List(before + "_EE");
    ASSERT_GE(files.size(), 2u);
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string ending = i + 1 == files.size() ? R"(_EE\.muxz\.tmp)" : R"((_EE)?\.muxz)";
        ExpectName(files[i], "QRXMDLog_" + std::to_string(i) + "_" + kTime + ending);
        // A file exceeds its size limit by at most one flush of the 1 MiB buffer and its header.
        EXPECT_LE(fs::file_size(before + "_EE/" + files[i]), 2u * 1024 * 1024 + 1024);
    }
    EXPECT_TRUE(files[0].find("_EE") == std::string::npos);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "file_io: file_size exceed 1048576"));
}

// The header of each file has the data of the channel about this file, the latest modem
// information, and the phone's custom entries.
TEST_F(FileIo, EveryFileHasAHeaderOfItsOwn) {
    quarn::zorvex::CustomHeaderInfoInit();
    ASSERT_EQ(io->set_file_size(1), 0);
    const time_t before = time(nullptr);
    ASSERT_EQ(io->io_open(), 0);
    const time_t opened = io->get_cur_folder_time();
    EXPECT_GE(opened, before);
    // The modem has not sent its information yet.
    ASSERT_TRUE(Write(test::StreamBytes(14 * kChunk)));
    QUARN_MD_INFO told = {};
    for (size_t i = 0; i < sizeof(told.md_info); ++i) told.md_info[i] = static_cast<uint8_t>(i);
    told.md_info_word_b = 0x0b0b0b0b;
    {
        std::lock_guard lock(g_quarn.md_info_mutex);
        g_quarn.md_info = told;
        g_quarn.md_info_word_a = 0x0a0a0a0a;
        g_quarn.md_info_time = 1'700'000'000;
    }
    ASSERT_TRUE(Write(test::StreamBytes(40 * kChunk)));
    io->io_close();

    CUSTOM_HEADER_INFO custom;
    quarn::zorvex::GetCustomHeaderInfo(custom);
    ASSERT_GT(custom.length, 0);
    const auto files = List(OnlyFolder());
    ASSERT_GE(files.size(), 3u);
    for (uint32_t i = 0; i < files.size(); ++i) {
        SCOPED_TRACE(files[i]);
        const std::string path = OnlyFolder() + "/" + files[i];
        const muxz::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        muxz::FileSource source(fd.get());
        muxz::Header header;
        ASSERT_EQ(muxz::ReadHeader(source, header), muxz::HeaderState::kWhole);
        EXPECT_EQ(header.phone.compress_buf_size, 1024u * 1024);
        EXPECT_EQ(header.phone.folder_time, static_cast<uint32_t>(opened));
        EXPECT_EQ(header.phone.file_idx, i);
        EXPECT_EQ(header.phone.custom_header.present, custom.present);
        EXPECT_EQ(
            std::string_view(reinterpret_cast<char*>(header.custom.data()), header.custom.size()),
            std::string_view(static_cast<const char*>(custom.data), custom.length));
        if (i == 0) {
            EXPECT_GE(header.modem.md_info_time, static_cast<uint32_t>(before));
            EXPECT_EQ(header.modem.md_info_word_a, 0u);
            continue;
        }
        EXPECT_EQ(header.modem.md_info_time, 1'700'000'000u);
        EXPECT_EQ(header.modem.md_info_word_a, 0x0a0a0a0au);
        EXPECT_EQ(header.modem.md_info_word_b, 0x0b0b0b0bu);
        EXPECT_EQ(memcmp(header.modem_record.data(), &told, sizeof(told)), 0);
    }
}

TEST_F(FileIo, AFlushedCloseAddsOneByteAndKeepsTheCapture) {
    EXPECT_EQ(io->close_log_file_with_flush(), -1);
    EXPECT_EQ(io->flush_ringBuf(), -1);
    ASSERT_EQ(io->io_open(), 0);
    ASSERT_TRUE(Write("one "));
    EXPECT_EQ(io->flush_ringBuf(), 0);
    const std::string first = OnlyFolder() + "/" + List(OnlyFolder()).at(0);
    const auto flushed_size = fs::file_size(first);
    ASSERT_TRUE(Write("two "));
    EXPECT_EQ(io->close_log_file_with_flush(), 0);
    const auto block_size = fs::file_size(first) - flushed_size - 1;
    // Lengths, Snappy's varint, the tag of the literal, the text.
    EXPECT_EQ(block_size, 6u + 1 + 1 + 4);
    // Does nothing: no bytes are buffered and no file is open.
    EXPECT_EQ(io->close_log_file_with_flush(), 0);
    ASSERT_TRUE(Write("three"));
    io->io_close();
    EXPECT_EQ(List(OnlyFolder()).size(), 2u);
    EXPECT_EQ(test::DecodeTree(kLogs), "one two three");
}

TEST_F(FileIo, TheDestructorFlushesAndMarksTheExceptionFolder) {
    ASSERT_EQ(io->io_open(), 0);
    ASSERT_TRUE(Write("last words"));
    io->set_file_suffix("_EE");
    io.reset();
    EXPECT_TRUE(OnlyFolder().ends_with("t_EE"));
    EXPECT_EQ(test::DecodeTree(kLogs), "last words");
    EXPECT_TRUE(test::DecodeFile(OnlyFolder() + "/" + List(OnlyFolder()).at(0)).stray_byte);
    // While a copy reads the folder it keeps its name.
    EXPECT_EQ(log.Count("file_io: lock the change of folder name"), 1u);
}

TEST_F(FileIo, AVanishedTreeIsMadeAgain) {
    ASSERT_EQ(io->io_open(), 0);
    io->io_close();
    fs::remove_all(kBase);
    ASSERT_EQ(io->io_open(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "file_io io_open: create folder " + kLogs));
    ASSERT_TRUE(Write("again"));
    io->io_close();
    EXPECT_EQ(test::DecodeTree(kLogs), "again");
}

// Tries each kind of deletion with each operation that writes next. The deleted file gets no more
// bytes, the channel logs the loss, and the rest of the stream is in the tree.
TEST_F(FileIo, NothingIsWrittenToAFileThatNobodyCanFind) {
    struct {
        const char* what;
        std::function<void(const fs::path& file)> act;
        size_t folders;  // number of capture folders in the tree afterwards
    } const deletions[] = {
        {"file", [](const fs::path& file) { fs::remove(file); }, 1},
        {"folder", [](const fs::path& file) { fs::remove_all(file.parent_path()); }, 1},
        {"folder, made again",
         [](const fs::path& file) {
             fs::remove_all(file.parent_path());
             fs::create_directory(file.parent_path());
         },
         2},
        {"base", [](const fs::path&) { fs::remove_all(kBase); }, 1},
    };
    const std::string bytes = test::StreamBytes(32 * kChunk);
    const std::string first = bytes.substr(0, 16 * kChunk);
    struct {
        const char* what;
        std::function<void()> act;
        bool writes_on = false;
    } const ends[] = {
        {"write", [&] { ASSERT_TRUE(Write(bytes.substr(first.size()))); }, true},
        {"flush", [&] { EXPECT_EQ(io->flush_ringBuf(), 0); }},
        {"flushed close", [&] { EXPECT_EQ(io->close_log_file_with_flush(), 0); }},
        {"close", [&] { EXPECT_EQ(io->io_close(), 0); }},
        {"destructor", [&] { io.reset(); }},
    };
    for (const auto& deletion : deletions) {
        for (const auto& end : ends) {
            SCOPED_TRACE(std::string(deletion.what) + ", " + end.what);
            fs::remove_all(kBase);
            Restart();
            ASSERT_EQ(io->io_open(), 0);
            ASSERT_TRUE(Write(first));  // one part is in the file, the rest is in the buffer
            const fs::path file = OnlyFolder() + "/" + List(OnlyFolder()).at(0);
            const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
            const auto size = fs::file_size(file);
            log.Clear();
            deletion.act(file);
            end.act();
            if (io) io->io_close();
            const test::DecodedFile gone = test::DecodeFile("/proc/self/fd/" + std::to_string(fd));
            EXPECT_EQ(lseek(fd, 0, SEEK_END), static_cast<off_t>(size));
            close(fd);
            EXPECT_GT(gone.bytes.size(), 0u);
            EXPECT_LT(gone.bytes.size(), first.size());
            EXPECT_TRUE(gone.bytes + test::DecodeTree(kLogs) == (end.writes_on ? bytes : first));
            EXPECT_EQ(log.Count(file.filename().string() + " was deleted, " + std::to_string(size) +
                                " bytes went with it..."),
                      1u);
            EXPECT_EQ(List(kLogs).size(), deletion.folders);
            // The channel does not try to rename a deleted file.
            for (const auto& message : log.messages()) {
                EXPECT_FALSE(message.text.starts_with("file_io: rename log file")) << message.text;
            }
        }
    }
}

// Writing on after a truncation would leave a file without a header, or with half a block.
TEST_F(FileIo, ACutFileIsLeftAsItIs) {
    const std::string bytes = test::StreamBytes(32 * kChunk);
    for (const off_t length : {off_t{0}, off_t{100 << 10}}) {
        Restart();
        ASSERT_EQ(io->io_open(), 0);
        ASSERT_TRUE(Write(bytes.substr(0, bytes.size() / 2)));
        io->set_file_suffix("_EE");
        io->rename_folder_ee();  // the message about the loss has the folder's new name
        const std::string file =
            io->get_latest_folder_path() + "/" + List(io->get_latest_folder_path()).at(0);
        const std::string had = test::DecodeFile(file).bytes;
        const auto lost = static_cast<off_t>(fs::file_size(file)) - length;
        ASSERT_EQ(truncate(file.c_str(), length), 0);
        log.Clear();
        ASSERT_TRUE(Write(bytes.substr(bytes.size() / 2)));
        io->io_close();
        EXPECT_EQ(log.Count("file_io: log_file=" + file + " was cut, " + std::to_string(lost) +
                            " bytes went with it"),
                  1u);
        const std::string finished = file.substr(0, file.rfind('.'));
        EXPECT_EQ(static_cast<off_t>(fs::file_size(finished)), length);
        fs::remove(finished);
        EXPECT_TRUE(had + test::DecodeTree(io->get_latest_folder_path()) == bytes);
    }
}

// The folder vanished before it got the mark of an exception, so the next capture gets it. The next
// capture also gets the bytes that a capture without a file had buffered.
TEST_F(FileIo, ACaptureWithoutFolderGoesOnInAnother) {
    ASSERT_EQ(io->io_open(), 0);
    const std::string bytes = test::StreamBytes(16 * kChunk);
    ASSERT_TRUE(Write(bytes.substr(0, kChunk)));
    fs::remove_all(kLogs);
    io->set_file_suffix("_EE");
    io->rename_folder_ee();
    ASSERT_TRUE(Write(bytes.substr(kChunk)));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: recycle fail (memory not enough)"));
    io->io_close();
    EXPECT_TRUE(OnlyFolder().ends_with("t_EE"));
    EXPECT_TRUE(test::DecodeTree(kLogs) == bytes);
}

// Names contain the time in seconds. So the channel meets the prepared entries one after the other.
TEST_F(FileIo, WhatStandsUnderTheNextFilesNameIsLeftAlone) {
    ASSERT_EQ(io->io_open(), 0);
    const std::string target = "/data/somebody's";
    test::WriteFile(target, "own");
    const std::function<void(const char*)> things[] = {
        [](const char* path) { ASSERT_EQ(mkfifo(path, 0600), 0); },
        [&](const char* path) { fs::create_symlink(target, path); },
        [&](const char* path) { fs::create_hard_link(target, path); },
    };
    const time_t now = time(nullptr);
    for (size_t i = 0; i < std::size(things); ++i) {
        const time_t then = now + static_cast<time_t>(i);
        char name[64];
        strftime(name, sizeof(name), "/QRXMDLog_0_%Y_%m%d_%H%M%S.muxz.tmp", localtime(&then));
        things[i]((OnlyFolder() + name).c_str());
    }
    ASSERT_TRUE(Write("kept"));
    io->flush_ringBuf();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "fail, errno=File exists..."));
    io->flush_ringBuf();  // all three attempts met a prepared entry
    io->io_close();
    EXPECT_EQ(test::ReadFile(target), "own");
    size_t kept = 0;
    for (const auto& name : List(OnlyFolder())) {
        const std::string path = OnlyFolder() + "/" + name;
        if (!fs::is_fifo(path)) kept += test::DecodeFile(path).bytes == "kept" ? 1 : 0;
    }
    EXPECT_EQ(kept, 1u);
    EXPECT_EQ(List(OnlyFolder()).size(), std::size(things) + 1);
}

TEST_F(FileIo, SettingsKeepTheirBounds) {
    EXPECT_EQ(io->get_file_size(), 50);
    for (const int refused : {0, -1, 4096}) EXPECT_EQ(io->set_file_size(refused), -1);
    EXPECT_EQ(io->get_file_size(), 50);
    EXPECT_EQ(io->set_file_size(4095), 0);
    EXPECT_EQ(io->get_file_size(), 4095);

    struct {
        QUARN_RECYCLE_OPT opt;
        unsigned int value;
        int rc;
        unsigned int kept;
    } const cases[] = {
        {RECYCLE_OPT_SIZE, 0, -1, 2500},
        {RECYCLE_OPT_SIZE, 4194304, -1, 2500},
        {RECYCLE_OPT_SIZE, 4194303, 0, 4194303},
        {RECYCLE_OPT_EE, 7, 0, 1},
        {RECYCLE_OPT_EE, 0, 0, 0},
        {RECYCLE_OPT_KEEP_EE_SIZE, 4194304, -1, 0},
        {RECYCLE_OPT_KEEP_EE_SIZE, 4194303, 0, 4194303},
    };
    for (const auto& c : cases) {
        unsigned int value = 99;
        EXPECT_EQ(io->set_recycle_option(c.opt, c.value), c.rc) << c.opt << " " << c.value;
        EXPECT_EQ(io->get_recycle_option(c.opt, &value), 0);
        EXPECT_EQ(value, c.kept) << c.opt << " " << c.value;
    }
    EXPECT_EQ(io->set_recycle_option(static_cast<QUARN_RECYCLE_OPT>(3), 1), -1);

    EXPECT_EQ(io->set_log_folder("/sdcard/x"), -1);
    EXPECT_EQ(io->set_log_folder(kLogs + "x/y"), -1);
    EXPECT_EQ(io->get_log_folder(), kLogs);
    EXPECT_EQ(io->set_log_folder("/data/vendor/radio/quarn//logs//run1/"), 0);
    EXPECT_EQ(io->get_log_folder(), "/data/vendor/radio/quarn//logs//run1/");
    EXPECT_TRUE(fs::is_directory(kLogs + "run1"));
    // Refused: names that look like something else in the tree, or that break a line of the
    // history.
    for (const char* name : {"QRXMDLog_1_23", "/QRXMDLog_1_2024_0101_000000t_EE//",
                             "a QRXMDLog_7_t", "a\nb", "a\x7f", "power_on_log.muxz/"}) {
        EXPECT_EQ(io->set_log_folder(kLogs + name), -1) << name;
    }
    EXPECT_EQ(test::List(kLogs), std::vector<std::string>{"run1"});
    // Clients may create log folders, but only up to a limit. Captures count too.
    for (int i = 0; i < 4000; ++i) {
        fs::create_directory(kLogs + "QRXMDLog_" + std::to_string(i) + "_2024_0101_000000");
    }
    for (int i = 0; i < 200; ++i)
        io->set_log_folder(kLogs +
                           "stra\xc3\x9f"
                           "e" +
                           std::to_string(i));
    EXPECT_EQ(test::List(kLogs).size(), 4096u);
    EXPECT_EQ(io->set_log_folder(kLogs + "run1"), 0);
}

// Other threads send requests while the writer writes.
TEST_F(FileIo, RequestsFromOtherThreadsLoseNothing) {
    ASSERT_EQ(io->set_file_size(1), 0);
    ASSERT_EQ(io->io_open(), 0);
    std::atomic<bool> done{false};
    const std::function<void()> steps[] = {
        [&] { io->close_log_file_with_flush(); },
        [&] { io->set_file_suffix("_EE"); },
        [&] { io->rename_folder_ee(); },
        [&] { io->io_close(); },
        [&] { io->io_open(); },
        [&] { io->flush_ringBuf(); },
    };
    std::thread requests([&] {
        for (size_t i = 0; !done; ++i) {
            steps[i % std::size(steps)]();
            unsigned int value;
            io->get_recycle_option(RECYCLE_OPT_SIZE, &value);
            io->set_recycle_option(RECYCLE_OPT_SIZE, value);
            io->set_file_size(io->get_file_size());
            std::this_thread::yield();
        }
    });
    const std::string bytes = test::StreamBytes(64 * kChunk);
    for (size_t at = 0; at < bytes.size();) {
        if (io->io_write(bytes.data() + at, kChunk) > 0) {
            at += kChunk;
        } else {
            io->io_open();
        }
    }
    done = true;
    requests.join();
    io->io_close();
    EXPECT_TRUE(test::DecodeTree(kLogs) == bytes);
}
