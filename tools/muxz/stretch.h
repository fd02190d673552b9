// Finds the files that contain a time range, and which part of each file.
//
// Blocks contain no time. The name of a file gives the time when it was opened. Its end is the
// opening of the next file, or its own last change. Within a file muxz assumes that the raw bytes
// came at an even rate. The daemon's reports in the Android log, one every eight seconds, give the
// real rate.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/android_log.h"
#include "tools/muxz/listing.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/model.h"
#include "tools/muxz/time_argument.h"

namespace muxz {

// A file and the time that it covers.
struct FileTime {
    const CaptureFacts* capture;
    const FileFacts* file;
    UtcTime from;               // when it was opened
    std::optional<UtcTime> to;  // the last byte was written at this time or earlier
    // Seconds. That of the capture, or else of the closest capture in the order, or else 0.
    int32_t utc_offset;
};
// Returns the files of all phones in the order of the model. Leaves out copies, and files whose
// names contain no time. The pointers point into `model`.
std::vector<FileTime> FileTimes(const Model& model);

// A modem crash. It happened between `from` and `to`.
struct Crash {
    const CaptureFacts* capture;
    std::optional<UtcTime> from, to;  // equal if the time is known exactly
    int32_t utc_offset;               // seconds
};
// Returns the crashes in the order of the model. `log` may be null. The pointers point into
// `model`.
std::vector<Crash> Crashes(const Model& model, const AndroidLog* log);

// Returns a clock for an Android log without years and zones: the end of the captures.
LogClock ClockOf(const Model& model);

// The options of a command that choose a time range.
struct StretchOptions {
    std::optional<TimeArgument> from = {}, to = {}, around = {};
    std::optional<int64_t> span = {};  // seconds; with `around` or `exception`
    bool exception = false;
    std::optional<int64_t> exception_number = {};  // the first is 1; no value means the last
    bool utc = false;                              // the user gives and reads times in UTC

    // Returns true if the options choose a time range.
    bool Any() const { return from || to || around || exception; }
    // Returns what is wrong with the combination of options, for people. Empty if nothing is wrong.
    std::string Wrong() const;
};
constexpr int64_t kUsualSpan = 120;  // seconds; used without `span`

// A time range.
struct Stretch {
    UtcTime from, to;
    std::vector<std::string> told;  // what was chosen where the options left it open, for people
};
// Finds the time range that the options choose. Returns no value and sets `why` if there is none.
// `log` may be null. REQUIRES: options.Wrong() is empty.
std::optional<Stretch> FindStretch(const StretchOptions& options, const Model& model,
                                   const AndroidLog* log, std::string& why);

// A part of a file.
struct Part {
    FileTime file;
    double first = 0, last = 1;  // shares of the file's raw bytes, from 0 to 1
    UtcTime from, to;            // time range of this part
    // By how many seconds `from` and `to` may be wrong. No value if unknown.
    std::optional<int64_t> sure;
};
// Returns the parts of all files that lie in `stretch`. `log` may be null.
std::vector<Part> FindParts(const Stretch& stretch, const Model& model, const AndroidLog* log);

// Returns, for example, "capture 2, file 3, 04:42:22 to 04:42:25, ± 3 s".
std::string Text(const Part& part, bool utc);

// Removes all files from `listing` that are not in `parts`.
void Narrow(Listing& listing, const std::vector<Part>& parts);

// What the user wrote on the command line: a time range, and an Android log.
struct StretchRequest {
    StretchOptions options;
    std::string log_path;  // "-" is standard input; empty if no log was given
};
// The files that a command reads: all files of `paths`, or those of a time range.
struct Selection {
    std::vector<std::string> paths;
    Model headers;            // `parts` points into it
    std::vector<Part> parts;  // empty if all files are selected
    std::optional<AndroidLog> log;
};
// Reads the Android log, and finds the parts of the time range, if `request` has them. Prints on
// standard error what was chosen and how accurate it is. Returns false after an error message.
bool Select(const StretchRequest& request, Selection& selection, Messages& messages);

// A range of raw bytes of a file: from `from` up to but not including `to`.
struct RawRange {
    uint64_t from = 0, to = UINT64_MAX;
    // Returns true if a block with the raw bytes [at, at + length) overlaps the range.
    bool Holds(uint64_t at, uint64_t length) const { return at < to && at + length > from; }
};
// Returns the range of a part. `raw_bytes` is the number of raw bytes of the whole file.
RawRange RangeOf(const Part& part, uint64_t raw_bytes);

}  // namespace muxz
