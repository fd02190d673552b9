// Finds the log files of a tree and puts them into capture order. log_names.h tells what the names
// say, docs/log-file-format.md how the order comes about.
//
// The daemon may write, rename and recycle meanwhile: folders are read until two readings agree,
// and what was renamed between listing and opening is looked up again by its number and time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "storage/log_names.h"
#include "tools/muxz/source.h"

namespace muxz {

// Owns a descriptor.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int open_fd) : fd(open_fd) {}
    Fd(Fd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Fd();

    int get() const { return fd; }
    // False with errno when the system tells of an error; it is closed in any case.
    bool Close();
    explicit operator bool() const { return fd >= 0; }

  private:
    int fd = -1;
};

class OwnFileSource : public FileSource {
  public:
    explicit OwnFileSource(Fd open_fd) : FileSource(open_fd.get()), fd(std::move(open_fd)) {}

  private:
    const Fd fd;
};

struct LogFile {
    std::string name;
    uint32_t index;
    std::string time;
    bool exception;
    uint64_t size;  // bytes, when it was listed
};

// A log file that is no file on disk.
struct HeldFile : LogFile {
    std::string path;
    std::optional<int64_t> last_change;  // UTC
    std::function<std::unique_ptr<Source>()> open;
};

struct Capture {
    std::string folder;  // path of the folder around it
    std::string name;
    uint32_t index;
    std::string time;
    bool exception;
    bool finished;
    bool copy;  // a copy command put it there, or another capture of the tree holds the same
    // In the order of their numbers; null: they are on disk.
    std::shared_ptr<const std::vector<HeldFile>> held;

    std::string path() const { return folder + "/" + name; }
};

// What was met on the way and is not in the result.
struct Complaint {
    enum class Kind {
        kLeftOut,     // looks like a log, but lies where none belongs
        kFault,       // cannot be put into its place
        kUnreadable,  // by an error of the system
    };
    Kind kind;
    std::string path;
    std::string text;
};

struct Tree {
    std::vector<Capture> captures;           // in capture order, copies among them
    std::vector<std::string> power_on_logs;  // paths; not those beside copies
    std::vector<std::string> heaps;          // folders with log files outside of captures
};

// The capture whose folder is `path`, by its name; false when it is none or its number too large.
// `path` may end in "." or "..".
bool CaptureAt(const std::string& path, Capture& capture);

// What the name of a log file tells; false when it is none or its number too large.
bool ParseLogFile(const std::string& name, LogFile& file);

// Links to folders are not followed. False with errno when `root` itself cannot be read.
bool ListTree(const std::string& root, Tree& tree, std::vector<Complaint>& complaints);
// As ListTree, but adds to `tree`, whose captures are then neither in order nor marked as copies.
bool WalkTree(const std::string& root, Tree& tree, std::vector<Complaint>& complaints);
// Puts the captures of one tree or more into order and marks copies among them.
void SettleCaptures(std::vector<Capture>& captures);

// The log files of a capture's folder in the order of their numbers. `path` is for complaints.
// False with errno.
bool ListFiles(const Fd& folder, const std::string& path, std::vector<LogFile>& files,
               std::vector<Complaint>& complaints);

// These bring the name up to date when it was changed meanwhile. On failure no descriptor, with
// errno; ENOENT means that it was recycled.
Fd OpenCapture(Capture& capture);
Fd OpenFile(const Fd& folder, LogFile& file, std::string& why);

// The present path of a capture folder or log file that has another name meanwhile; empty: none.
std::string FindRenamed(const std::string& path);

// Opens what must be a regular file, relative to `folder`, without ever waiting. On failure no
// descriptor, with errno, and `why` for people.
Fd OpenRegular(int folder, const std::string& path, std::string& why);
Fd OpenFolder(const std::string& path);

using quarn::log_names::LastComponent;
// Without a slash at its end; "." when `path` is a name.
std::string FolderAround(const std::string& path);

// A file of this name may end anywhere: the daemon may not have closed it yet.
bool MayBeOpen(std::string_view path);

// Sorts by number, equal ones by time. Numbers have 32 bits and wrap: when both ends of their range
// are there, the run that starts at 0 is the newest.
template <typename T>
void OrderByIndex(std::vector<T>& items) {
    std::sort(items.begin(), items.end(), [](const T& a, const T& b) {
        return std::tie(a.index, a.time, a.name) < std::tie(b.index, b.time, b.name);
    });
    if (items.size() < 2 || items.front().index != 0 || items.back().index != UINT32_MAX) return;
    const auto last_of_run = std::adjacent_find(
        items.begin(), items.end(), [](const T& a, const T& b) { return b.index - a.index > 1; });
    if (last_of_run != items.end()) std::rotate(items.begin(), last_of_run + 1, items.end());
}

}  // namespace muxz
