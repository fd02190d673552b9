#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "storage/log_names.h"
#include "tools/muxz/assemble.h"
#include "tools/muxz/text.h"

namespace muxz {

namespace {

namespace names = quarn::log_names;

// A larger step between two numbers is no gap: the numbers began again.
constexpr uint32_t kLargestGap = uint32_t{1} << 31;

std::string Range(const char* one, const char* many, uint32_t first, uint32_t last) {
    if (first == last) return one + (" " + std::to_string(first));
    return many + (" " + std::to_string(first)) + " to " + std::to_string(last);
}
const char* Are(uint32_t first, uint32_t last) { return first == last ? " is" : " are"; }

std::string When(std::optional<PhoneTime> time) {
    return time ? ShowTime(*time) : "an unknown time";
}

// Names the capture in a message, if the path of the folder does not name it.
std::string OfCapture(const CaptureFacts& capture) {
    return capture.name.empty() ? " of the capture of " + When(capture.start) : "";
}

bool AreElsewhere(const CaptureFacts& capture, uint32_t first, uint32_t last) {
    const std::set<uint32_t> others(capture.others.begin(), capture.others.end());
    if (last - first >= others.size()) return false;
    for (uint32_t number = first;; ++number) {
        if (!others.contains(number)) return false;
        if (number == last) return true;
    }
}

void TellHole(CaptureFacts& capture, const FileFacts& before, const FileFacts& behind) {
    const uint32_t first = *before.index + 1, last = *behind.index - 1;
    if (!capture.whole && AreElsewhere(capture, first, last)) return;
    Finding hole = NoteOn(capture.path, Finding::What::kHole, "");
    hole.kind = Finding::Kind::kFault;
    hole.first_number = first;
    hole.last_number = last;
    hole.from = before.closed ? before.closed : before.opened;
    hole.to = behind.opened;
    hole.text = Range("file", "files", first, last) + OfCapture(capture) + Are(first, last) +
                " missing, between " + When(hole.from) +
                (before.closed ? "" : " (file before it opened)") + " and " + When(hole.to);
    capture.findings.push_back(std::move(hole));
}

// The captures of each log folder in their order, without copies.
using LogFolders = std::map<std::string, std::vector<const CaptureFacts*>>;

Finding GoneCaptures(const std::string& folder, uint32_t first, uint32_t last,
                     const std::string& behind) {
    Finding note = NoteOn(folder, Finding::What::kCaptureGone,
                          Range("capture", "captures", first, last) + Are(first, last) + behind);
    note.first_number = first;
    note.last_number = last;
    return note;
}

}  // namespace

Finding NoteOn(const std::string& path, Finding::What what, std::string text) {
    Finding note;
    note.what = what;
    note.path = path;
    note.text = std::move(text);
    return note;
}

void FindFileGaps(CaptureFacts& capture) {
    if (capture.files.empty() && capture.whole) {
        capture.findings.push_back(
            NoteOn(capture.path, Finding::What::kFrontGone, "holds no log files"));
        return;
    }
    const FileFacts* before = nullptr;
    for (const FileFacts& file : capture.files) {
        if (!file.index) continue;
        if (before == nullptr) {
            if (*file.index != 0 && *file.index < kLargestGap && capture.whole) {
                const uint32_t last = *file.index - 1;
                Finding note = NoteOn(capture.path, Finding::What::kFrontGone,
                                      Range("file", "files", 0, last) + OfCapture(capture) +
                                          Are(0, last) + " gone: recycled?");
                note.first_number = 0;
                note.last_number = last;
                capture.findings.push_back(std::move(note));
            }
        } else if (*file.index == *before->index) {
            capture.findings.push_back(
                NoteOn(file.path, Finding::What::kTwice, "has the number of the file before it"));
        } else if (*file.index - *before->index > 1) {
            TellHole(capture, *before, file);
        }
        const auto goes_by_name = [](const FileFacts& f) { return f.index == f.name_index; };
        if (before != nullptr && goes_by_name(*before) && goes_by_name(file) && before->opened &&
            file.opened && *file.opened < *before->opened) {
            capture.findings.push_back(
                NoteOn(file.path, Finding::What::kWrongName,
                       "opened at " + When(file.opened) + ", the file before it at " +
                           When(before->opened) + ": the clock or the time zone was set back"));
        }
        before = &file;
    }
    // The newest file of a capture keeps ".tmp" in its name until the daemon opens the next file.
    const bool unfinished = quarn::log_names::IsUnfinished(capture.name);
    if (unfinished && capture.whole && !capture.copy && !capture.files.back().may_be_open) {
        capture.findings.push_back(NoteOn(
            capture.path, Finding::What::kFrontGone,
            "the newest file is not here: none is named .tmp, as the newest is in this folder"));
    }
}

namespace {

// Finds missing capture numbers of one log folder: between captures, and before the first one.
void FindMissingNumbers(const std::string& folder, const std::vector<const CaptureFacts*>& captures,
                        std::vector<Finding>& findings) {
    const CaptureFacts* before = nullptr;
    for (const CaptureFacts* capture : captures) {
        const uint32_t index = *capture->index;
        if (before == nullptr && index != 0 && index < kLargestGap)
            findings.push_back(GoneCaptures(folder, 0, index - 1, " gone: recycled?"));
        const uint32_t step = before == nullptr ? 0 : index - *before->index;
        if (step > 1 && step < kLargestGap)
            findings.push_back(GoneCaptures(folder, *before->index + 1, index - 1, " missing"));
        before = capture;
    }
}

// Number and time of each capture.
using Present = std::set<std::pair<uint32_t, std::string>>;

// Finds captures that only the history names. Their numbers are greater than that of the last
// capture, or their log folder is missing.
void FindOnlyNamed(const std::vector<HistoryEntry>& history, const Present& present,
                   std::vector<Finding>& findings) {
    const auto is_told = [&](uint32_t number) {
        return std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
            return *finding.first_number <= number && number <= *finding.last_number;
        });
    };
    std::map<std::string, std::set<uint32_t>> named;
    for (const HistoryEntry& entry : history) {
        const auto name = names::ParseFolder(entry.name);
        const auto index = name ? names::ParseIndex(name->index) : std::nullopt;
        if (index && !present.contains({*index, std::string(name->time)}) && !is_told(*index))
            named[entry.path].insert(*index);
    }
    for (const auto& [path, numbers] : named) {
        for (auto number = numbers.begin(); number != numbers.end();) {
            const uint32_t first = *number;
            uint32_t last = first;
            for (++number; number != numbers.end() && *number == last + 1; ++number) ++last;
            findings.push_back(
                GoneCaptures(path, first, last, " named here, but not in the tree: recycled?"));
        }
    }
}

}  // namespace

std::vector<Finding> FindCaptureGaps(const std::vector<Phone>& phones,
                                     const std::vector<HistoryEntry>& history) {
    LogFolders folders;
    Present present;
    std::set<std::string> given;
    for (const Phone& phone : phones) {
        for (const CaptureFacts& capture : phone.captures) {
            const auto name = names::ParseFolder(capture.name);
            if (!name || !capture.index) continue;
            present.emplace(*capture.index, name->time);
            if (capture.given || !capture.whole) given.insert(capture.log_folder);
            if (!capture.copy) folders[capture.log_folder].push_back(&capture);
        }
    }
    std::vector<Finding> findings;
    for (const auto& [folder, captures] : folders) {
        if (!given.contains(folder)) FindMissingNumbers(folder, captures, findings);
    }
    FindOnlyNamed(history, present, findings);
    return findings;
}

}  // namespace muxz
