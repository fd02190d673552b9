// Build: scans the files in several threads, and asks the system whether a capture is being
// written.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "tools/muxz/assemble.h"
#include "tools/muxz/listing.h"
#include "tools/muxz/scan.h"

namespace muxz {

namespace {

bool HasFault(const FileFacts& file) {
    return std::any_of(file.findings.begin(), file.findings.end(),
                       [](const Finding& f) { return f.kind != Finding::Kind::kNote; });
}

// Returns the header length on which more than half of the files with unknown header layout agree,
// and at least two. One file alone does not show where its header ends and damage begins.
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

// Scans files in several threads, one file at a time in each. The result does not depend on the
// number of threads.
class Builder {
  public:
    Builder(const Listing& from, const BuildOptions& chosen) : listing(from), options(chosen) {}

    ScannedFiles Scan() {
        ScannedFiles scanned;
        for (const FoundGroup& group : listing.groups) {
            scanned.emplace_back(group.files.size());
            const bool whole = !group.copy || options.copies;
            for (size_t i = 0; i < group.files.size(); ++i) {
                jobs.push_back(
                    {&group.files[i], &scanned.back()[i], whole ? options.depth : Depth::kHeaders});
                if (whole) all += group.files[i].size;
            }
        }
        Run([](const Job&) { return true; });
        // Scan those files again whose header length differs from that of the group.
        size_t place = 0;
        for (const std::vector<FileFacts>& group : scanned) {
            const std::optional<uint64_t> header = CommonHeader(group);
            for (const FileFacts& file : group) {
                if (header && Contradicts(file, *header)) jobs[place].header = header;
                ++place;
            }
        }
        Run([](const Job& job) { return job.header.has_value(); });
        // The second scan may have removed the fault that made Run skip other files.
        Run([](const Job& job) { return job.skipped; });
        return scanned;
    }

  private:
    struct Job {
        const FoundFile* file;
        FileFacts* facts;
        Depth depth;
        std::optional<uint64_t> header{};
        bool skipped = false;  // only the header was read, since an earlier file has a fault
    };

    // Runs the jobs for which `wanted` returns true.
    void Run(const std::function<bool(const Job&)>& wanted) {
        std::vector<Job*> chosen;
        size_t first = SIZE_MAX;
        for (Job& job : jobs) {
            if (wanted(job)) {
                chosen.push_back(&job);
            } else if (first == SIZE_MAX && HasFault(*job.facts)) {
                first = chosen.size();
            }
        }
        // With first_fault, the jobs in front of `stop` read their files completely, whatever other
        // threads find. A job behind it reads only the header.
        std::atomic<size_t> stop = options.first_fault ? first : SIZE_MAX;
        std::atomic<size_t> next = 0;
        const auto work = [&] {
            for (size_t i; (i = next++) < chosen.size();) {
                Job& job = *chosen[i];
                const bool was_skipped = std::exchange(job.skipped, i >= stop);
                if (was_skipped && job.skipped && !job.header) continue;
                *job.facts = Do(job);
                size_t before = stop;
                while (options.first_fault && i + 1 < before && HasFault(*job.facts) &&
                       !stop.compare_exchange_weak(before, i + 1)) {
                }
            }
        };
        const size_t cores = std::max(1U, std::thread::hardware_concurrency());
        std::vector<std::thread> threads;
        while (threads.size() + 1 < std::min({cores, kMostThreads, chosen.size()})) {
            threads.emplace_back(work);
        }
        work();
        for (std::thread& thread : threads) thread.join();
    }

    FileFacts Do(const Job& job) {
        ScanOptions scan{job.skipped ? Depth::kHeaders : job.depth, job.header, {}};
        if (options.progress) {
            scan.progress = [this](uint64_t bytes) {
                const std::lock_guard lock(progress_mutex);
                options.progress(done += bytes, all);
            };
        }
        return ScanFile(*job.file, scan);
    }

    static constexpr size_t kMostThreads = 64;  // each thread uses at most 36 MiB

    const Listing& listing;
    const BuildOptions& options;
    std::vector<Job> jobs;
    uint64_t all = 0;
    std::mutex progress_mutex;
    uint64_t done = 0;  // guarded by progress_mutex
};

// Returns true if a process has `file` open for writing. Sees only the processes that the user may
// inspect.
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
            // The number behind "flags:" is octal. Its lowest two bits are the access mode.
            std::ifstream about(own + "/fdinfo/" + number);
            for (std::string word; about >> word;) {
                if (word == "flags:" && about >> word && !word.empty() && word.back() % 4 != 0)
                    return true;
            }
        }
    }
    return false;
}

// Sets the state kBeingWritten if a process has the last file of the capture open for writing, or
// if the file grew or was renamed after it was scanned.
void TellWhetherWritten(CaptureFacts& capture) {
    if (capture.files.empty() || capture.copy || capture.state == CaptureFacts::State::kFinished)
        return;
    const FileFacts& last = capture.files.back();
    struct stat info;
    if (!last.may_be_open) return;
    // The daemon renames a file when it opens the next one.
    const bool renamed = stat(last.path.c_str(), &info) != 0;
    if (renamed ? !FindRenamed(last.path).empty()
                : static_cast<uint64_t>(info.st_size) > last.size || IsOpenForWriting(info))
        capture.state = CaptureFacts::State::kBeingWritten;
}

}  // namespace

Model Build(const std::vector<std::string>& paths, const BuildOptions& options) {
    Listing listing = Collect(paths, options.live);
    if (options.narrow) options.narrow(listing);
    Model model = Assemble(listing, Builder(listing, options).Scan(), options);
    for (Phone& phone : model.phones) {
        for (CaptureFacts& capture : phone.captures) TellWhetherWritten(capture);
    }
    return model;
}

}  // namespace muxz
