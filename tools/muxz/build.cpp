// Build: the steps that look into folders and files, and what only the system can tell.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "tools/muxz/assemble.h"
#include "tools/muxz/listing.h"
#include "tools/muxz/scan.h"

namespace muxz {

namespace {

bool HasFault(const FileFacts& file) {
    return std::any_of(file.findings.begin(), file.findings.end(),
                       [](const Finding& f) { return f.kind != Finding::Kind::kNote; });
}

// What most of the files with a header of another writer say that it has, when there are more
// than one. One file alone cannot tell its header from damage behind it.
std::optional<uint64_t> CommonHeader(const std::vector<FileFacts>& files) {
    std::map<uint64_t, size_t> counts;
    size_t all = 0;
    for (const FileFacts& file : files) {
        const auto kind = file.header.kind;
        if (kind != HeaderFacts::Kind::kForeign && kind != HeaderFacts::Kind::kNone) continue;
        ++counts[file.header.row.value_or(file.header.length)];
        ++all;
    }
    for (const auto& [length, count] : counts) {
        if (count > 1 && 2 * count > all) return length;
    }
    return std::nullopt;
}

bool Contradicts(const FileFacts& file, uint64_t header) {
    const auto kind = file.header.kind;
    if (kind == HeaderFacts::Kind::kNoBlock) return true;
    return (kind == HeaderFacts::Kind::kForeign || kind == HeaderFacts::Kind::kNone) &&
           file.header.length != header;
}

class Builder {
  public:
    Builder(const Listing& from, const BuildOptions& chosen) : listing(from), options(chosen) {}

    ScannedFiles Scan() {
        for (const FoundGroup& group : listing.groups) {
            if (group.copy && !options.copies) continue;
            for (const FoundFile& file : group.files) all += file.size;
        }
        ScannedFiles scanned;
        for (const FoundGroup& group : listing.groups) scanned.push_back(ScanGroup(group));
        return scanned;
    }

  private:
    std::vector<FileFacts> ScanGroup(const FoundGroup& group) {
        std::vector<FileFacts> files;
        std::vector<Depth> depths;
        for (const FoundFile& file : group.files) {
            const bool shallow = (group.copy && !options.copies) || (options.first_fault && fault);
            depths.push_back(shallow ? Depth::kHeaders : options.depth);
            files.push_back(ScanOne(file, depths.back(), {}));
        }
        const std::optional<uint64_t> header = CommonHeader(files);
        for (size_t i = 0; header && i < files.size(); ++i) {
            if (Contradicts(files[i], *header))
                files[i] = ScanOne(group.files[i], depths[i], header);
        }
        return files;
    }

    FileFacts ScanOne(const FoundFile& file, Depth depth, std::optional<uint64_t> header) {
        ScanOptions scan{depth, header, {}};
        if (options.progress) {
            scan.progress = [this](uint64_t bytes) { options.progress(done += bytes, all); };
        }
        FileFacts facts = ScanFile(file, scan);
        fault = fault || HasFault(facts);
        return facts;
    }

    const Listing& listing;
    const BuildOptions& options;
    uint64_t done = 0;
    uint64_t all = 0;
    bool fault = false;
};

// Returns true if any process that may be looked at has `file` open for writing.
bool IsOpenForWriting(const struct stat& file) {
    const auto open_folder = [](const std::string& path) {
        return std::unique_ptr<DIR, int (*)(DIR*)>(opendir(path.c_str()), closedir);
    };
    const auto processes = open_folder("/proc");
    if (!processes) return false;
    while (const dirent* process = readdir(processes.get())) {
        if (isdigit(static_cast<unsigned char>(process->d_name[0])) == 0) continue;
        const std::string own = std::string("/proc/") + process->d_name;
        const auto descriptors = open_folder(own + "/fd");
        if (!descriptors) continue;
        while (const dirent* descriptor = readdir(descriptors.get())) {
            const std::string number = descriptor->d_name;
            struct stat info;
            if (stat((own + "/fd/" + number).c_str(), &info) != 0 || info.st_ino != file.st_ino ||
                info.st_dev != file.st_dev)
                continue;
            // "flags:" is octal, and the lowest two bits of it are the access mode.
            std::ifstream about(own + "/fdinfo/" + number);
            for (std::string word; about >> word;) {
                if (word == "flags:" && about >> word && !word.empty() && word.back() % 4 != 0)
                    return true;
            }
        }
    }
    return false;
}

// The newest capture is being written when its last file grew since it was scanned, or is open.
void TellWhetherWritten(CaptureFacts& capture) {
    if (capture.files.empty() || capture.copy || capture.state == CaptureFacts::State::kFinished)
        return;
    const FileFacts& last = capture.files.back();
    struct stat info;
    if (!last.may_be_open || stat(last.path.c_str(), &info) != 0) return;
    if (static_cast<uint64_t>(info.st_size) > last.size || IsOpenForWriting(info))
        capture.state = CaptureFacts::State::kBeingWritten;
}

}  // namespace

Model Build(const std::vector<std::string>& paths, const BuildOptions& options) {
    Listing listing = Collect(paths);
    if (options.narrow) options.narrow(listing);
    Model model = Assemble(listing, Builder(listing, options).Scan(), options);
    for (Phone& phone : model.phones) {
        for (CaptureFacts& capture : phone.captures) TellWhetherWritten(capture);
    }
    return model;
}

}  // namespace muxz
