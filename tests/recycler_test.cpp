// The recycler, on real trees of sparse files.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "core/quarn.h"
#include "storage/folder_history.h"
#include "storage/log_file_recycler.h"
#include "support.h"
#include "syscall_faults.h"

namespace fs = std::filesystem;
using quarn::zorvex::LogFileRecycler;

namespace {

const std::string kBase = "/data/vendor/radio/quarn/";
const std::string kLogs = kBase + "logs/";

// Makes a sparse file of `kb` KiB.
void MakeFile(const std::string& path, uintmax_t kb) {
    test::WriteFile(path, "");
    fs::resize_file(path, kb * 1024);
}

// Makes links from a text like "link>folder link>folder".
void MakeLinks(const std::string& links) {
    std::istringstream words(links);
    for (std::string link; words >> link;) {
        const size_t arrow = link.find('>');
        const fs::path path = kLogs + link.substr(0, arrow);
        fs::create_directories(path.parent_path());
        fs::create_directory_symlink(kLogs + link.substr(arrow + 1), path);
    }
}

// Makes a tree from one line of text: "folder: index=MB index=MB; folder: ...". Makes the links
// first or last, which determines their order in a listing of the folder.
void MakeTree(const std::string& tree, const std::string& links = "", bool links_first = false) {
    fs::remove_all(kBase);
    fs::create_directories(kLogs);
    if (links_first) MakeLinks(links);
    std::istringstream folders(tree);
    for (std::string line; std::getline(folders, line, ';');) {
        std::istringstream words(line);
        std::string folder;
        words >> folder;
        folder.pop_back();
        fs::create_directories(kLogs + folder);
        for (std::string file; words >> file;) {
            const size_t equals = file.find('=');
            const std::string ee = folder.ends_with("_EE") ? "_EE" : "";
            MakeFile(kLogs + folder + "/QRXMDLog_" + file.substr(0, equals) + "_2024_0101_000000" +
                         ee + ".muxz",
                     std::stoul(file.substr(equals + 1)) * 1024);
        }
    }
    if (!links_first) MakeLinks(links);
}

// Returns the files that are left, in the same notation, sorted and without sizes.
std::string Left() {
    std::string left;
    std::vector<std::string> folders;
    for (const auto& entry : fs::recursive_directory_iterator(kLogs)) {
        if (entry.is_directory() && !entry.is_symlink()) folders.push_back(entry.path());
    }
    std::sort(folders.begin(), folders.end());
    for (const auto& folder : folders) {
        if (!left.empty()) left += "; ";
        left += folder.substr(kLogs.size()) + ":";
        for (const auto& name : test::List(folder)) {
            if (name.starts_with("QRXMDLog_") && fs::is_regular_file(folder + "/" + name)) {
                left += " " + name.substr(9, name.find('_', 9) - 9);
            }
        }
    }
    return left;
}

// Replaces "<A>" to "<D>" by folder names of one day. The letter determines the hour.
std::string Expand(std::string text) {
    for (const char c : {'A', 'B', 'C', 'D'}) {
        const std::string name = std::string("QRXMDLog_") + static_cast<char>(c - 'A' + '1') +
                                 "_2024_0101_0" + static_cast<char>(c - 'A' + '0') + "0000";
        for (size_t at; (at = text.find(std::string("<") + c + ">")) != std::string::npos;) {
            text.replace(at, 3, name);
        }
    }
    return text;
}

struct RecyclerCase {
    const char* what;
    const char* tree;
    const char* history;  // folders, oldest first
    unsigned int recycle_size, keep_ee_size;
    bool clear_ee;
    int32_t rc;
    const char* left;
    const char* links = "";
};

const RecyclerCase kCases[] = {
    {"oldest first, no more than needed", "<A>: 0=4 1=4 2=4; <B>t: 0=4", "<A> <B>", 9, 0, true, 0,
     "<A>: 2; <B>t: 0"},
    {"history beats time", "<A>: 0=4; <B>: 0=4; <C>t: 0=4", "<B> <A> <C>", 8, 0, true, 0,
     "<A>: 0; <C>t: 0"},
    {"unknown to the history goes first", "<A>: 0=4; <B>: 0=4; <C>t: 0=4", "<A> <C>", 8, 0, true, 0,
     "<A>: 0; <C>t: 0"},
    {"of a folder named twice the older place counts", "<A>: 0=4; <B>: 0=4; <C>t: 0=4",
     "<A> <B> <A> <C>", 8, 0, true, 0, "<B>: 0; <C>t: 0"},
    {"the current capture keeps its newest file", "<A>t: 0=4 1=4 2=4", "<A>", 1, 0, true, -1,
     "<A>t: 2"},
    {"serial numbers count, not texts", "<A>t: 9=4 10=4 100=4", "<A>", 8, 0, true, 0,
     "<A>t: 100 10"},
    {"of wrapped ones the newest stays", "<A>t: 0=4 1=4 4294967294=4 4294967295=4", "<A>", 1, 0,
     true, -1, "<A>t: 1"},
    {"ordinary folders go before exceptions", "<A>_EE: 0=4; <B>: 0=4; <C>t: 0=4", "<A> <B> <C>", 8,
     0, true, 0, "<A>_EE: 0; <C>t: 0"},
    {"exceptions stay when they must", "<A>_EE: 0=4 1=4; <B>_EE: 0=4", "<A> <B>", 4, 0, false, -1,
     "<A>_EE: 0 1; <B>_EE: 0"},
    {"exceptions are trimmed first", "<A>_EE: 0=4 1=4 2=4; <B>_EE: 0=4 1=4; <C>t: 0=4",
     "<A> <B> <C>", 12, 4, true, 0, "<A>_EE: 2; <B>_EE: 1; <C>t: 0"},
    {"then cleared", "<A>_EE: 0=4 1=4 2=4; <B>_EE: 0=4 1=4; <C>t: 0=4", "<A> <B> <C>", 5, 4, true,
     0, "<C>t: 0"},
    {"but only trimmed when they must stay", "<A>_EE: 0=4 1=4 2=4; <B>t_EE: 0=4 1=4", "<A> <B>", 5,
     4, false, -1, "<A>_EE: 2; <B>t_EE: 1"},
    {"trimming leaves the folder", "<A>_EE: 0=8; <B>t: 0=4", "<A> <B>", 5, 4, true, 0,
     "<A>_EE:; <B>t: 0"},
    {"the current exception keeps its newest file", "<A>_EE: 0=4; <B>t_EE: 0=4 1=4", "<A> <B>", 1,
     0, true, -1, "<B>t_EE: 1"},
    {"an own log folder goes with its last capture", "run/<A>: 0=4; on/<B>: 0=4; on/<C>t: 0=4",
     "<A> <B> <C>", 4, 0, true, 0, "on:; on/<C>t: 0"},
    {"a deeper folder is found too", "x/y/<A>: 0=4; <B>t: 0=4", "<A> <B>", 4, 0, true, 0,
     "<B>t: 0; x:"},
    {"a link does not hide a folder", "<A>: 0=4; <B>t: 0=4", "<A> <B>", 3, 0, true, -1, "<B>t: 0",
     "last><A> latest>last"},
    {"nor the only one", "<A>: 0=4", "", 1, 0, true, 0, "", "latest><A>"},
    {"nor does it make one older", "<B>: 0=4; <C>: 0=4; <D>t: 0=4", "<B> <C> <D>", 8, 0, true, 0,
     "<C>: 0; <D>t: 0", "<A>><C> again><C> <D>><D>t"},
    {"or an exception ordinary", "<B>_EE: 0=4; <C>t: 0=4", "<B> <C>", 4, 0, false, -1,
     "<B>_EE: 0; <C>t: 0", "<A>><B>_EE"},
    {"links lead to other log folders and round in circles", ".: 0=4; run/<A>: 0=4; on/<B>t: 0=4",
     "<A> <B>", 4, 0, true, 0,
     "on:; on/<B>t: 0; run:", "on/last>run/<A> on/up>. run/<C>>. run/other>on"},
    {"a folder without a capture's name has that of its link", "moved: 0=4; <B>t: 0=4", "<A> <B>",
     4, 0, true, 0, "<B>t: 0", "a>moved <A>>moved z>moved"},
};

class Recycler : public testing::Test {
  protected:
    Recycler() { fs::create_directories("/data/vendor/radio"); }
    int32_t Recycle(const std::string& latest_folder = "") const {
        return LogFileRecycler::GetInstance()->CheckAndRecycle(config, latest_folder);
    }
    test::LogCapture log;
    RECYCLE_CONFIG config;
};

}  // namespace

