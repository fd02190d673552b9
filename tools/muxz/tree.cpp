#include "tools/muxz/tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <queue>

#include "storage/log_names.h"
#include "tools/muxz/source.h"

namespace muxz {

namespace names = quarn::log_names;

Fd::~Fd() { Close(); }

bool Fd::Close() { return fd < 0 || close(std::exchange(fd, -1)) == 0; }

std::string FolderAround(const std::string& path) {
    const size_t before_name = path.find_last_not_of('/') + 1 - LastComponent(path).size();
    return before_name == 0 ? "." : path.substr(0, std::max<size_t>(before_name - 1, 1));
}

bool MayBeOpen(std::string_view path) {
    // The power-on log has one name from its first byte on.
    return path.ends_with(names::kOpenEnding) || LastComponent(path) == names::kPowerOnLog;
}

namespace {

constexpr int kMostReadings = 8;  // listings of a folder that keeps changing
constexpr int kMostAttempts = 3;  // attempts to open a file that is renamed again and again
constexpr int kMaxDepth = 8;      // levels of a capture below the root of its tree
// Two files are copies if so many bytes are equal. More than the size of a header.
constexpr size_t kCompared = size_t{256} * 1024;
// A capture is compared with at most so many captures of the same number and time.
constexpr size_t kMostOriginals = 16;
constexpr const char* kCopiedList = "copied_folder_list";
constexpr const char* kBadNumber = "left out, its number does not fit 32 bits";

// Returns true if a browser or a person may have made `name` from that of a log file: "...
// (1).muxz",
// "... .muxz.gz".
bool LooksLikeLog(const std::string& name) {
    return name != names::kPowerOnLog && name.find(".muxz") != std::string::npos;
}

struct Entry {
    std::string name;
    bool is_folder;
    bool operator==(const Entry&) const = default;
};

bool IsFolder(int folder, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
    struct stat info;
    return fstatat(folder, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

// Lists `folder` once. The entries are sorted by name.
bool ReadOnce(const Fd& folder, std::vector<Entry>& entries) {
    entries.clear();
    const int own = openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (own < 0) return false;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(own), closedir);
    if (!stream) {
        close(own);
        return false;
    }
    while (true) {
        errno = 0;
        const dirent* entry = readdir(stream.get());
        if (entry == nullptr) break;
        const std::string name = entry->d_name;
        if (name != "." && name != "..") entries.push_back({name, IsFolder(own, *entry)});
    }
    if (errno != 0) return false;
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    return true;
}

// Lists `folder` until two listings in a row agree, because a listing may miss a file that is
// renamed at the same time.
bool ReadFolder(const Fd& folder, std::vector<Entry>& entries) {
    std::vector<Entry> before;
    if (!folder || !ReadOnce(folder, entries)) return false;
    for (int reading = 1; reading < kMostReadings && entries != before; ++reading) {
        std::swap(before, entries);
        if (!ReadOnce(folder, entries)) return false;
    }
    return true;
}

// Sets the fields of `capture` from a folder name. Does not change `capture.folder`.
bool ParseCapture(const std::string& name, Capture& capture) {
    const std::optional<names::Name> parsed = names::ParseFolder(name);
    const auto index = parsed ? names::ParseIndex(parsed->index) : std::nullopt;
    if (!index) return false;
    capture.name = name;
    capture.index = *index;
    capture.time = parsed->time;
    capture.exception = parsed->suffix.ends_with(names::kException);
    capture.finished = !names::IsUnfinished(name);
    capture.copy = false;
    return true;
}

// Returns the files of a capture on disk or in an archive.
std::vector<HeldFile> FilesOf(Capture capture) {
    if (capture.held) return *capture.held;
    const auto folder = std::make_shared<const Fd>(OpenCapture(capture));
    std::vector<LogFile> files;
    std::vector<Complaint> ignored;
    ListFiles(*folder, "", files, ignored);
    std::vector<HeldFile> held;
    for (const LogFile& file : files) {
        const auto open = [folder, file]() -> std::unique_ptr<Source> {
            std::string why;
            LogFile present = file;
            Fd fd = OpenFile(*folder, present, why);
            return fd ? std::make_unique<OwnFileSource>(std::move(fd)) : nullptr;
        };
        held.push_back({file, {}, {}, open});
    }
    return held;
}

uint64_t PackedBytes(const Capture& capture) {
    uint64_t bytes = 0;
    for (const HeldFile& file : FilesOf(capture)) bytes += file.size;
    return bytes;
}

bool SameBeginning(Source& a, Source& b) {
    Window window_a(a, kCompared), window_b(b, kCompared);
    const Bytes bytes_a = window_a.At(0, kCompared), bytes_b = window_b.At(0, kCompared);
    const size_t size = std::min({bytes_a.size(), bytes_b.size(), kCompared});
    return size != 0 && memcmp(bytes_a.data(), bytes_b.data(), size) == 0;
}

// Returns true if a file of one capture begins with the same bytes as the file with the same
// number, time and mark in the other capture. Names alone do not show a copy, since captures of two
// log folders may have the same number and time.
bool HoldsSame(const Capture& a, const Capture& b) {
    const std::vector<HeldFile> files_a = FilesOf(a), files_b = FilesOf(b);
    std::map<std::tuple<uint32_t, std::string, bool>, const HeldFile*> by_name;
    for (const HeldFile& file_b : files_b) {
        by_name.try_emplace({file_b.index, file_b.time, file_b.exception}, &file_b);
    }
    for (const HeldFile& file_a : files_a) {
        const auto namesake = by_name.find({file_a.index, file_a.time, file_a.exception});
        if (namesake == by_name.end()) continue;
        const auto source_a = file_a.open(), source_b = namesake->second->open();
        if (source_a && source_b && SameBeginning(*source_a, *source_b)) return true;
    }
    return false;
}

// Marks copies. The original is the capture that is closest to the root. At the same depth, it is
// the largest one.
void MarkCopies(std::vector<Capture>& captures) {
    std::map<std::pair<uint32_t, std::string>, std::vector<Capture*>> namesakes;
    for (Capture& capture : captures) {
        if (!capture.copy) namesakes[{capture.index, capture.time}].push_back(&capture);
    }
    for (const auto& [name, same] : namesakes) {
        if (same.size() < 2) continue;
        using Rank = std::tuple<int64_t, uint64_t, std::string, Capture*>;
        std::vector<Rank> ranks;
        for (Capture* capture : same) {
            const auto depth = std::count(capture->folder.begin(), capture->folder.end(), '/');
            ranks.emplace_back(depth, UINT64_MAX - PackedBytes(*capture), capture->path(), capture);
        }
        std::sort(ranks.begin(), ranks.end());
        for (size_t i = 1; i < ranks.size(); ++i) {
            Capture& candidate = *std::get<Capture*>(ranks[i]);
            for (size_t k = 0; k < std::min(i, kMostOriginals) && !candidate.copy; ++k) {
                const Capture& original = *std::get<Capture*>(ranks[k]);
                candidate.copy = !original.copy && HoldsSame(original, candidate);
            }
        }
    }
}

// Captures of one log folder are ordered by their numbers, because the clock may have been set. Log
// folders number their captures separately, so their lists are merged by the times of their first
// captures.
std::vector<Capture> InCaptureOrder(std::vector<Capture> captures) {
    std::map<std::string, std::vector<Capture>> lists;
    for (Capture& capture : captures) lists[capture.folder].push_back(std::move(capture));
    struct Head {
        const std::vector<Capture>* list;
        size_t at;
        const Capture& operator*() const { return (*list)[at]; }
    };
    // The head that comes next is on top. No two heads are equal, since each has its own folder.
    const auto comes_later = [](const Head& a, const Head& b) {
        const bool open_a = !(*a).finished, open_b = !(*b).finished;
        return std::tie((*a).time, open_a, (*a).index, (*a).folder) >
               std::tie((*b).time, open_b, (*b).index, (*b).folder);
    };
    std::priority_queue<Head, std::vector<Head>, decltype(comes_later)> heads(comes_later);
    for (auto& [folder, list] : lists) {
        OrderByIndex(list);
        heads.push({&list, 0});
    }

    std::vector<Capture> ordered;
    while (!heads.empty()) {
        Head first = heads.top();
        heads.pop();
        ordered.push_back(*first);
        if (++first.at != first.list->size()) heads.push(first);
    }
    return ordered;
}

class TreeWalk {
  public:
    TreeWalk(Tree& found, std::vector<Complaint>& told) : tree(found), complaints(told) {}

    // NOLINTNEXTLINE(misc-no-recursion): no deeper than kMaxDepth.
    bool Walk(const std::string& path, int depth) {
        std::vector<Entry> entries;
        if (!ReadFolder(OpenFolder(path), entries)) return false;
        // If the root itself has the list, the user wants to see the copies.
        const bool copies =
            depth > 0 && std::any_of(entries.begin(), entries.end(),
                                     [](const Entry& e) { return e.name == kCopiedList; });
        bool loose = false;
        for (const Entry& entry : entries) {
            if (entry.is_folder) {
                TakeFolder(path, entry.name, depth, copies);
            } else if (entry.name == names::kPowerOnLog) {
                if (!copies) tree.power_on_logs.push_back(path + "/" + entry.name);
            } else {
                loose = loose || names::ParseFile(entry.name);
            }
        }
        if (loose) tree.unsorted.push_back(path);
        return true;
    }

  private:
    // NOLINTNEXTLINE(misc-no-recursion): no deeper than kMaxDepth.
    void TakeFolder(const std::string& path, const std::string& name, int depth, bool copies) {
        const std::string own_path = path + "/" + name;
        Capture capture;
        if (ParseCapture(name, capture)) {
            capture.folder = path;
            capture.copy = copies;
            tree.captures.push_back(std::move(capture));
        } else if (names::ParseFolder(name)) {
            complaints.push_back({Complaint::Kind::kFault, own_path, kBadNumber});
        } else if (depth < kMaxDepth && !Walk(own_path, depth + 1) && errno != ENOENT) {
            complaints.push_back({Complaint::Kind::kUnreadable, own_path, strerror(errno)});
        }
    }

    Tree& tree;
    std::vector<Complaint>& complaints;
};

}  // namespace

namespace {

// Find a renamed capture or file and update its name. Number and time never change; the exception
// mark of a file does not change either. Return false with errno set on failure. ENOENT means that
// there is no capture or file with this number and time.
bool LookUpAgain(const Fd& folder, Capture& capture) {
    std::vector<Entry> entries;
    if (!ReadFolder(folder, entries)) return false;
    for (const Entry& entry : entries) {
        Capture other = capture;
        if (ParseCapture(entry.name, other) &&
            std::tie(other.index, other.time) == std::tie(capture.index, capture.time)) {
            other.copy = capture.copy;
            capture = other;
            return true;
        }
    }
    errno = ENOENT;
    return false;
}

bool LookUpAgain(const Fd& folder, LogFile& file) {
    std::vector<Entry> entries;
    if (!ReadFolder(folder, entries)) return false;
    for (const Entry& entry : entries) {
        LogFile other;
        if (ParseLogFile(entry.name, other) &&
            std::tie(other.index, other.time, other.exception) ==
                std::tie(file.index, file.time, file.exception)) {
            file.name = other.name;
            return true;
        }
    }
    errno = ENOENT;
    return false;
}

}  // namespace

bool ParseLogFile(const std::string& name, LogFile& file) {
    const std::optional<names::Name> parsed = names::ParseFile(name);
    const auto index = parsed ? names::ParseIndex(parsed->index) : std::nullopt;
    if (!index) return false;
    file = {name, *index, std::string(parsed->time), !parsed->suffix.empty(), 0};
    return true;
}

bool CaptureAt(const std::string& path, Capture& capture) {
    std::string own = path;
    char real[PATH_MAX];
    if (LastComponent(path).starts_with('.') && realpath(path.c_str(), real) != nullptr) own = real;
    if (!ParseCapture(std::string(LastComponent(own)), capture)) return false;
    capture.folder = FolderAround(own);
    return true;
}

bool WalkTree(const std::string& root, Tree& tree, std::vector<Complaint>& complaints) {
    std::string path = root;
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    return TreeWalk(tree, complaints).Walk(path, 0);
}

void SettleCaptures(std::vector<Capture>& captures) {
    MarkCopies(captures);
    captures = InCaptureOrder(std::move(captures));
}

bool ListTree(const std::string& root, Tree& tree, std::vector<Complaint>& complaints) {
    if (!WalkTree(root, tree, complaints)) return false;
    for (const std::string& folder : tree.unsorted) {
        complaints.push_back(
            {Complaint::Kind::kLeftOut, folder, "log files outside a capture are left out"});
    }
    SettleCaptures(tree.captures);
    return true;
}

bool ListFiles(const Fd& folder, const std::string& path, std::vector<LogFile>& files,
               std::vector<Complaint>& complaints) {
    std::vector<Entry> entries;
    if (!ReadFolder(folder, entries)) return false;
    for (const Entry& entry : entries) {
        LogFile file;
        if (ParseLogFile(entry.name, file)) {
            struct stat info;
            if (fstatat(folder.get(), entry.name.c_str(), &info, 0) == 0)
                file.size = static_cast<uint64_t>(info.st_size);
            files.push_back(std::move(file));
        } else if (names::ParseFile(entry.name)) {
            complaints.push_back({Complaint::Kind::kFault, path + "/" + entry.name, kBadNumber});
        } else if (!entry.is_folder && LooksLikeLog(entry.name)) {
            complaints.push_back({Complaint::Kind::kLeftOut, path + "/" + entry.name,
                                  "left out, its name is not quite that of a log file"});
        }
    }
    OrderByIndex(files);
    return true;
}

Fd OpenFolder(const std::string& path) {
    return Fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

Fd OpenCapture(Capture& capture) {
    for (int attempt = 1;; ++attempt) {
        Fd fd = OpenFolder(capture.path());
        if (fd || errno != ENOENT || attempt == kMostAttempts) return fd;
        if (!LookUpAgain(OpenFolder(capture.folder), capture)) return {};
    }
}

Fd OpenRegular(int folder, const std::string& path, std::string& why) {
    // Without O_NONBLOCK, opening a pipe would block until another process opens its other end.
    Fd fd(openat(folder, path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info;
    if (!fd || fstat(fd.get(), &info) != 0) {
        why = strerror(errno);
        return {};
    }
    if (S_ISREG(info.st_mode)) return fd;
    why = S_ISDIR(info.st_mode) ? "is a folder" : "is not a regular file";
    fd.Close();
    errno = EINVAL;
    return fd;
}

Fd OpenFile(const Fd& folder, LogFile& file, std::string& why) {
    for (int attempt = 1;; ++attempt) {
        Fd fd = OpenRegular(folder.get(), file.name, why);
        if (fd || errno != ENOENT || attempt == kMostAttempts) return fd;
        if (!LookUpAgain(folder, file)) return {};
    }
}

std::string FindRenamed(const std::string& path) {
    Capture capture;
    LogFile file;
    if (CaptureAt(path, capture) && LookUpAgain(OpenFolder(capture.folder), capture))
        return capture.path();
    std::string around = FolderAround(path);
    if (!OpenFolder(around) && CaptureAt(around, capture) &&
        LookUpAgain(OpenFolder(capture.folder), capture))
        around = capture.path();
    if (ParseLogFile(std::string(LastComponent(path)), file) &&
        LookUpAgain(OpenFolder(around), file))
        return around + "/" + file.name;
    return "";
}

}  // namespace muxz
