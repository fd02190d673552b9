#include "log_tree.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "storage/log_names.h"

namespace quarnctl {

namespace log_names = quarn::log_names;

namespace {

constexpr int kKbShift = 10;
// As deep as the recycler goes.
constexpr int kMaxDepth = 16;

class Walk {
  public:
    explicit Walk(LogTree& found) : tree(found) {}

    void Run(const std::string& root) {
        folders.push_back({root, 0});
        while (!folders.empty()) {
            const Folder folder = std::move(folders.back());
            folders.pop_back();
            TakeFolder(folder);
        }
    }

  private:
    struct Folder {
        std::string path;
        int depth;
    };

    void TakeFolder(const Folder& folder) {
        const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder.path.c_str()), closedir);
        if (!dir) {
            // The recycler may have removed the folder meanwhile.
            if (errno != ENOENT || folder.depth == 0) tree.why = strerror(errno);
            return;
        }
        tree.readable = true;
        while (const dirent* entry = readdir(dir.get())) {
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..") continue;
            const std::string path = folder.path + "/" + entry->d_name;
            struct stat status;
            if (lstat(path.c_str(), &status) != 0) continue;
            if (S_ISDIR(status.st_mode) && folder.depth < kMaxDepth) {
                folders.push_back({path, folder.depth + 1});
            } else if (S_ISREG(status.st_mode) && log_names::ParseFile(name)) {
                TakeFile(folder.path, path, status);
            }
        }
    }

    void TakeFile(const std::string& folder, const std::string& path, const struct stat& status) {
        const auto size = static_cast<uint64_t>(status.st_size);
        tree.bytes += size >> kKbShift << kKbShift;
        ++tree.files;
        // A crash may leave several files with this ending. The newest one is the current one.
        const bool is_open = path.ends_with(log_names::kOpenEnding) &&
                             log_names::IsUnfinished(log_names::LastComponent(folder));
        const timespec& changed = status.st_mtim;
        if (!is_open || (!tree.file.empty() && !IsLater(changed))) return;
        newest = changed;
        tree.capture = folder;
        tree.file = path;
        tree.file_bytes = size;
        tree.file_changed = changed.tv_sec;
    }

    bool IsLater(const timespec& time) const {
        return time.tv_sec != newest.tv_sec ? time.tv_sec > newest.tv_sec
                                            : time.tv_nsec > newest.tv_nsec;
    }

    LogTree& tree;
    std::vector<Folder> folders;  // those that wait
    timespec newest = {};
};

}  // namespace

LogTree ReadLogTree(const std::string& root) {
    LogTree tree;
    Walk(tree).Run(root);
    return tree;
}

Storage ReadStorage(std::string path) {
    struct statvfs status;
    // More users may reach the folders above.
    while (statvfs(path.c_str(), &status) != 0) {
        const size_t slash = path.rfind('/');
        if (slash == 0 || slash == std::string::npos) return {};
        path.resize(slash);
    }
    return {true, uint64_t{status.f_bavail} * status.f_frsize,
            uint64_t{status.f_blocks} * status.f_frsize};
}

}  // namespace quarnctl
