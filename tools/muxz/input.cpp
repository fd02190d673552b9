#include "tools/muxz/input.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>

namespace muxz {

namespace {

constexpr const char* kGone = "gone, recycled meanwhile";

bool IsLess(const quarn::log_file::BlockHeader& a, const quarn::log_file::BlockHeader& b) {
    return std::tie(a.raw_length, a.packed_length) < std::tie(b.raw_length, b.packed_length);
}

}  // namespace

bool Input::Add(const std::string& given, bool with_power_on_log) {
    std::string path = given;
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        if (errno != ENOENT) return Refuse(given, strerror(errno));
        path = FindRenamed(path);
        if (path.empty() || stat(path.c_str(), &info) != 0) return Refuse(given, strerror(ENOENT));
    }
    if (!S_ISDIR(info.st_mode)) {
        if (S_ISREG(info.st_mode)) expected += static_cast<uint64_t>(info.st_size);
        items.push_back({path, {}, false});
        return true;
    }
    if (!IsCapture(path)) return AddTree(path, with_power_on_log);
    AddCapture(path);
    return true;
}

void Input::Visit(const std::function<bool(const OpenLog&)>& visit) {
    MeasureCaptures();
    for (Item& item : items) {
        if (!(item.is_capture ? VisitCapture(item, visit) : VisitFile(item, visit))) break;
    }
    messages.progress.Clear();
}

bool Input::Holds(const std::string& path) const {
    struct stat out, in;
    if (stat(path.c_str(), &out) != 0) return false;
    return std::any_of(items.begin(), items.end(), [&](const Item& item) {
        return stat(item.path.c_str(), &in) == 0 && in.st_dev == out.st_dev &&
               in.st_ino == out.st_ino;
    });
}

bool Input::Refuse(const std::string& path, const std::string& why) {
    messages.IoError(path, why);
    return false;
}

void Input::AddCapture(const std::string& path) {
    Item item{path, {}, true};
    if (CaptureAt(path, item.capture)) item.path.clear();
    items.push_back(std::move(item));
}

bool Input::AddTree(const std::string& path, bool with_power_on_log) {
    Tree tree;
    std::vector<Complaint> complaints;
    if (!ListTree(path, tree, complaints)) return Refuse(path, strerror(errno));
    messages.Tell(complaints);
    size_t copies = 0;
    for (Capture& capture : tree.captures) {
        if (capture.copy) {
            ++copies;
        } else {
            items.push_back({"", std::move(capture), true});
        }
    }
    if (with_power_on_log) {
        for (const std::string& log : tree.power_on_logs) items.push_back({log, {}, false});
    }
    if (copies != 0) messages.Note(path, std::to_string(copies) + " copied captures are left out");
    if (tree.captures.empty() && tree.power_on_logs.empty())
        return Refuse(path, "holds no log files");
    return true;
}

Fd Input::Open(Item& item) {
    return item.path.empty() ? OpenCapture(item.capture) : OpenFolder(item.path);
}

void Input::MeasureCaptures() {
    if (!messages.progress.is_active()) return;
    std::vector<Complaint> ignored;
    for (Item& item : items) {
        if (!item.is_capture) continue;
        std::vector<LogFile> files;
        ListFiles(Open(item), "", files, ignored);
        for (const LogFile& file : files) expected += file.size;
    }
    messages.progress.Expect(expected);
}

bool Input::VisitCapture(Item& item, const std::function<bool(const OpenLog&)>& visit) {
    const Fd folder = Open(item);
    const std::string path = item.path.empty() ? item.capture.path() : item.path;
    if (!folder && errno == ENOENT) {
        messages.Note(path, kGone);
        return true;
    }
    std::vector<LogFile> files;
    std::vector<Complaint> complaints;
    if (!folder || !ListFiles(folder, path, files, complaints)) {
        messages.IoError(path, strerror(errno));
        return true;
    }
    messages.Tell(complaints);
    for (LogFile& file : files) {
        std::string why;
        const Fd fd = OpenFile(folder, file, why);
        const std::string file_path = path + "/" + file.name;
        if (fd) {
            if (!visit({fd.get(), file_path, MayBeOpen(file.name)})) return false;
        } else if (errno == ENOENT) {
            messages.Note(file_path, kGone);
        } else {
            messages.IoError(file_path, why);
        }
    }
    return true;
}

bool Input::VisitFile(Item& item, const std::function<bool(const OpenLog&)>& visit) {
    std::string why;
    Fd fd = OpenRegular(AT_FDCWD, item.path, why);
    if (!fd && errno == ENOENT) {
        const std::string renamed = FindRenamed(item.path);
        if (!renamed.empty()) {
            item.path = renamed;
            fd = OpenRegular(AT_FDCWD, item.path, why);
        }
    }
    if (fd) return visit({fd.get(), item.path, MayBeOpen(item.path)});
    messages.IoError(item.path, why);
    return true;
}

bool TakeHeader(FileSource& source, const OpenLog& log, Header& header, Messages& messages) {
    const HeaderState state = ReadHeader(source, header);
    if (state == HeaderState::kWhole) return true;
    if (log.may_be_open && (state == HeaderState::kEmpty || state == HeaderState::kCut))
        return false;
    std::string text(Text(state));
    if (state == HeaderState::kUnknown || state == HeaderState::kDamaged)
        text += " (try muxz recover)";
    state == HeaderState::kReadError ? messages.IoError(log.path, text)
                                     : messages.FaultAt(log.path, 0, text);
    return false;
}

void TellEnd(const BlockReader& reader, const OpenLog& log, Messages& messages,
             const char* advice) {
    switch (reader.end()) {
        case End::kWhole:
        case End::kStrayByte:
            return;
        case End::kCutLengths:
            if (!log.may_be_open)
                messages.Note(log.path,
                              "offset " + std::to_string(reader.offset()) + ": " + reader.reason());
            return;
        case End::kCutBlock:
            if (!log.may_be_open) messages.FaultAt(log.path, reader.offset(), reader.reason());
            return;
        case End::kDamaged:
            messages.FaultAt(log.path, reader.offset(), reader.reason() + advice);
            return;
        case End::kReadError:
            messages.IoError(log.path,
                             "offset " + std::to_string(reader.offset()) + ": " + reader.reason());
            return;
    }
}

BlockCounts Count(BlockReader& reader, Progress& progress) {
    BlockCounts counts;
    Block block;
    while (reader.Next(block)) {
        const auto& lengths = block.lengths;
        if (counts.blocks == 0 || IsLess(lengths, counts.smallest)) counts.smallest = lengths;
        if (counts.blocks == 0 || IsLess(counts.largest, lengths)) counts.largest = lengths;
        ++counts.blocks;
        counts.raw += lengths.raw_length;
        counts.packed += lengths.packed_length;
        progress.At(block.offset);
    }
    return counts;
}

}  // namespace muxz