TEST_F(Recycler, DeletesOldestFirstAndNoMoreThanNeeded) {
    for (size_t i = 0; i < 2 * std::size(kCases); ++i) {
        const RecyclerCase& c = kCases[i / 2];
        SCOPED_TRACE(c.what);
        MakeTree(Expand(c.tree), Expand(c.links), i % 2 != 0);
        std::istringstream history(Expand(c.history));
        for (std::string folder; history >> folder;) {
            quarn::zorvex::UpdateFolderHistory(kLogs + "/" + folder);
        }
        config.recycle_size = c.recycle_size;
        config.keep_ee_size = c.keep_ee_size;
        config.clear_ee = c.clear_ee;
        // The recycler reads the history again if the latest capture has changed.
        EXPECT_EQ(Recycle("/latest" + std::to_string(i)), c.rc);
        EXPECT_EQ(Left(), Expand(c.left));
        // No folder is listed twice.
        EXPECT_EQ(log.Count("BuildLogFileList: Error opening ..."), 0u);
    }
}

// A capture without a history record counts as the oldest one.
TEST_F(Recycler, TheCaptureBeingWrittenKeepsItsNewestFileWhereverItSorts) {
    MakeTree(Expand("<B>: 0=4"));
    quarn::zorvex::UpdateFolderHistory(kLogs + "/" + Expand("<B>"));
    fs::rename(kBase + "log_folder_history", kBase + "kept");
    fs::create_directory(kBase + "log_folder_history");
    ASSERT_EQ(g_file_io.io_open(), 0);
    fs::remove(kBase + "log_folder_history");
    fs::rename(kBase + "kept", kBase + "log_folder_history");
    const std::string current = g_file_io.get_latest_folder_path();
    MakeFile(current + "/QRXMDLog_0_2024_0101_000000.muxz", 4096);
    MakeFile(current + "/QRXMDLog_1_2024_0101_000000.muxz.tmp", 4096);
    MakeLinks("latest>" + current.substr(kLogs.size()) + Expand(" <A>>latest"));
    g_file_io.set_recycle_option(RECYCLE_OPT_SIZE, 1);
    ASSERT_EQ(g_file_io.io_write("x", 1), 1);
    g_file_io.flush_ringBuf();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "file_io: recycle fail (memory not enough)"));
    EXPECT_EQ(test::List(current),
              std::vector<std::string>{"QRXMDLog_1_2024_0101_000000.muxz.tmp"});
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "LogFileRecycler: still remain 3072KB not cleared"));
    EXPECT_FALSE(fs::exists(kLogs + Expand("<B>")));
}

