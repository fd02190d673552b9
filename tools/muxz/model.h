// The model: everything that muxz finds out about the given paths. All commands print from it.
//
// Build makes the model in three steps:
//
//   step                  finds out                             result
//   Collect (listing.h)   which files the paths name            Listing
//   ScanFile (scan.h)     what one file contains                FileFacts, one call per file
//   Assemble              captures, phones, order, findings     Model
//
// Collect reads folders and archives. ScanFile reads one file and shares no state, so several
// threads scan files at the same time. Assemble reads neither folders nor files.
//
// What each command prints:
//
//   info      each FileFacts: header, blocks, end
//   ls        phones, captures with their state and sizes, power-on logs, and files if requested
//   verify    findings that are faults, and their number; totals
//   check     captures, exceptions, findings, changes, UTC offset, totals; the verdict last
//   cat       the content of the files, in the order of the model; unpacks them itself
//   --json    the whole model
//   report    the model as an HTML page
//
// A command only prints. Everything that two commands need to find out is in the model.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/common/android_log.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/times.h"

namespace muxz {

using tools::AndroidLog;
using tools::kFaultNames;
using tools::kReportPeriod;
using tools::LogClock;
using tools::LogEvent;
using tools::RateReport;
using tools::ReadAndroidLog;

struct FoundFile;
struct Listing;

// --- findings

// Something that is wrong or worth knowing. A fault makes the exit status 1. Something unreadable
// makes it 2.
struct Finding {
    enum class Kind { kNote, kFault, kUnreadable };
    enum class What {
        kDamage,     // bytes of a file that are no block, or a block that does not unpack
        kCutEnd,     // a finished file ends within a block or its lengths
        kHeader,     // the header is cut, damaged or was not found
        kHole,       // file numbers are missing between two files of a capture
        kFrontGone,  // the first files of a capture are missing, or its newest file, or all files
        // A capture is missing: its number is between or before existing ones, or the history
        // names it.
        kCaptureGone,
        kWrongName,   // the name contradicts the header or the order, or its number is too large
        kTwice,       // two files have the same place in the order
        kLeftOut,     // looks like a log file, but is not counted
        kRecycled,    // was removed while muxz was reading
        kUnreadable,  // the system reported an error
        kPhones,      // the files come from several phones
    };
    Kind kind = Kind::kNote;
    What what = What::kDamage;
    std::string path;  // of the file or folder, as it is on disk; not safe for a terminal
    // Offset and number of bytes in the file. Only for kDamage, kCutEnd and kHeader.
    std::optional<uint64_t> offset;
    uint64_t length = 0;
    // Number of missing raw bytes. No value if unknown. Only for kDamage.
    std::optional<uint64_t> raw_missing;
    // True if `raw_missing` is computed from the compression ratio of the file's good blocks,
    // because the lost blocks do not contain their lengths.
    bool raw_estimated = false;
    // The missing numbers. Only for kHole, kFrontGone and kCaptureGone.
    std::optional<uint32_t> first_number;
    std::optional<uint32_t> last_number;
    // The time range without data. Only for kHole.
    std::optional<PhoneTime> from;
    std::optional<PhoneTime> to;
    std::string text;  // for people, without path and offset; safe for a terminal
};
// Returns, for example, "about 4096 raw bytes are missing".
std::string RawMissing(const Finding& finding);

// --- a file

// The information that the modem sent about itself, from the header.
struct ModemInfo {
    std::array<uint8_t, kMdInfoRecordSize> record{};
    uint32_t word_a = 0;
    uint32_t word_b = 0;
    // When the modem sent it. No value if the modem had not sent it yet; the header then has the
    // time when the file was opened.
    std::optional<UtcTime> time;
};

struct CustomValue {
    uint8_t type;  // 0 tag, 1 radio version, 2 hardware id
    std::string value;
    bool operator==(const CustomValue&) const = default;
};

struct HeaderFacts {
    enum class Kind {
        kOwn,      // a complete header of the layout in docs/log-file-format.md
        kForeign,  // a header of unknown layout; the first block was found behind it
        kNone,     // no header: the blocks begin with the first byte
        kEmpty,    // the file has no bytes
        kCut,      // the file ends within a header of the known layout
        kDamaged,  // the known layout, but the header is damaged
        kNoBlock,  // unknown layout, and no block in the first 128 KiB
    };
    Kind kind = Kind::kEmpty;
    // Number of bytes in front of the first block. For kNoBlock, number of bytes that were
    // searched.
    uint64_t length = 0;
    // For kForeign and kNoBlock: offset where a row of blocks begins, as in FirstBlock. If the
    // files of a folder agree on this offset, it replaces a doubtful `length`.
    std::optional<uint64_t> row;

