// Checks what a killed process of the daemon leaves on disk: names, folders, sizes and the folder
// history. Simulates a power cut.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "core/quarn_config.h"
#include "storage/power_on_log.h"
#include "tests/soak/account.h"
#include "tests/soak/phone.h"
#include "tests/support.h"
#include "tools/muxz/tree.h"

namespace soak {

// The largest sizes that a client sets while this check is used.
inline constexpr uint64_t kLargestFileMb = 2;
inline constexpr uint64_t kLargestTreeMb = 10;

inline constexpr const char* kOldKib = "KiB old enough for a power cut";  // in the report

// Made before the process starts, used after its end.
class TreeCheck {
  public:
    explicit TreeCheck(Report& out) : report(out), before(Survey()) {
        std::error_code none;
        for (const auto& entry : fs::recursive_directory_iterator(kTree, none)) {
            old_inodes.insert(Inode(entry));
        }
    }

    // Simulates a power cut: cuts each file to its synced length, which is in the notes of
    // power_cut.cpp. All bytes that were written up to `due` (steady clock) must be synced.
    void CutBack(const std::string& notes_path, std::chrono::nanoseconds due) {
        std::map<ino_t, uintmax_t> wanted, synced;
        std::set<ino_t> named = old_inodes;
        std::istringstream notes(test::ReadFile(notes_path));
        char kind;
        int64_t time;
        ino_t inode;
        uintmax_t length;
        while (notes >> kind >> time >> inode >> length) {
            if (kind == 'w' && time <= due.count()) wanted[inode] = length;
            if (kind == 's') synced[inode] = length;
            if (kind == 'e') named.insert(inode);
        }
        std::vector<fs::path> paths;  // each after its folder
        for (const auto& entry : fs::recursive_directory_iterator(kLogs)) paths.push_back(entry);
        for (auto path = paths.rbegin(); path != paths.rend(); ++path) {
            inode = Inode(*path);
            if (old_inodes.contains(inode)) continue;
            bool found = true;
            for (fs::path at = *path; at != fs::path(kTree); at = at.parent_path()) {
                found = found && named.contains(Inode(at));
            }
            if (fs::is_directory(*path)) {
                if (!found) fs::remove(*path);
            } else if (*path == quarn::zorvex::kPowerOnLogPath) {
                fs::remove(*path);  // the daemon never syncs it
            } else {
                CutFile(*path, wanted[inode], found ? synced[inode] : 0);
            }
        }
    }

    void Check(Account& books) {
        const std::vector<Folder> after = Survey();
        CheckFinished(after, books);
        CheckHistory(after);
        CheckSize(after);
        std::vector<Folder> left;
        for (const Folder& folder : after) {
            Expect(OpenEndings(folder) <= 2, "more than two unfinished files in " + folder.name);
            if (IsNew(folder)) left.push_back(folder);
        }
        books.VerifyLeft(left, NextIndex());
    }

  private:
    void Expect(bool holds, const std::string& fault) {
        if (!holds) report.Fault(fault);
    }

    // Returns the captures in their order. Anything else in the tree is a fault.
    std::vector<Folder> Survey() {
        muxz::Tree tree;
        std::vector<muxz::Complaint> complaints;
        muxz::ListTree(kLogs, tree, complaints);
        Expect(tree.captures.size() + tree.power_on_logs.size() == test::List(kLogs).size(),
               "the log folder holds something else than captures");
        std::vector<Folder> folders;
        for (muxz::Capture& capture : tree.captures) {
            Folder folder{capture, {}};
            muxz::ListFiles(muxz::OpenCapture(capture), folder.name, folder.files, complaints);
            Expect(folder.files.size() == test::List(folder.path()).size(),
                   "something else than log files is in " + folder.name);
            folders.push_back(std::move(folder));
        }
        for (const muxz::Complaint& complaint : complaints) {
            report.Fault(complaint.path + ": " + complaint.text);
        }
        return folders;
    }

    static ino_t Inode(const fs::path& path) {
        struct stat status = {};
        return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    }

    static size_t OpenEndings(const Folder& folder) {
        return static_cast<size_t>(
            std::count_if(folder.files.begin(), folder.files.end(),
                          [](const muxz::LogFile& file) { return muxz::MayBeOpen(file.name); }));
    }

    bool IsNew(const Folder& folder) const {
        return std::none_of(before.begin(), before.end(),
                            [&](const Folder& old) { return old.index == folder.index; });
    }