// A log folder may be a link to another place. Behind links only captures count, and each counts
// once.
TEST_F(Recycler, FoldersBehindLinksCountOnce) {
    const std::string elsewhere = "/data/elsewhere/", file = "/QRXMDLog_7_2024_0101_000000.muxz";
    const std::string capture = elsewhere + Expand("run/<A>"), plain = elsewhere + "plain";
    const std::string loose = elsewhere + "loose", current = kLogs + Expand("<C>t");
    const auto recycle = [&](unsigned int size) {
        config.recycle_size = size;
        return Recycle();
    };
    for (const bool links_first : {false, true}) {
        for (const auto& folder : {capture, plain, loose}) MakeFile(folder + file, 4096);
        fs::create_directory(elsewhere + "nest");
        fs::create_directory_symlink(plain, elsewhere + Expand("nest/<B>"));
        // With two circular links, the number of paths grows without limit.
        std::string links = Expand("run>../../../../elsewhere/run here>. up>..");
        if (links_first) links += Expand(" <D>>run/<A>");
        for (const char* name : {"plain", "loose", "nest"}) {
            links += std::string(" ") + name + ">../../../../elsewhere/" + name;
        }
        MakeTree(Expand("<C>t: 0=4"), links, links_first);
        fs::create_symlink(loose + file, current + file);
        log.Clear();
        EXPECT_EQ(recycle(12), 0);
        EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "LogFileRecycler: total log file size=12MB, ..."));
        EXPECT_EQ(recycle(8), 0);
        EXPECT_EQ(test::List(elsewhere),
                  (std::vector<std::string>{"loose", "nest", "plain", "run"}));
        EXPECT_EQ(test::List(elsewhere + "run"), std::vector<std::string>{});
        EXPECT_EQ(recycle(4), 0);
        EXPECT_FALSE(fs::exists(plain));
        EXPECT_EQ(recycle(1), -1);
        EXPECT_EQ(test::List(current).size(), 2u);
        EXPECT_TRUE(fs::exists(loose + file));
        fs::remove_all(elsewhere);
    }
}

TEST_F(Recycler, ReportsWhatItDoesNotKnowAndLeavesIt) {
    MakeTree(Expand("<A>: 0=4; <B>t: 0=4"));
    MakeFile(kLogs + "power_on_log.muxz", 9000);
    MakeFile(kLogs + "notes.txt", 9000);
    MakeFile(kLogs + Expand("<A>/QRXMDLog_99999999999_2024_0101_000000.muxz"), 0);
    fs::create_directory(kLogs + Expand("<A>/sub"));
    config.recycle_size = 8;
    EXPECT_EQ(Recycle(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO,
                        "LogFileRecycler: total log file size=8MB, skip recycle (recycle=8MB)"));
    EXPECT_EQ(log.Count("Unexpected..."), 1u);
    EXPECT_TRUE(log.Has(
        ANDROID_LOG_WARN,
        "TraverseAndBuildFolderList: Unexpected file in log folder " + kLogs + "/notes.txt"));
    config.recycle_size = 4;
    {
        // What cannot be deleted still counts.
        const test::FailCalls busy({test::Call::kRemoveFile, EACCES, "QRXMDLog_"});
        EXPECT_EQ(Recycle(), -1);
    }
    EXPECT_EQ(Recycle(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, "BuildLogFileList: Unexpected entry in log folder ..."));
    // The other entries in the folder prevent its removal.
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "RecycleFolder: Error removing folder ..."));
    EXPECT_EQ(test::List(kLogs + Expand("<A>")).size(), 2u);
    EXPECT_TRUE(fs::exists(kLogs + "power_on_log.muxz"));

    fs::remove_all(kLogs);
    EXPECT_EQ(Recycle(), -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "LogFileRecycler: failed to traverse, skip recycle"));
}