    // The header itself. Only for the known layout.
    std::optional<Header> own;
    // These fields are set for kOwn, and for kForeign as far as muxz recognises them.
    std::optional<UtcTime> folder_time;
    std::optional<uint32_t> file_index;
    std::optional<ModemInfo> modem;
    std::vector<CustomValue> custom;  // the first entry is the tag
};

// Statistics of blocks.
struct BlockFacts {
    uint64_t blocks = 0;
    uint64_t raw = 0;     // bytes
    uint64_t packed = 0;  // bytes, without the six bytes of each block's lengths
    // The smallest and the largest block, by raw length and then by packed length. Valid if
    // `blocks` is not 0.
    quarn::log_file::BlockHeader smallest{};
    quarn::log_file::BlockHeader largest{};
    // [0] counts blocks without raw bytes, [i] counts blocks of 2^(i-1) to 2^i - 1 raw bytes.
    std::array<uint64_t, 25> histogram{};

    void Add(const quarn::log_file::BlockHeader& lengths);
    void Add(const BlockFacts& others);
};

struct FileFacts {
    std::string path;
    std::string name;                    // last component of `path`
    std::optional<uint32_t> index;       // number in the header, or else in the name
    std::optional<uint32_t> name_index;  // number in the name
    std::optional<PhoneTime> opened;     // time in the name
    // The name has the exception mark: the file was opened after a modem exception.
    bool exception = false;
    // The name says that the file was not closed. The file may then end anywhere.
    bool may_be_open = false;
    uint64_t size = 0;  // bytes, when the file was scanned
    std::optional<UtcTime> last_change;
    bool readable = true;
    bool given = false;  // the user gave the path of this file, not that of a folder around it
    // How to open the file again. Only for a file in an archive or pipe, else null.
    std::shared_ptr<const FoundFile> kept;
    // Position of the argument that led to the file, and for unsorted files of a folder the
    // position by name.
    std::pair<size_t, size_t> place;
    uint64_t fingerprint = 0;  // of the first bytes behind the header; 0 if there are none

    HeaderFacts header;
    BlockFacts blocks;           // zero if only the header was read
    End end = End::kWhole;       // unknown if only the header was read
    std::string end_reason;      // what is wrong at the end, for people; else empty
    uint64_t end_offset = 0;     // offset behind the last good block
    uint64_t trailing = 0;       // bytes behind `end_offset`: a stray byte or a block that was cut
    uint64_t damaged_bytes = 0;  // number of bytes in kDamage findings
    std::vector<Finding> findings;  // findings about this file alone

    // Set by Assemble. The last block was written at this time or earlier. It is the time when the
    // next file was opened, or else the last change of the file, if that is credible.
    std::optional<PhoneTime> closed;
};

// --- a capture

// When the modem crashed. The crash happened between `from` and `to`.
struct ExceptionTime {
    // The modem sent its information again after its restart, so the time is in a header.
    bool exact = false;
    std::optional<UtcTime> utc;  // only if exact
    std::optional<PhoneTime> from;
    std::optional<PhoneTime> to;  // equal to `from` if exact
    std::string told_by;          // path of the file whose header has the time; empty if not exact
    std::vector<UtcTime> later;   // times of further restarts, from later files; only if exact
    // The name of the folder or of a file marks the exception. If false, only the modem information
    // shows it.
    bool marked = true;
};

struct CaptureFacts {
    enum class State {
        kFinished,
        kUnfinished,  // the folder name says that it is not finished, but a later capture exists
        kNewest,      // the last capture, and no process is writing it
        // A process has the last file open for writing, or the file changed after it was scanned.
        kBeingWritten,
    };
    std::string path;        // of the capture folder; for unsorted files the folder around them
    std::string name;        // of the capture folder; empty for unsorted files
    std::string log_folder;  // the folder that contains the capture folder
    std::optional<uint32_t> index;
    State state = State::kFinished;
    bool copy = false;  // another capture contains the same; the totals do not count this one
    bool whole = true;  // the user gave all files of the folder, not some of them
    // Numbers of the files in the folder that the user did not give; empty if `whole`.
    std::vector<uint32_t> others;
    bool given = false;  // the user gave the path of this folder, not that of a tree around it

    std::optional<PhoneTime> start;      // when the folder was made
    std::optional<UtcTime> folder_time;  // the same moment, from the headers
    std::optional<int32_t> utc_offset;   // seconds east of Greenwich: start - folder_time
    std::optional<PhoneTime> end;        // the last byte was written at this time or earlier
    // Set if a name has the mark _EE. Also set for unsorted files if the modem information shows an
    // exception.
    std::optional<ExceptionTime> exception;

    std::vector<FileFacts> files;  // in the order of the stream
    uint64_t size = 0;             // bytes of all files
    BlockFacts blocks;             // of all files
    uint64_t damaged_bytes = 0;
    uint64_t raw_missing = 0;  // bytes, in damaged places
    bool raw_estimated = false;
    std::vector<Finding> findings;  // about the capture itself; each file has its own findings

