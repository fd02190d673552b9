#include "tools/muxz/listing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <utility>

#include "storage/log_names.h"
#include "tools/muxz/archive.h"
#include "tools/muxz/spool.h"

namespace muxz {

namespace {

namespace names = quarn::log_names;

constexpr const char* kHistory = "log_folder_history";
constexpr const char* kCopiedList = "copied_folder_list";
constexpr const char* kBadNumber = "left out, its number does not fit 32 bits";
constexpr size_t kMostHistory = size_t{1} << 20;  // bytes read of a list

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
    opened.source = std::make_unique<OwnFileSource>(std::move(fd));
    return opened;
}

bool IsList(std::string_view name) { return name == kHistory || name == kCopiedList; }

// Returns a file in the archive at `container`.
FoundFile FileIn(const std::string& container, const HeldFile& held) {
    const auto open = [held] {
        OpenedFile opened;
        opened.source = held.open();
        opened.path = held.path;
        opened.size = held.size;
        opened.last_change = held.last_change;
        return opened;
    };
    return {held.path, held.size, open, false, {}, container};
}

bool BeginsArchive(Source& source) {
    Window window(source, kArchiveFront);
    const Bytes front = window.At(0, kArchiveFront);
    return IsArchive(front);
}

// Opens the archive at `path`. Returns null if the first bytes are not those of an archive, or if
// the file has the name of a log file.
std::shared_ptr<Source> ArchiveAt(const std::string& path) {
    const std::string_view name = LastComponent(path);
    std::string why;
    if (names::ParseFile(name) || name == names::kPowerOnLog) return nullptr;
    Fd fd = OpenRegular(AT_FDCWD, path, why);
    if (!fd) return nullptr;
    auto source = std::make_shared<OwnFileSource>(std::move(fd));
    return BeginsArchive(*source) ? source : nullptr;
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

// Returns the deepest folder that contains all members.
std::string CommonFolder(const std::vector<Member>& members) {
    std::string common = FolderAround(members.front().path);
    for (const Member& member : members) {
        while (!member.path.starts_with(common + "/")) {
            const size_t slash = common.rfind('/');
            if (slash == std::string::npos) return "";
            common.resize(slash);
        }
    }
    return common;
}

// Reads `size` bytes, or fewer if the pipe ends. Returns false with errno set on failure.
bool ReadFront(const Fd& fd, size_t size, std::vector<uint8_t>& front) {
    front.resize(size);
    size_t used = 0;
    for (ssize_t got = 1; used < size && got > 0; used += static_cast<size_t>(got)) {
        got = ReadSome(fd.get(), front.data() + used, size - used);
        if (got < 0) return false;
    }
    front.resize(used);
    return true;
}

class Collector {
  public:
    explicit Collector(bool may_be_live) : live(may_be_live) {}

    void Take(const std::string& given);
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
    void TakePipe(const std::string& path, Fd pipe);
    void TakeStream(const std::string& path, const std::shared_ptr<Source>& source, uint64_t size);
    void TakeArchive(const std::string& path, const std::shared_ptr<Source>& source,
                     std::optional<uint64_t> size);
    void TakeMembers(const std::string& path, std::vector<Member> members);
    std::set<std::string> TakeMemberLists(const std::vector<Member>& members);
    void TakeList(const std::string& path, Bytes bytes);
    void TakeUnsorted(const std::string& folder);
    void TakeHistory(const std::string& folder);
    void AddCapture(Capture capture);
    void AddPowerOnLog(const std::string& path, uint64_t size, bool given);
    FoundGroup& GivenFiles(const std::string& folder);

    const bool live;
    Listing listing;
    bool input_taken = false;  // standard input
    size_t given_paths = 0;
    size_t argument = 0;  // position of the present argument
    Tree tree;            // captures of all arguments
    // Key: path of a capture. Value: position of the argument that led to it, and true if the
    // argument is the path of the capture itself.
    std::map<std::string, std::pair<size_t, bool>> arguments;
    std::map<std::string, std::string> containers;  // paths of archives, by path of a capture in it
    // Positions in listing.groups of the groups with files that were given one by one, by folder.
    std::map<std::string, size_t> places;
    std::set<std::string> lists;  // device and inode of the lists that were read
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
    if (given == "-") {
        if (std::exchange(input_taken, true)) return Refuse(given, "can be read only once");
        return TakePipe(given, Fd(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)));
    }
    std::string path = given;
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        if (errno != ENOENT) return Refuse(given, strerror(errno));
        path = FindRenamed(path);
        if (path.empty() || stat(path.c_str(), &info) != 0) return Refuse(given, strerror(ENOENT));
    }
    Capture capture;
    // Opening a pipe blocks. A pipe with the name of a log file is therefore not read as a pipe; it
    // is reported as a file that is not regular.
    if (S_ISFIFO(info.st_mode) && !names::ParseFile(LastComponent(path))) {
        TakePipe(path, Fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    } else if (const auto archive = ArchiveAt(path)) {
        TakeArchive(path, archive, static_cast<uint64_t>(info.st_size));
    } else if (!S_ISDIR(info.st_mode)) {
        TakeFile(path, S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0);
    } else if (CaptureAt(path, capture)) {
        arguments.try_emplace(capture.path(), argument, true);
        tree.captures.push_back(std::move(capture));
    } else {
        TakeTree(path);
    }
}

// Returns the group for files of `folder` that were given one by one. Files in a capture folder
// form a group of this capture. All other files form one group of unsorted files.
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
    if (own.captures.empty() && own.power_on_logs.empty() && own.unsorted.empty())
        return Refuse(path, "holds no log files");
    for (const std::string& folder : own.unsorted) {
        if (own.captures.empty()) {
            TakeUnsorted(folder);
        } else {
            Tell(Finding::Kind::kNote, Finding::What::kLeftOut, folder,
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

void Collector::TakeUnsorted(const std::string& folder) {
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

// Reads the lists of captures in `folder`. The daemon's history lies beside the log folder. The
// list of a copy command lies beside the copied captures.
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
        TakeList(path, window.At(start, kMostHistory));
    }
}

void Collector::TakeList(const std::string& path, Bytes bytes) {
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

// Reads standard input or a named pipe. Its first bytes show whether it is a log file or an
// archive.
void Collector::TakePipe(const std::string& path, Fd pipe) {
    struct stat info;
    if (!pipe || fstat(pipe.get(), &info) != 0) return Refuse(path, strerror(errno));
    if (S_ISDIR(info.st_mode)) return Refuse(path, "is a folder");
    if (isatty(pipe.get()) == 1) return Refuse(path, "is a terminal, not a log file");
    if (S_ISREG(info.st_mode) && lseek(pipe.get(), 0, SEEK_CUR) == 0) {
        const auto source = std::make_shared<OwnFileSource>(std::move(pipe));
        const auto size = static_cast<uint64_t>(info.st_size);
        if (BeginsArchive(*source)) return TakeArchive(path, source, size);
        return TakeStream(path, source, size);
    }
    std::vector<uint8_t> front;
    if (!ReadFront(pipe, kArchiveFront, front)) return Refuse(path, strerror(errno));
    const bool archive = IsArchive(front);
    if (archive && !WantsSeeking(front)) {
        return TakeArchive(path, std::make_shared<Pipe>(std::move(pipe), std::move(front)),
                           std::nullopt);
    }
    const auto stream = std::make_shared<KeptPipe>(std::move(pipe), std::move(front));
    if (!stream->Begin()) return Refuse(path, stream->Why(errno));
    if (!archive && live) return TakeStream(path, stream, 0);
    const int64_t size = stream->ReadAll();
    if (size < 0) return Refuse(path, stream->Why(errno));
    if (archive) return TakeArchive(path, stream, static_cast<uint64_t>(size));
    TakeStream(path, stream, static_cast<uint64_t>(size));
}

void Collector::TakeStream(const std::string& path, const std::shared_ptr<Source>& source,
                           uint64_t size) {
    FoundFile file{path, size, {}, true, {argument, 0}, path};
    file.open = [path, size, source] {
        OpenedFile opened;
        opened.source = std::make_unique<SharedSource>(source);
        opened.path = path;
        opened.size = size;
        return opened;
    };
    GivenFiles("").files.push_back(std::move(file));
}

void Collector::TakeArchive(const std::string& path, const std::shared_ptr<Source>& source,
                            std::optional<uint64_t> size) {
    Archive archive = ReadArchive(path, source, size);
    for (const std::string& fault : archive.faults) Refuse(path, fault);
    for (const std::string& note : archive.notes)
        Tell(Finding::Kind::kNote, Finding::What::kLeftOut, path, note);
    const bool any =
        std::any_of(archive.members.begin(), archive.members.end(),
                    [](const Member& member) { return !IsList(LastComponent(member.path)); });
    if (any) return TakeMembers(path, std::move(archive.members));
    if (archive.faults.empty()) Refuse(path, "holds no log files");
}

// Reads the lists of captures in an archive. Returns the folders with a list of copied captures.
std::set<std::string> Collector::TakeMemberLists(const std::vector<Member>& members) {
    const std::string root = CommonFolder(members);
    std::set<std::string> copied;
    for (const Member& member : members) {
        const std::string folder = FolderAround(member.path);
        const std::string name(LastComponent(member.path));
        if (name == kCopiedList && folder != root) copied.insert(folder);
        if (!IsList(name)) continue;
        const auto source = member.open();
        Window window(*source, kMostHistory);
        TakeList(member.path, window.At(0, kMostHistory));
    }
    return copied;
}

// Does for the files of an archive what TakeTree does for the files of a tree.
void Collector::TakeMembers(const std::string& path, std::vector<Member> members) {
    const std::set<std::string> copied = TakeMemberLists(members);
    std::map<std::string, std::vector<HeldFile>> folders;
    for (Member& member : members) {
        const std::string folder = FolderAround(member.path);
        const std::string name(LastComponent(member.path));
        HeldFile file;
        if (IsList(name)) continue;
        if (!ParseLogFile(name, file) && names::ParseFile(name)) {
            Tell(Finding::Kind::kFault, Finding::What::kWrongName, member.path, kBadNumber);
            continue;
        }
        file.path = member.path;
        file.size = member.size;
        file.last_change = member.last_change;
        file.open = std::move(member.open);
        if (name != names::kPowerOnLog) {
            folders[folder].push_back(std::move(file));
        } else if (!copied.contains(folder)) {
            FoundGroup& group = listing.groups.emplace_back();
            group.kind = FoundGroup::Kind::kPowerOn;
            group.path = folder;
            group.files.push_back(FileIn(path, file));
        }
    }
    const bool trees = std::any_of(folders.begin(), folders.end(), [](const auto& folder) {
        Capture capture;
        return CaptureAt(folder.first, capture);
    });
    for (auto& [folder, files] : folders) {
        Capture capture;
        if (CaptureAt(folder, capture)) {
            OrderByIndex(files);
            capture.copy = copied.contains(capture.folder);
            capture.held = std::make_shared<const std::vector<HeldFile>>(std::move(files));
            arguments.try_emplace(folder, argument, false);
            containers[folder] = path;
            tree.captures.push_back(std::move(capture));
        } else if (trees) {
            Tell(Finding::Kind::kNote, Finding::What::kLeftOut, folder,
                 "log files outside a capture are left out");
        } else {
            FoundGroup& group = listing.groups.emplace_back();
            group.path = folder;
            std::sort(files.begin(), files.end(),
                      [](const HeldFile& a, const HeldFile& b) { return a.name < b.name; });
            for (const HeldFile& file : files) {
                group.files.push_back(FileIn(path, file));
                group.files.back().place = {argument, group.files.size()};
            }
        }
    }
}

void Collector::AddCapture(Capture capture) {
    FoundGroup group;
    group.kind = FoundGroup::Kind::kCapture;
    const auto [argument_of_it, itself_given] = arguments[capture.path()];
    group.given = itself_given;
    group.copy = capture.copy;
    if (capture.held) {
        group.path = capture.path();
        for (const HeldFile& file : *capture.held) {
            group.files.push_back(FileIn(containers[group.path], file));
            group.files.back().place.first = argument_of_it;
        }
        if (capture.copy) ++copies;
        group.capture = std::move(capture);
        listing.groups.push_back(std::move(group));
        return;
    }
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
    // If files were given one by one, other files of their folder are not missing. Note their
    // numbers.
    for (FoundGroup& group : listing.groups) {
        if (group.whole) continue;
        std::set<std::string> folders, asked;
        for (const FoundFile& file : group.files) {
            if (file.container.empty()) folders.insert(FolderAround(file.path));
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
    return {path, size, [path] { return OpenAt(path); }, false, {}, {}};
}

OpenedFile Reopen(const FileFacts& file) {
    return file.kept ? file.kept->open() : OpenAt(file.path);
}

Listing Collect(const std::vector<std::string>& paths, bool live) {
    Collector collector(live);
    for (const std::string& path : paths) collector.Take(path);
    return collector.Finish();
}

}  // namespace muxz
