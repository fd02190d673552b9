// Finds the log files of a tree and puts them into capture order. log_names.h parses the names.
// docs/log-file-format.md describes the order.
//
// The daemon may write, rename and recycle files at the same time. Therefore a folder is listed
// until two listings in a row agree. A file that was renamed between listing and opening is looked
// up again by its number and time.
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
    // Closes the descriptor in any case. Returns false with errno set if the system reports an
    // error.
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
    uint64_t size;  // bytes, when the file was listed
};

// A log file in an archive, or any file with a function that opens it.
struct HeldFile : LogFile {
    std::string path;
    std::optional<int64_t> last_change;  // UTC
    std::function<std::unique_ptr<Source>()> open;
};

struct Capture {
    std::string folder;  // path of the folder that contains the capture folder
    std::string name;
    uint32_t index;
    std::string time;
    bool exception;
    bool finished;
    bool copy;  // made by a copy command, or another capture of the tree contains the same
    // The files in the order of their numbers. Null if the files are on disk.
    std::shared_ptr<const std::vector<HeldFile>> held;

    std::string path() const { return folder + "/" + name; }
};

// A file or folder that is not in the result, and why.
struct Complaint {
    enum class Kind {
        kLeftOut,     // looks like a log file, but has no place in the tree
        kFault,       // its number is not valid
        kUnreadable,  // the system reported an error
    };
    Kind kind;
    std::string path;
    std::string text;
};

struct Tree {
    std::vector<Capture> captures;           // in capture order, including copies
    std::vector<std::string> power_on_logs;  // paths; those beside copies are left out
    std::vector<std::string> unsorted;       // folders with unsorted files
};

// Sets `capture` from the name of the folder at `path`. Returns false if this is not the name of a
// capture folder, or if its number does not fit 32 bits. `path` may end in "." or "..".
bool CaptureAt(const std::string& path, Capture& capture);

// Sets `file` from the name of a log file. Returns false if `name` is not such a name, or if its
// number does not fit 32 bits.
bool ParseLogFile(const std::string& name, LogFile& file);

// Lists the tree at `root`. Does not follow links to folders. Returns false with errno set if
// `root` itself cannot be read.
bool ListTree(const std::string& root, Tree& tree, std::vector<Complaint>& complaints);
// As ListTree, but adds to `tree`. Does not order the captures and does not mark copies.
bool WalkTree(const std::string& root, Tree& tree, std::vector<Complaint>& complaints);
// Orders the captures of one or several trees, and marks copies.
void SettleCaptures(std::vector<Capture>& captures);

// Lists the log files of a capture folder in the order of their numbers. `path` is the path of the
// folder, for complaints. Returns false with errno set if the folder cannot be read.
bool ListFiles(const Fd& folder, const std::string& path, std::vector<LogFile>& files,
               std::vector<Complaint>& complaints);

// Open a capture folder or a log file. If it was renamed after it was listed, these functions find
// it and update its name. They return an empty Fd with errno set on failure. ENOENT means that it
// was recycled.
Fd OpenCapture(Capture& capture);
Fd OpenFile(const Fd& folder, LogFile& file, std::string& why);

// Returns the present path of a capture folder or log file that was renamed. Returns an empty
// string if it was not found.
std::string FindRenamed(const std::string& path);

// Opens the regular file at `path`, relative to the descriptor `folder`. Never blocks, not even for
// a pipe. On failure returns an empty Fd, with errno set and `why` for people.
Fd OpenRegular(int folder, const std::string& path, std::string& why);
Fd OpenFolder(const std::string& path);

using quarn::log_names::LastComponent;
// Returns the path of the folder that contains `path`, without a slash at its end. Returns "." if
// `path` is a bare name.
std::string FolderAround(const std::string& path);

// Returns true if the name says that the daemon may not have closed the file. The file may then end
// anywhere.
bool MayBeOpen(std::string_view path);

// Sorts by number, then by time, then by name. Numbers have 32 bits and wrap. If both 0 and
// UINT32_MAX are there, the run of consecutive numbers that starts at 0 is the newest and goes to
// the end.
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
