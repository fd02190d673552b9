#include "tools/muxz/listing.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <utility>

#include "storage/log_names.h"

namespace muxz {

namespace {

namespace names = quarn::log_names;

constexpr const char* kHistory = "log_folder_history";
constexpr const char* kCopiedList = "copied_folder_list";
constexpr size_t kMostHistory = size_t{1} << 20;  // bytes that are read of a list

class OwnFile : public FileSource {
  public:
    explicit OwnFile(Fd open_fd) : FileSource(open_fd.get()), fd(std::move(open_fd)) {}

  private:
    const Fd fd;
};

OpenedFile OpenAt(const std::string& path) {
    OpenedFile opened;
    opened.path = path;
    Fd fd = OpenRegular(AT_FDCWD, path, opened.why);
    if (!fd && errno == ENOENT) {
        const std::string renamed = FindRenamed(path);
        errno = ENOENT;
        if (!renamed.empty()) fd = OpenRegular(AT_FDCWD, opened.path = renamed, opened.why);
        struct stat link;
        if (!fd && lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
            opened.why = "is a link that leads nowhere";
            errno = ELOOP;
        }
    }
    opened.error = fd ? 0 : errno;
    struct stat info;
    if (!fd || fstat(fd.get(), &info) != 0) return opened;
    opened.size = static_cast<uint64_t>(info.st_size);
    opened.last_change = info.st_mtime;
    opened.source = std::make_unique<OwnFile>(std::move(fd));
    return opened;
}

Finding::What WhatOf(Complaint::Kind kind) {
    switch (kind) {
        case Complaint::Kind::kLeftOut:
            return Finding::What::kLeftOut;
        case Complaint::Kind::kFault:
            return Finding::What::kWrongName;
        case Complaint::Kind::kUnreadable:
            return Finding::What::kUnreadable;
    }
    return Finding::What::kUnreadable;
}

class Collector {
  public:
    void Take(const std::string& path);
    Listing Finish();

  private:
    void Tell(Finding::Kind kind, Finding::What what, const std::string& path,
              const std::string& text) {
        Finding finding;
        finding.kind = kind;
        finding.what = what;
        finding.path = path;
        finding.text = text;
        listing.findings.push_back(std::move(finding));
    }
    void Refuse(const std::string& path, const std::string& why) {
        Tell(Finding::Kind::kUnreadable, Finding::What::kUnreadable, path, why);
    }
    void TakeComplaints(const std::vector<Complaint>& complaints);
    void TakeFile(const std::string& path, uint64_t size);
    void TakeTree(const std::string& path);
    void TakeHeap(const std::string& folder);
    void TakeHistory(const std::string& folder);
    void AddCapture(Capture capture);
    void AddPowerOnLog(const std::string& path, uint64_t size, bool given);
    FoundGroup& GivenFiles(const std::string& folder);