    // Returns the index of the first capture that the process begins.
    uint32_t NextIndex() const { return before.empty() ? 0 : before.back().index + 1; }

    void CutFile(const fs::path& path, uintmax_t wanted, uintmax_t left) {
        const uintmax_t size = fs::file_size(path);
        Expect(left >= wanted, "a power cut leaves " + std::to_string(left) + " of " +
                                   std::to_string(size) + " bytes, of which " +
                                   std::to_string(wanted) + " are old enough: " + path.native());
        report.Add(kOldKib, wanted / 1024);
        report.Add("KiB lost by power cuts", (size - left) / 1024);
        if (left == 0) {
            fs::remove(path);
            report.Add("files lost by power cuts");
        } else {
            fs::resize_file(path, left);
            Expect(test::DecodeFile(path).whole, "not whole after a power cut: " + path.native());
        }
    }

    // Once a new capture has a file with blocks, the daemon must have finished the folder that was
    // the newest one before.
    void CheckFinished(const std::vector<Folder>& after, const Account& books) {
        const auto first =
            std::find_if(after.begin(), after.end(), [&](const Folder& f) { return IsNew(f); });
        if (first == after.end()) return;
        const uint32_t next = NextIndex();
        // The first capture of the process may have been recycled.
        Expect(first->index == next || books.Mentions(next),
               first->name + " is there instead of index " + std::to_string(next));
        if (before.empty()) return;
        const Folder& last = before.back();
        const bool has_blocks =
            first->files.size() > 1 ||
            (!first->files.empty() &&
             !test::DecodeFile(first->path() + "/" + first->files[0].name).bytes.empty());
        const auto became = std::find_if(after.begin(), after.end(),
                                         [&](const Folder& f) { return f.index == last.index; });
        if (!has_blocks || became == after.end()) return;  // too early, or recycled
        Expect(became->finished, "not finished: " + became->name);
        const size_t endings = OpenEndings(last);
        if (became->files.size() < last.files.size()) return;
        Expect(OpenEndings(*became) == (endings > 0 ? endings - 1 : 0),
               "not one unfinished file fewer: " + became->name);
    }

    void CheckHistory(const std::vector<Folder>& after) {
        const std::string history = test::ReadFile(kTree + "/log_folder_history");
        Expect(history.empty() || history.ends_with('\n'), "half a record in the folder history");
        for (const Folder& folder : after) {
            const std::string name =
                folder.name.substr(0, folder.name.find_last_of("0123456789") + 1);
            if (history.find("/" + name + "\n") != std::string::npos) continue;
            report.Add("folders that the history does not know");
            // A kill may come between the folder and its record, but not with a file in it.
            Expect(!IsNew(folder) || folder.files.empty(),
                   "the history does not know " + folder.name);
        }
    }

    // The recycler runs before a file is opened. Then the tree may grow by this file, and by the
    // write that fills it.
    void CheckSize(const std::vector<Folder>& after) {
        const bool opened = std::any_of(after.begin(), after.end(), [&](const Folder& folder) {
            return IsNew(folder) && !folder.files.empty();
        });
        if (!opened) return;
        size_t files = 0;
        for (const Folder& folder : after) files += folder.files.size();
        const uint64_t most = (recycle_mb + file_mb + 1) * kMiB + files * 2048;
        const uint64_t size =
            test::TreeSize(kLogs) - test::ReadFile(quarn::zorvex::kPowerOnLogPath).size();
        Expect(size <= most, "the tree has " + std::to_string(size) + " bytes, at most " +
                                 std::to_string(most) + " are allowed");
    }

    // Returns a setting of the configuration file, but at least the largest value that a client
    // sets.
    static uint64_t SettingMb(const char* key, uint64_t most_set) {
        const std::string config = "\n" + test::ReadFile(kConfigPath);
        const size_t at = config.find("\n" + std::string(key) + " ");
        if (at == std::string::npos) return most_set;
        return std::max<uint64_t>(most_set, strtoull(&config[at + strlen(key) + 2], nullptr, 10));
    }

    Report& report;
    const uint64_t recycle_mb = SettingMb("recycle_size", kLargestTreeMb);
    const uint64_t file_mb = SettingMb("file_size", kLargestFileMb);
    const std::vector<Folder> before;  // the tree before the start
    std::set<ino_t> old_inodes;        // inodes of the tree before the start
};

}  // namespace soak
