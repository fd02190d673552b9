// Fuzz target: names in the log tree, the folder history, and recycling a tree with any names and
// sizes. Each line of the input is one of these. Paths are relative to the log folder.
//
//   PATH/                  a folder
//   PATH KIB               a sparse file
//   PATH > [FOLDER]        a link to a folder of the tree, or to the tree itself
//   * RECYCLE KEEP CLEAR   the recycle settings: MB, MB, 0 or 1
//   !                      a capture begins
//   ^ COUNT RECORD         adds a record to the history COUNT times; 0 deletes the history
//
// The clock stands still, so that an input can contain the name of its capture.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>
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
#include "tools/muxz/tree.h"

namespace fs = std::filesystem;
namespace names = quarn::log_names;

namespace {

const std::string kBase = "/data/vendor/radio/quarn/";
const std::string kLogs = kBase + "logs/";
const std::string kHistory = kBase + "log_folder_history";
constexpr int64_t kMaxKib = int64_t{8} << 20;
constexpr uintmax_t kMaxHistory = 200 * 1024;  // bytes; the daemon cuts the history earlier
constexpr size_t kMaxDepth = 16;               // levels of folders that recycling enters
constexpr time_t kNow = 1704067200;            // 2024-01-01 00:00:00

// Compares the parsed names with the patterns that define them.
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

// The parts of the input that are no entries of the tree.
struct Made {
    unsigned int recycle = 0, keep = 0;
    bool clear = true;
};

void CheckHistory() {
    constexpr size_t kRecords = quarn::zorvex::kHistoryRecords;
    std::deque<std::string> lines;
    std::ifstream file(kHistory, std::ios::binary);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
        if (lines.size() > kRecords) lines.pop_front();
    }
    fuzz::Check(quarn::zorvex::GetLatestHistoryRecord(kRecords) == lines,
                "the records are the last lines of the history");
}

void BeginCapture() {
    // A capture is already open, or its name is taken.
    if (g_file_io.check_io_open() || g_file_io.io_open() != 0) return;
    const std::string capture = g_file_io.get_latest_folder_path();
    fuzz::Check(fs::is_directory(capture), "a capture has its folder");
    CheckHistory();
    fuzz::Check(quarn::zorvex::GetLatestHistoryRecord(1).back() + "t" == capture,
                "the history knows the capture");
}

void WriteHistory(const std::string& what) {
    size_t count = 0;
    std::istringstream words(what);
    words >> count;
    words.ignore();
    std::string record;
    std::getline(words, record);
    if (count == 0) fs::remove(kHistory);
    std::ofstream file(kHistory, std::ios::binary | std::ios::app);
    record.resize(std::min<size_t>(record.size(), PATH_MAX - 1));
    record += '\n';
    for (uintmax_t size = fs::file_size(kHistory); count > 0 && size <= kMaxHistory; --count) {
        file << record;
        size += record.size();
    }
}

