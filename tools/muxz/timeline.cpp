#include <algorithm>
#include <cstdlib>
#include <map>

#include "tools/muxz/assemble.h"

namespace muxz {

namespace {

constexpr int64_t kQuarter = 900;                  // seconds; time zones differ by multiples of it
constexpr int64_t kFarthest = int64_t{15} * 3600;  // seconds; largest UTC offset
// Seconds. Allowed difference between the last change of a file and the opening of the next one.
constexpr int64_t kSlack = 60;
constexpr size_t kLeastPairs = 2;  // pairs of files needed to estimate the UTC offset

bool IsZone(int64_t offset) { return std::abs(offset) <= kFarthest; }

// Calls `take` for each two files of a capture with consecutive numbers. The daemon opens the
// second file when it closes the first.
template <typename Take>
void ForPairs(const Phone& phone, Take take) {
    for (const CaptureFacts& capture : phone.captures) {
        for (size_t i = 1; i < capture.files.size(); ++i) {
            const FileFacts &file = capture.files[i - 1], &next = capture.files[i];
            if (file.index && next.index && *next.index == *file.index + 1 && file.last_change &&
                next.opened)
                take(*file.last_change, *next.opened);
        }
    }
}

void TellOffset(CaptureFacts& capture) {
    for (const FileFacts& file : capture.files) {
        if (!capture.folder_time) capture.folder_time = file.header.folder_time;
    }
    if (!capture.folder_time) return;
    if (capture.start) {
        const int64_t offset = *capture.start - *capture.folder_time;
        if (IsZone(offset)) capture.utc_offset = static_cast<int32_t>(offset);
        return;
    }
    // Unsorted files: the name of the folder is unknown, but the first file is opened soon after
    // the folder is made.
    if (capture.files.empty() || capture.files.front().index != 0u) return;
    const auto opened = capture.files.front().opened;
    if (!opened) return;
    const int64_t apart = *opened - *capture.folder_time;
    const int64_t offset = (apart >= 0 ? apart : apart - kQuarter + 1) / kQuarter * kQuarter;
    if (IsZone(offset)) capture.utc_offset = static_cast<int32_t>(offset);
}

// Returns the UTC offset with which the last change of every file agrees with the opening of the
// next file. Returns no value if there is no such offset.
std::optional<int32_t> EstimateOffset(const Phone& phone) {
    std::optional<int64_t> offset;
    size_t pairs = 0;
    bool fits = true;
    ForPairs(phone, [&](UtcTime last_change, PhoneTime next_opened) {
        const int64_t apart = next_opened - last_change;
        const int64_t rounded =
            (apart >= 0 ? apart + kQuarter / 2 : apart - kQuarter / 2) / kQuarter * kQuarter;
        ++pairs;
        fits = fits && std::abs(apart - rounded) <= kSlack && IsZone(rounded) &&
               offset.value_or(rounded) == rounded;
        offset = rounded;
    });
    if (!fits || pairs < kLeastPairs) return std::nullopt;
    return static_cast<int32_t>(*offset);
}

void TellOffsets(Phone& phone) {
    for (CaptureFacts& capture : phone.captures) {
        TellOffset(capture);
        if (capture.utc_offset) phone.utc_offset = capture.utc_offset;
    }
    if (!phone.utc_offset) {
        phone.utc_offset = EstimateOffset(phone);
        phone.utc_offset_estimated = phone.utc_offset.has_value();
    }
    for (CaptureFacts& capture : phone.captures) {
        if (!capture.utc_offset) capture.utc_offset = phone.utc_offset;
        if (capture.start) continue;
        if (capture.folder_time && capture.utc_offset) {
            capture.start = *capture.folder_time + *capture.utc_offset;
        } else if (!capture.files.empty()) {
            capture.start = capture.files.front().opened;
        }
    }
}

// Returns the last change of `file` in phone time. Returns no value if it is not credible. `bound`
// is the opening of a later file or the start of the next capture.
std::optional<PhoneTime> LastChange(const Phone& phone, const CaptureFacts& capture,
                                    const FileFacts& file, std::optional<PhoneTime> bound) {
    if (!phone.last_changes_kept || !capture.utc_offset || !file.last_change) return std::nullopt;
    const PhoneTime time = *file.last_change + *capture.utc_offset;
    if (file.opened && time < *file.opened - kSlack) return std::nullopt;
    if (bound && time > *bound + kSlack) return std::nullopt;
    return file.opened ? std::max(time, *file.opened) : time;
}

void TellEnds(Phone& phone) {
    const std::optional<int32_t> offset = phone.utc_offset;
    ForPairs(phone, [&](UtcTime last_change, PhoneTime next_opened) {
        if (offset && last_change + *offset > next_opened + kSlack) phone.last_changes_kept = false;
    });
    std::optional<PhoneTime> next_start;
    for (auto capture = phone.captures.rbegin(); capture != phone.captures.rend(); ++capture) {
        std::optional<PhoneTime> bound = next_start;
        for (size_t i = capture->files.size(); i-- > 0;) {
            FileFacts& file = capture->files[i];
            const FileFacts* next =
                i + 1 < capture->files.size() ? &capture->files[i + 1] : nullptr;
            const bool follows =
                next != nullptr && file.index && next->index && *next->index == *file.index + 1;
            file.closed =
                follows && next->opened ? next->opened : LastChange(phone, *capture, file, bound);
            if (file.opened) bound = file.opened;
        }
        if (!capture->files.empty()) capture->end = capture->files.back().closed;
        // If the clock was set, the next capture of another log folder may have an earlier time.
        if (!capture->copy && capture->start) next_start = capture->start;
    }
}

// Returns the files in which the time of the modem information differs from that in the files
// before. The first modem information of a capture is no restart.
std::vector<const FileFacts*> Restarts(const CaptureFacts& capture) {
    std::vector<const FileFacts*> restarts;
    std::optional<UtcTime> before;
    for (const FileFacts& file : capture.files) {
        const auto& modem = file.header.modem;
        const bool stranger = file.header.folder_time != capture.folder_time;
        if (!modem || !modem->time || stranger) continue;
        if (before && modem->time != before) restarts.push_back(&file);
        before = modem->time;
    }
    return restarts;
}

void TellException(CaptureFacts& capture) {
    const std::vector<const FileFacts*> restarts = Restarts(capture);
    if (!capture.exception) {
        // Unsorted files have lost the mark of their folder. Only the mark of a file remains.
        if (!capture.name.empty() || restarts.empty()) return;
        capture.exception.emplace().marked = false;
    }
    ExceptionTime& when = *capture.exception;
    if (!restarts.empty()) {
        const FileFacts& first = *restarts.front();
        when.exact = true;
        when.utc = first.header.modem->time;
        if (capture.utc_offset) when.from = when.to = *when.utc + *capture.utc_offset;
        when.told_by = first.path;
        for (size_t i = 1; i < restarts.size(); ++i) {
            when.later.push_back(*restarts[i]->header.modem->time);
        }
        return;
    }
    // A file has the mark if the daemon opened it between the exception and the modem's restart.
    // Usually there is no such file. Then the exception happened at any time of the capture.
    when.from = capture.start;
    if (capture.whole) when.to = capture.end;
    const auto marked = std::find_if(capture.files.begin(), capture.files.end(),
                                     [](const FileFacts& file) { return file.exception; });
    if (marked == capture.files.end()) return;
    when.to = marked->opened;
    for (auto file = capture.files.begin(); file != marked; ++file) {
        if (file->opened) when.from = file->opened;
    }
}

}  // namespace

void TellTimes(Phone& phone) {
    TellOffsets(phone);
    TellEnds(phone);
    for (CaptureFacts& capture : phone.captures) TellException(capture);
}

}  // namespace muxz
