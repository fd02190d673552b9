// The names in the log tree. The name shows the state of a folder or a file:
//
//   folder = QRXMDLog_<index>_<time>[t][_EE]           "t" until the next capture starts
//   file   = QRXMDLog_<index>_<time>[_EE].muxz[.tmp]   ".tmp" until the next file is opened
//
// <time> is local time. "_EE" marks a modem exception. All functions are thread-safe.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace quarn::log_names {

constexpr std::string_view kPrefix = "QRXMDLog_";
constexpr std::string_view kUnfinished = "t";
constexpr std::string_view kException = "_EE";
constexpr std::string_view kUnfinishedException = "t_EE";
constexpr std::string_view kFileEnding = ".muxz";
constexpr std::string_view kOpenEnding = ".tmp";
// A format for strftime.
constexpr const char* kTimeFormat = "%Y_%m%d_%H%M%S";
constexpr std::string_view kPowerOnLog = "power_on_log.muxz";

// The parts of a name. They point into the text that was parsed.
struct Name {
    std::string_view index;   // one or more decimal digits
    std::string_view time;    // digits and "_", ends in a digit
    std::string_view suffix;  // folder: "", "t", "_EE" or "t_EE"; file: "" or "_EE"
    std::string_view ending;  // file only: ".muxz" or ".muxz.tmp"
};

// Parses the name of a folder. Returns nothing unless the whole name matches
// QRXMDLog_(\d+)_([_\d]+\d+)(t|t_EE|_EE)?
std::optional<Name> ParseFolder(std::string_view name);
// Parses the name of a file. Returns nothing unless the whole name matches
// QRXMDLog_(\d+)_([_\d]+\d+)(_EE)?(\.muxz|\.muxz\.tmp)
std::optional<Name> ParseFile(std::string_view name);
// Returns the value of a decimal number, or nothing if `digits` is no number or exceeds 32 bits.
std::optional<uint32_t> ParseIndex(std::string_view digits);

// Returns the number between the first and the second "_" of a folder's name, or 0 if the text
// between them is no number or exceeds 32 bits. Returns nothing if the name has fewer than two "_".
std::optional<uint32_t> IndexOf(std::string_view name);

// Returns "QRXMDLog_<index>_<time>", which is the name of a finished folder without exception mark.
std::string IndexedName(uint32_t index, time_t time);
// Returns the name of an open file. `suffix` is "" or the exception mark.
std::string OpenFileName(uint32_t index, time_t time, std::string_view suffix);

// Returns the last component of `path`. Slashes at the end of `path` are ignored.
std::string_view LastComponent(std::string_view path);

// Changes `path` after the folder `from` was renamed to `to`. Paths outside `from` do not change.
void FollowRename(std::string& path, const std::string& from, const std::string& to);

// The functions below search for marks in the last component of `path` only, since the folders
// above may have any name. REQUIRES: `path` does not end in a slash.

// Returns true if the name contains an exception mark.
bool HasException(std::string_view path);
// Returns the name of a capture folder after its capture is finished: without the "t". If the name
// has an exception mark, the character before the mark is removed, even if it is not a "t".
std::string FinishedFolder(std::string_view path);
// Returns the name of a log file after the next file was opened: without ".tmp".
std::string FinishedFile(std::string_view path);

// Returns true if the folder's name shows that no later capture has started.
constexpr bool IsUnfinished(std::string_view folder) {
    return folder.ends_with(kUnfinished) || folder.ends_with(kUnfinishedException);
}

}  // namespace quarn::log_names