    Listing listing;
    size_t given_paths = 0;
    size_t argument = 0;  // the one being taken
    Tree tree;            // of all paths
    // By the path of a capture: which argument led to it, and whether it named the capture itself.
    std::map<std::string, std::pair<size_t, bool>> arguments;
    std::map<std::string, size_t> places;  // of groups whose files were given one by one
    std::set<std::string> lists;           // that were read
    size_t copies = 0;
};

void Collector::TakeComplaints(const std::vector<Complaint>& complaints) {
    for (const Complaint& complaint : complaints) {
        const auto kind = complaint.kind == Complaint::Kind::kFault ? Finding::Kind::kFault
                          : complaint.kind == Complaint::Kind::kUnreadable
                              ? Finding::Kind::kUnreadable
                              : Finding::Kind::kNote;
        Tell(kind, WhatOf(complaint.kind), complaint.path, complaint.text);
    }
}

void Collector::Take(const std::string& given) {
    argument = given_paths++;
    std::string path = given;
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        if (errno != ENOENT) return Refuse(given, strerror(errno));
        path = FindRenamed(path);
        if (path.empty() || stat(path.c_str(), &info) != 0) return Refuse(given, strerror(ENOENT));
    }
    Capture capture;
    if (!S_ISDIR(info.st_mode)) {
        TakeFile(path, S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0);
    } else if (CaptureAt(path, capture)) {
        arguments.try_emplace(capture.path(), argument, true);
        tree.captures.push_back(std::move(capture));
    } else {
        TakeTree(path);
    }
}

// The files of a capture belong together by their folder, others may be of any captures.
FoundGroup& Collector::GivenFiles(const std::string& folder) {
    Capture capture;
    const bool is_capture = CaptureAt(folder == "." ? "./." : folder, capture);
    const auto [place, is_new] =
        places.try_emplace(is_capture ? folder : "", listing.groups.size());
    if (is_new) {
        FoundGroup& group = listing.groups.emplace_back();
        group.whole = false;
        if (is_capture) {
            group.kind = FoundGroup::Kind::kCapture;
            group.path = folder;
            group.capture = std::move(capture);
        }
    }
    return listing.groups[place->second];
}

void Collector::TakeFile(const std::string& path, uint64_t size) {
    if (LastComponent(path) == names::kPowerOnLog) return AddPowerOnLog(path, size, true);
    std::vector<FoundFile>& files = GivenFiles(FolderAround(path)).files;
    if (std::any_of(files.begin(), files.end(), [&](const auto& f) { return f.path == path; }))
        return;
    files.push_back(FileAt(path, size));
    files.back().given = true;
    files.back().place.first = argument;
}

void Collector::AddPowerOnLog(const std::string& path, uint64_t size, bool given) {
    FoundGroup& group = listing.groups.emplace_back();
    group.kind = FoundGroup::Kind::kPowerOn;
    group.path = FolderAround(path);
    group.files.push_back(FileAt(path, size));
    group.files.back().given = given;
}

void Collector::TakeTree(const std::string& path) {
    Tree own;
    std::vector<Complaint> complaints;
    if (!WalkTree(path, own, complaints)) return Refuse(path, strerror(errno));
    TakeComplaints(complaints);
    if (own.captures.empty() && own.power_on_logs.empty() && own.heaps.empty())
        return Refuse(path, "holds no log files");
    for (const std::string& heap : own.heaps) {
        if (own.captures.empty()) {
            TakeHeap(heap);
        } else {
            Tell(Finding::Kind::kNote, Finding::What::kLeftOut, heap,
                 "log files outside a capture are left out");
        }
    }
    for (const std::string& log : own.power_on_logs) {
        struct stat info;
        const bool sized = stat(log.c_str(), &info) == 0 && S_ISREG(info.st_mode);
        AddPowerOnLog(log, sized ? static_cast<uint64_t>(info.st_size) : 0, false);
    }
    if (!own.captures.empty()) {
        TakeHistory(path);
        TakeHistory(LastComponent(path).starts_with('.') ? path + "/.." : FolderAround(path));
    }
    for (const Capture& capture : own.captures) {
        arguments.try_emplace(capture.path(), argument, false);
    }
    std::move(own.captures.begin(), own.captures.end(), std::back_inserter(tree.captures));
}

void Collector::TakeHeap(const std::string& folder) {
    FoundGroup group;
    group.path = folder;
    std::vector<LogFile> files;
    std::vector<Complaint> complaints;
    const Fd fd = OpenFolder(folder);
    if (!fd || !ListFiles(fd, folder, files, complaints)) return Refuse(folder, strerror(errno));
    TakeComplaints(complaints);
    std::sort(files.begin(), files.end(),
              [](const LogFile& a, const LogFile& b) { return a.name < b.name; });
    for (const LogFile& file : files) {
        group.files.push_back(FileAt(folder + "/" + file.name, file.size));
        group.files.back().place = {argument, group.files.size()};
    }
    listing.groups.push_back(std::move(group));
}

// The daemon's history lies beside the log folder, the list of a copy among the copied captures.
void Collector::TakeHistory(const std::string& folder) {
    for (const char* name : {kHistory, kCopiedList}) {
        const std::string path = folder + "/" + name;
        std::string why;
        const Fd fd = OpenRegular(AT_FDCWD, path, why);
        struct stat info;
        if (!fd || fstat(fd.get(), &info) != 0) continue;
        const std::string identity =
            std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
        if (!lists.insert(identity).second) continue;
        FileSource source(fd.get());
        Window window(source, kMostHistory);
        const uint64_t start =
            static_cast<uint64_t>(info.st_size) -
            std::min<uint64_t>(static_cast<uint64_t>(info.st_size), kMostHistory);
        const Bytes bytes = window.At(start, kMostHistory);
        std::string line;
        for (const uint8_t byte : bytes) {
            if (byte != '\n') {
                line += static_cast<char>(byte);
                continue;
            }
            const std::string capture(LastComponent(line));
            if (names::ParseFolder(capture)) listing.history.push_back({capture, path});
            line.clear();
        }
    }
}

void Collector::AddCapture(Capture capture) {
    FoundGroup group;
    group.kind = FoundGroup::Kind::kCapture;
    const auto [argument_of_it, itself_given] = arguments[capture.path()];
    group.given = itself_given;
    group.copy = capture.copy;
    const Fd folder = OpenCapture(capture);
    group.path = capture.path();
    std::vector<LogFile> files;
    std::vector<Complaint> complaints;
    if (!folder && errno == ENOENT) {
        return Tell(Finding::Kind::kNote, Finding::What::kRecycled, group.path,
                    "gone, recycled meanwhile");
    }
    if (!folder || !ListFiles(folder, group.path, files, complaints))
        return Refuse(group.path, strerror(errno));
    TakeComplaints(complaints);
    for (const LogFile& file : files) {
        group.files.push_back(FileAt(group.path + "/" + file.name, file.size));
        group.files.back().place.first = argument_of_it;
    }
    if (capture.copy) ++copies;
    group.capture = std::move(capture);
    listing.groups.push_back(std::move(group));
}

Listing Collector::Finish() {
    std::sort(tree.captures.begin(), tree.captures.end(),
              [](const Capture& a, const Capture& b) { return a.path() < b.path(); });
    tree.captures.erase(
        std::unique(tree.captures.begin(), tree.captures.end(),
                    [](const Capture& a, const Capture& b) { return a.path() == b.path(); }),
        tree.captures.end());
    SettleCaptures(tree.captures);
    for (Capture& capture : tree.captures) AddCapture(std::move(capture));
    if (copies != 0) {
        Tell(Finding::Kind::kNote, Finding::What::kLeftOut, "",
             copies == 1 ? "1 capture is a copy and is left out"
                         : std::to_string(copies) + " captures are copies and are left out");
    }
    // What lies beside files that were given one by one may fill holes between them.
    for (FoundGroup& group : listing.groups) {
        if (group.whole) continue;
        std::set<std::string> folders, asked;
        for (const FoundFile& file : group.files) {
            folders.insert(FolderAround(file.path));
            asked.emplace(LastComponent(file.path));
        }
        for (const std::string& folder : folders) {
            std::vector<LogFile> files;
            std::vector<Complaint> ignored;
            ListFiles(OpenFolder(folder), folder, files, ignored);
            for (const LogFile& file : files) {
                if (!asked.contains(file.name)) group.others.push_back(file.index);
            }
        }
    }
    return std::move(listing);
}

}  // namespace

FoundFile FileAt(const std::string& path, uint64_t size) {
    return {path, size, [path] { return OpenAt(path); }, false, {}};
}

Listing Collect(const std::vector<std::string>& paths) {
    Collector collector;
    for (const std::string& path : paths) collector.Take(path);
    return collector.Finish();
}

}  // namespace muxz
