// Names in the log tree, and recycling a tree of any names and sizes. Each line of the input is an
// entry of the tree, below the log folder:
//
//   PATH/         a folder          PATH >        a link to the folder that must stay as it is
//   PATH KIB      a file, sparse    * RECYCLE KEEP CLEAR   the settings: MB, MB, 0 or 1
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "core/quarn.h"
#include "fuzz.h"
#include "storage/folder_history.h"
#include "storage/log_file_recycler.h"
#include "storage/log_names.h"
#include "tools/muxz_tree.h"

namespace fs = std::filesystem;
namespace names = quarn::log_names;

namespace {

const std::string kBase = "/data/vendor/radio/quarn/";
const std::string kLogs = kBase + "logs/";
const std::string kOutside = "/data/outside/";
const std::string kOutsideFile = kOutside + "QRXMDLog_1_2024_01/QRXMDLog_0_2024_01.muxz";
constexpr int64_t kMaxKib = int64_t{8} << 20;

// The names as they are defined.
void CheckNames(const std::string& name) {
    static const std::regex folder("QRXMDLog_(\\d+)_([_\\d]+\\d+)(t|t_EE|_EE)?");
    static const std::regex file("QRXMDLog_(\\d+)_([_\\d]+\\d+)(_EE)?(\\.muxz|\\.muxz\\.tmp)");
    const auto same = [&](const std::regex& pattern, const std::optional<names::Name>& parsed) {
        std::smatch match;
        const bool matches = std::regex_match(name, match, pattern);
        fuzz::Check(matches == parsed.has_value(), "a name is one if it looks like one");
        if (!matches) return;
        fuzz::Check(match[1] == std::string(parsed->index), "its index");
        fuzz::Check(match[2] == std::string(parsed->time), "its time");
        fuzz::Check(match[3].str() == parsed->suffix, "its suffix");
    };
    same(folder, names::ParseFolder(name));
    same(file, names::ParseFile(name));
}

bool IsWithinTree(const fs::path& path) {
    return !path.empty() && path.is_relative() &&
           std::find(path.begin(), path.end(), "..") == path.end();
}

struct Settings {
    unsigned int recycle = 0, keep = 0;
    bool clear = true;
};

void MakeEntry(const std::string& line, Settings& settings) {
    const size_t blank = line.find(' ');
    const fs::path path = line.substr(0, blank);
    const std::string what = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (path == "*") {
        std::istringstream(what) >> settings.recycle >> settings.keep >> settings.clear;
        return;
    }
    if (line.find('\0') != std::string::npos || !IsWithinTree(path)) return;
    for (const fs::path& part : path) CheckNames(part);
    std::error_code refused;  // too long, or already there as something else
    const fs::path own = kLogs / path;
    // Not through a link that an earlier line made.
    if (fs::weakly_canonical(own, refused).string().find(kLogs) != 0) return;
    fs::create_directories(what.empty() ? own : own.parent_path(), refused);
    if (what == ">") {
        fs::create_directory_symlink(kOutside, own, refused);
    } else if (!what.empty()) {
        const int fd = open(own.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return;
        const int64_t kib = std::clamp<int64_t>(atoll(what.c_str()), 0, kMaxKib);
        fuzz::Check(ftruncate(fd, kib * 1024) == 0, "a sparse file");
        close(fd);
    }
}

// What the recycler is about: KiB of log files, and everything else.
struct Tree {
    int64_t log_kib = 0;
    std::set<std::string> foreign;
};
Tree Look() {
    Tree tree;
    for (fs::recursive_directory_iterator entry(kLogs), end; entry != end; ++entry) {
        const std::string name = entry->path().filename();
        if (entry->is_symlink() || (entry->is_regular_file() && !names::ParseFile(name))) {
            tree.foreign.insert(entry->path());
        } else if (entry->is_regular_file()) {
            tree.log_kib += static_cast<int64_t>(entry->file_size() >> 10);
        }
    }
    return tree;
}

}  // namespace

void fuzz::SetUp() {
    fs::create_directories(fs::path(kOutsideFile).parent_path());
    std::ofstream(kOutsideFile) << "a log file that is none of the tree's";
    fs::resize_file(kOutsideFile, 100 << 20);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxEntries = 64;
    fs::remove_all(kLogs);
    fs::create_directories(kLogs);
    Settings settings;
    std::string_view lines = fuzz::Text(data, size);
    for (size_t i = 0; i < kMaxEntries && !lines.empty(); ++i) {
        MakeEntry(fuzz::TakeLine(lines), settings);
    }

    muxz::Tree listed;
    std::vector<muxz::Complaint> complaints;
    fuzz::Check(muxz::ListTree(kLogs, listed, complaints), "any tree can be listed");
    for (const muxz::Capture& capture : listed.captures) {
        fuzz::Check(names::ParseFolder(capture.name).has_value(), "captures are named so");
        muxz::IsCapture(capture.path());
    }

    const Tree before = Look();
    RECYCLE_CONFIG config;
    config.recycle_size = settings.recycle;
    config.keep_ee_size = settings.keep;
    config.clear_ee = settings.clear;
    const int32_t rc = quarn::zorvex::LogFileRecycler::GetInstance()->CheckAndRecycle(config);
    const Tree after = Look();
    const int64_t budget = int64_t{settings.recycle} << 10;
    fuzz::Check((rc == 0) == (after.log_kib <= budget), "the result tells whether it is in budget");
    fuzz::Check(after.foreign == before.foreign, "what is no log file stays");
    fuzz::Check(before.log_kib > budget || after.log_kib == before.log_kib,
                "nothing goes without need");
    fuzz::Check(fs::exists(kOutsideFile), "nothing outside the tree goes");
    return 0;
}