    // Returns the time from start to end, if it is greater than 0.
    std::optional<double> Seconds() const;
    // Returns the time that the existing files cover.
    std::optional<double> CoveredSeconds() const;
    // Returns the custom header of the first file that has one.
    const std::vector<CustomValue>& custom() const;
};

// Returns "finished", "unfinished", "newest" or "being written".
std::string_view Text(CaptureFacts::State state);

// --- phones

struct Phone {
    std::string hardware_id;             // empty if no header has it
    std::vector<CaptureFacts> captures;  // in capture order, including copies
    std::vector<FileFacts> power_on_logs;
    std::optional<int32_t>
        utc_offset;  // seconds east of Greenwich, of the newest capture that has it
    // No header gives the UTC offset. It was computed from the last changes of files and the
    // openings of the next files.
    bool utc_offset_estimated = false;
    bool last_changes_kept = true;  // false if the files were copied without their times
};

// A line of a list of captures, which the daemon or a copy command wrote.
struct HistoryEntry {
    std::string name;  // of the capture folder
    std::string path;  // of the list that names it
};

// A change of the custom header from one capture to the next.
struct CustomChange {
    size_t capture;  // position of the later capture in Phone::captures
    uint8_t type;
    std::string before;  // empty if the entry did not exist
    std::string after;   // empty if the entry no longer exists
};

struct Totals {
    size_t captures = 0;  // without copies
    size_t copies = 0;
    size_t files = 0;   // without power-on logs
    uint64_t size = 0;  // bytes
    BlockFacts blocks;
    size_t exceptions = 0;
    size_t faults = 0;
    size_t holes = 0;  // `faults` includes them
    uint64_t damaged_bytes = 0;
    uint64_t raw_missing = 0;    // bytes, in damaged places
    bool raw_estimated = false;  // `raw_missing` is not completely exact
    size_t power_on_logs = 0;
    BlockFacts power_on_blocks;  // `blocks` does not include them
};

// Returns, for example, "about 4096 raw bytes missing". REQUIRES: there are damaged bytes.
std::string RawMissing(const Totals& totals);

// How much of each file is read.
enum class Depth {
    kHeaders,  // up to the first block
    kLengths,  // also the lengths of all blocks, which give sizes and show some damage
    kBlocks,   // every block is unpacked
};

struct Model {
    Depth depth = Depth::kHeaders;  // how much of each file was read
    std::vector<Phone> phones;      // more than one if the files cannot come from one phone
    size_t phones_found = 0;        // includes phones that the user did not choose
    std::string phones_why;         // what shows that there are several phones; else empty
    std::vector<HistoryEntry> history;
    std::vector<Finding> findings;  // all findings, in the order of the stream
    bool reordered = false;         // the order of the model is not that of names or arguments
    Totals totals;
    std::optional<AndroidLog> android_log;  // if the user gave one
    std::optional<uint64_t> budget;         // recycle size limit of the tree in bytes, if known

    // Returns the files of all phones, in the order of the stream. Leaves out copies. Leaves out
    // power-on logs that the user did not give by their paths, since captures contain their blocks.
    std::vector<const FileFacts*> Files() const;

    // Returns the exit status: 0 good, 1 faults, 2 something could not be read.
    int Status() const;
    // Returns one sentence for people, without a newline.
    std::string Verdict() const;
};

// Returns the changes from one capture of a phone to the next.
std::vector<CustomChange> Changes(const Phone& phone);

// The scanned files of a listing: facts[i][k] belongs to listing.groups[i].files[k].
using ScannedFiles = std::vector<std::vector<FileFacts>>;

// Which phones the model has if the files come from several.
struct PhoneChoice {
    enum class Which {
        kAll,   // all phones, each with its own captures
        kOne,   // only phone `number`
        kSame,  // treats all files as those of one phone
    };
    Which which = Which::kAll;
    size_t number = 0;  // the first phone is 1
};

struct BuildOptions {
    Depth depth = Depth::kHeaders;
    PhoneChoice phones{};
    bool copies = false;  // reads copies as other files; if false, reads only their headers
    // Removes unwanted files from a listing. Empty: keeps all files.
    std::function<void(Listing& listing)> narrow = {};
    // Reads only the headers of the files that follow a file with a fault.
    bool first_fault = false;
    bool live = false;  // as for Collect
    // Called at intervals with the number of bytes read so far, and the number of all bytes. Calls
    // come from several threads, but never at the same time.
    std::function<void(uint64_t done, uint64_t all)> progress{};
};
Model Build(const std::vector<std::string>& paths, const BuildOptions& options);

// Makes a model from the files of `listing`. `scanned` has what ScanFile returned for each of them.
Model Assemble(const Listing& listing, ScannedFiles scanned, const BuildOptions& options);

}  // namespace muxz