void MakeFile(const fs::path& own, int64_t kib) {
    const int fd = open(own.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    fuzz::Check(ftruncate(fd, std::clamp<int64_t>(kib, 0, kMaxKib) * 1024) == 0, "a sparse file");
    close(fd);
}

void MakeEntry(const fs::path& path, const std::string& what) {
    if (!IsWithinTree(path)) return;
    for (const fs::path& part : path) CheckNames(part);
    std::error_code refused;  // the path is too long, or another kind of entry has this path
    // Earlier lines may have made links, so resolve them.
    const fs::path own = fs::weakly_canonical(kLogs / path, refused);
    if (own.string().find(kLogs) != 0) return;
    const fs::path below = own.string().substr(kLogs.size());
    const auto depth = static_cast<size_t>(std::count_if(
        below.begin(), below.end(), [](const fs::path& part) { return !part.empty(); }));
    const bool is_link = what.starts_with('>');
    const bool is_file = !what.empty() && !is_link;
    if ((is_file ? depth - 1 : depth) > kMaxDepth) return;
    fs::create_directories(what.empty() ? own : own.parent_path(), refused);
    if (is_file) {
        MakeFile(own, atoll(what.c_str()));
    } else if (is_link) {
        const fs::path target = what.substr(std::min<size_t>(2, what.size()));
        if (!target.empty() && !IsWithinTree(target)) return;
        if (!fs::is_directory(kLogs / target, refused)) return;
        fs::create_directory_symlink(kLogs / target, own, refused);
    }
}

void TakeLine(const std::string& line, Made& made) {
    const size_t blank = line.find(' ');
    const std::string first = line.substr(0, blank);
    const std::string what = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (first == "*") {
        std::istringstream(what) >> made.recycle >> made.keep >> made.clear;
    } else if (first == "!") {
        BeginCapture();
    } else if (first == "^") {
        WriteHistory(what);
    } else if (line.find('\0') == std::string::npos) {
        MakeEntry(first, what);
    }
}

// What the recycler handles: KiB of log files, and everything else.
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

// Returns the number of the newest file of a capture. Returns no value if the numbers do not show
// it.
std::optional<uint32_t> NewestFile(const std::string& capture) {
    std::set<uint32_t> numbers;
    std::error_code
        gone;  // a capture without files may be removed, with the last folder recycled in it
    for (const auto& entry : fs::directory_iterator(capture, gone)) {
        const std::string name = entry.path().filename();
        const auto parsed = names::ParseFile(name);
        const auto number = parsed ? names::ParseIndex(parsed->index) : std::nullopt;
        if (!number || entry.is_symlink() || !entry.is_regular_file()) continue;
        if (!numbers.insert(*number).second) return std::nullopt;
    }
    if (numbers.empty()) return std::nullopt;
    if (!numbers.contains(0) || !numbers.contains(UINT32_MAX)) return *numbers.rbegin();
    uint32_t newest = 0;  // the numbers wrapped
    while (numbers.contains(newest + 1)) ++newest;
    return newest;
}

// `capture` is the capture that is being written. It is empty if there is none.
void Recycle(const Made& made, unsigned int recycle, const std::string& capture) {
    const Tree before = Look();
    const auto newest = capture.empty() ? std::nullopt : NewestFile(capture);
    RECYCLE_CONFIG config;
    config.recycle_size = recycle;
    config.keep_ee_size = made.keep;
    config.clear_ee = made.clear;
    const int32_t rc = quarn::zorvex::LogFileRecycler::GetInstance()->CheckAndRecycle(
        config, g_file_io.get_latest_folder_path());
    const Tree after = Look();
    const int64_t budget = int64_t{recycle} << 10;
    fuzz::Check((rc == 0) == (after.log_kib <= budget), "the result tells whether it is in budget");
    fuzz::Check(after.foreign == before.foreign, "what is no log file stays");
    fuzz::Check(before.log_kib > budget || after.log_kib == before.log_kib,
                "nothing goes without need");
    fuzz::Check(!newest || NewestFile(capture) == newest,
                "of the capture being written the newest file stays");
}

// Makes the tree as a daemon finds it at its first start.
void EmptyTree() {
    g_file_io.io_close();
    fs::remove_all(kBase);
    fuzz::Check(g_file_io.create_top_folder() == 0, "an empty tree");
    Recycle({}, 0, "");  // forgets the history
}

}  // namespace

// Replaces the clock that captures use.
extern "C" time_t time(time_t* result) {
    if (result != nullptr) *result = kNow;
    return kNow;
}

void fuzz::SetUp() {
    setenv("TZ", "UTC", 1);
    fs::create_directories(fs::path(kBase).parent_path().parent_path());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxEntries = 64;
    EmptyTree();
    Made made;
    std::string_view lines = fuzz::Text(data, size);
    for (size_t i = 0; i < kMaxEntries && !lines.empty(); ++i) {
        TakeLine(fuzz::TakeLine(lines), made);
    }
    CheckHistory();

    muxz::Tree listed;
    std::vector<muxz::Complaint> complaints;
    fuzz::Check(muxz::ListTree(kLogs, listed, complaints), "any tree can be listed");
    for (const muxz::Capture& capture : listed.captures) {
        fuzz::Check(names::ParseFolder(capture.name).has_value(), "captures are named so");
        muxz::Capture again;
        fuzz::Check(muxz::CaptureAt(capture.path(), again), "and found by it");
    }

    const auto capture = [] {
        return g_file_io.check_io_open() ? g_file_io.get_latest_folder_path() : "";
    };
    Recycle(made, made.recycle, capture());
    // Recycle again with a size limit of 0 and an exception in the capture.
    g_file_io.set_file_suffix(std::string(names::kException));
    g_file_io.rename_folder_ee();
    Recycle(made, 0, capture());
    return 0;
}
