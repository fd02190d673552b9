// Names in the log tree. They alone tell what state a folder or a file is in:
//
//   folder = QRXMDLog_<index>_<time>[t][_EE]      "t" until the next capture starts
//   file   = QRXMDLog_<index>_<time>[_EE].muxz[.tmp]   ".tmp" until the next file is opened
//
// <time> is local time. "_EE" marks a modem exception.
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
// Of strftime.
constexpr const char* kTimeFormat = "%Y_%m%d_%H%M%S";
constexpr std::string_view kPowerOnLog = "power_on_log.muxz";

// The parts of a name; they point into the text that was parsed.
struct Name {
    std::string_view index;   // decimal digits, any number of them
    std::string_view time;    // digits and "_", ends in a digit
    std::string_view suffix;  // of a folder: "", "t", "_EE" or "t_EE"; of a file: "" or "_EE"
    std::string_view ending;  // of a file only: ".muxz" or ".muxz.tmp"
};

// A folder name whole, that is QRXMDLog_(\d+)_([_\d]+\d+)(t|t_EE|_EE)?
std::optional<Name> ParseFolder(std::string_view name);
// A file name whole, that is QRXMDLog_(\d+)_([_\d]+\d+)(_EE)?(\.muxz|\.muxz\.tmp)
std::optional<Name> ParseFile(std::string_view name);
// The number that `digits` say when it fits 32 bits.
std::optional<uint32_t> ParseIndex(std::string_view digits);

// The number between the first and the second "_" of a folder's name, 0 if that is none of 32 bits.
// Returns nothing if there are no two "_".
std::optional<uint32_t> IndexOf(std::string_view name);

// "QRXMDLog_<index>_<time>": a folder's name once it is finished, but for an exception mark.
std::string IndexedName(uint32_t index, time_t time);
// A file's name while it is open. `suffix` is "" or the exception mark.
std::string OpenFileName(uint32_t index, time_t time, std::string_view suffix);

// Without slashes at its end.
std::string_view LastComponent(std::string_view path);

// Gives `path` the new name of the folder `from` if it lies in that.
void FollowRename(std::string& path, const std::string& from, const std::string& to);

// The functions below look for marks in the last component of `path` only, since the folders above
// may be named freely. REQUIRES: `path` does not end in a slash.

// Returns true if the name has an exception mark somewhere.
bool HasException(std::string_view path);
// What a capture folder is called once no more is written to it: without the "t". In front of an
// exception mark any one character goes.
std::string FinishedFolder(std::string_view path);
// What a log file is called once the next one is open.
std::string FinishedFile(std::string_view path);

// Returns true if a folder of this name belongs to a capture that no later one has followed yet.
constexpr bool IsUnfinished(std::string_view folder) {
    return folder.ends_with(kUnfinished) || folder.ends_with(kUnfinishedException);
}

}  // namespace quarn::log_names
