// A stretch of time: which files hold it, and which part of each.
//
// Blocks carry no time. What is known of a file is when it was opened, by its name, and when the
// next one was, or when it was last changed. Within a file, time is taken to go with the raw bytes,
// which is as good as the rate was even; the daemon's reports of every eight seconds in the Android
// log make it better.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/muxz/android_log.h"
#include "tools/muxz/listing.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/model.h"
#include "tools/muxz/time_argument.h"

namespace muxz {

// A file with its place in time.
struct FileTime {
    const CaptureFacts* capture;
    const FileFacts* file;
    UtcTime from;               // opened
    std::optional<UtcTime> to;  // the last byte was written, at the latest
    int32_t utc_offset;         // its own, else that of the capture closest in order, else 0
};
// The files of all phones, in the order of the model, without copies and without those whose names
// tell no time.
std::vector<FileTime> FileTimes(const Model& model);

// When the modem crashed, as far as captures and log tell.
struct Crash {
    const CaptureFacts* capture;
    std::optional<UtcTime> from, to;  // equal when it is known exactly
    int32_t utc_offset;
};
std::vector<Crash> Crashes(const Model& model, const AndroidLog* log);

// Where the clock of a log without years and zones stands: near the end of the captures.
LogClock ClockOf(const Model& model);

// What the options of a command ask for.
struct StretchOptions {
    std::optional<TimeArgument> from = {}, to = {}, around = {};
    std::optional<int64_t> span = {};  // seconds, around `around` or an exception
    bool exception = false;
    std::optional<int64_t> exception_number = {};  // from 1 on; else the last
    bool utc = false;                              // times are given and told in UTC

    bool Any() const { return from || to || around || exception; }
    // What is wrong with the options together; empty when nothing is.
    std::string Wrong() const;
};
constexpr int64_t kUsualSpan = 120;  // seconds

struct Stretch {
    UtcTime from, to;
    std::vector<std::string> told;  // what was chosen where the options left it open
};
// REQUIRES: options.Wrong() is empty. On failure no stretch, and `why`.
std::optional<Stretch> FindStretch(const StretchOptions& options, const Model& model,
                                   const AndroidLog* log, std::string& why);

// A part of a file, as shares of its raw bytes.
struct Part {
    FileTime file;
    double first = 0, last = 1;
    UtcTime from, to;             // of this part
    std::optional<int64_t> sure;  // seconds by which from and to may be wrong; none: not known
};
std::vector<Part> FindParts(const Stretch& stretch, const Model& model, const AndroidLog* log);

// "file 3, 04:42:22 to 04:42:25, ± 3 s".
std::string Text(const Part& part, bool utc);

// Leaves in `listing` the files of `parts` only.
void Narrow(Listing& listing, const std::vector<Part>& parts);

// What a command was asked for: a stretch of time, and the Android log that tells of it.
struct StretchRequest {
    StretchOptions options;
    std::string log_path;  // "-": standard input; empty: none
};
// What a command is about: all files that the paths name, or those of a stretch of time.
struct Selection {
    std::vector<std::string> paths;
    Model headers;            // the parts point into it
    std::vector<Part> parts;  // empty: all files
    std::optional<AndroidLog> log;
};
// Reads the log, and finds the parts of the stretch when one was asked for. Tells on standard error
// what was chosen and how sure that is. False, with a message, when that is not possible.
bool Select(const StretchRequest& request, Selection& selection, Messages& messages);

// The raw bytes of a part, given how many the file has: from the first to behind the last.
struct RawRange {
    uint64_t from = 0, to = UINT64_MAX;
    // Whether a block of raw bytes [at, at + length) is in it, if only with its last byte.
    bool Holds(uint64_t at, uint64_t length) const { return at < to && at + length > from; }
};
RawRange RangeOf(const Part& part, uint64_t raw_bytes);

}  // namespace muxz
