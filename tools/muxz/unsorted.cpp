#include <algorithm>
#include <map>
#include <tuple>

#include "tools/muxz/assemble.h"
#include "tools/muxz/text.h"

namespace muxz {

namespace {

std::string Custom(const FileFacts& file) {
    std::string text;
    for (const CustomValue& value : file.header.custom) {
        text += static_cast<char>(value.type) + value.value + '\0';
    }
    return text;
}

CaptureFacts Begin(FileFacts first) {
    CaptureFacts capture;
    capture.path = FolderAround(first.path);
    capture.folder_time = first.header.folder_time;
    capture.files.push_back(std::move(first));
    return capture;
}

// Returns true if `capture` already has a file with the same number, time and first bytes. Then
// keeps the larger of the two files and adds a note about the other one.
bool IsSecondCopy(CaptureFacts& capture, const FileFacts& file) {
    for (FileFacts& first : capture.files) {
        const bool same = first.index == file.index && first.opened == file.opened &&
                          first.fingerprint == file.fingerprint;
        if (!same) continue;
        const bool larger = file.size > first.size;
        capture.findings.push_back(
            NoteOn(larger ? first.path : file.path, Finding::What::kTwice,
                   "holds the same as " + Printable(file.name) + " elsewhere and is left out"));
        if (larger) first = file;
        return true;
    }
    return false;
}

using Captures = std::vector<CaptureFacts>;

// Each file number occurs once in a capture. A file with the same number but other bytes comes from
// another phone, so it begins another capture.
void TakeByHeader(FileFacts file, Captures& of_folder_time) {
    for (CaptureFacts& capture : of_folder_time) {
        if (IsSecondCopy(capture, file)) return;
    }
    for (CaptureFacts& capture : of_folder_time) {
        if (std::any_of(capture.files.begin(), capture.files.end(),
                        [&](const FileFacts& other) { return other.index == file.index; }))
            continue;
        capture.files.push_back(std::move(file));
        return;
    }
    of_folder_time.push_back(Begin(std::move(file)));
}

// A capture whose files are found by name: numbers increase with time.
struct Row {
    CaptureFacts capture;
    std::string custom;
    uint32_t last;  // number of its last file
};

// Returns the latest row that `file` fits into, or null. A phone writes one capture at a time, so
// the file belongs to the latest one.
Row* RowFor(std::vector<Row>& rows, const FileFacts& file, const std::string& custom) {
    if (*file.index == 0) return nullptr;
    const auto row = std::find_if(rows.rbegin(), rows.rend(), [&](const Row& candidate) {
        return candidate.custom == custom && candidate.last < *file.index;
    });
    return row == rows.rend() ? nullptr : &*row;
}

Captures GroupByName(std::vector<FileFacts> files) {
    constexpr size_t kMostRows = 64;  // older rows are complete, and get no more files
    std::sort(files.begin(), files.end(), [](const FileFacts& a, const FileFacts& b) {
        return std::tie(*a.opened, *a.index, a.path) < std::tie(*b.opened, *b.index, b.path);
    });
    Captures done;
    std::vector<Row> rows;
    for (FileFacts& file : files) {
        if (std::any_of(rows.begin(), rows.end(),
                        [&](Row& row) { return IsSecondCopy(row.capture, file); }))
            continue;
        const std::string custom = Custom(file);
        const uint32_t index = *file.index;
        if (Row* row = RowFor(rows, file, custom)) {
            row->capture.files.push_back(std::move(file));
            row->last = index;
            continue;
        }
        if (rows.size() == kMostRows) {
            done.push_back(std::move(rows.front().capture));
            rows.erase(rows.begin());
        }
        rows.push_back({Begin(std::move(file)), custom, index});
    }
    for (Row& row : rows) done.push_back(std::move(row.capture));
    return done;
}

}  // namespace

std::vector<CaptureFacts> GroupUnsorted(std::vector<FileFacts> files) {
    std::map<std::pair<UtcTime, std::string>, Captures> by_header;
    std::vector<FileFacts> by_name;
    Captures alone;
    for (FileFacts& file : files) {
        if (file.header.folder_time && file.index) {
            Captures& captures = by_header[{*file.header.folder_time, Custom(file)}];
            TakeByHeader(std::move(file), captures);
        } else if (file.index && file.opened) {
            by_name.push_back(std::move(file));
        } else {
            alone.push_back(Begin(std::move(file)));
        }
    }
    Captures captures;
    for (auto& [key, same] : by_header) {
        std::move(same.begin(), same.end(), std::back_inserter(captures));
    }
    Captures named = GroupByName(std::move(by_name));
    std::move(named.begin(), named.end(), std::back_inserter(captures));
    std::move(alone.begin(), alone.end(), std::back_inserter(captures));
    for (CaptureFacts& capture : captures) {
        capture.exception = std::nullopt;
        if (std::any_of(capture.files.begin(), capture.files.end(),
                        [](const FileFacts& file) { return file.exception; }))
            capture.exception.emplace();
    }
    return captures;
}

}  // namespace muxz
