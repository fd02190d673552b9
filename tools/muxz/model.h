// What the given paths hold: one value that every command of muxz prints.
//
// Build makes it in three steps. The first looks into folders, the second into one file at a time,
// the third into nothing but what it is given:
//
//   Collect (listing.h)   which files the paths name            Listing
//   ScanFile (scan.h)     what one file says of itself          FileFacts, one call per file
//   Assemble              captures, phones, order, findings     Model
//
// ScanFile depends on its file alone and shares no state, so several threads may each scan a file.
//
// Who prints what:
//
//   info      each FileFacts: header, blocks, end
//   ls        phones, captures with their state and sizes, files on demand, power-on logs
//   verify    findings that are faults, and their number; totals
//   check     captures, exceptions, findings, changes, UTC offset, totals; the verdict last
//   cat       the files of the one phone in the order of the model; unpacks them itself
//   --json    the model as it stands
//   report    the model, as a page
//
// A command prints and has no logic of its own: what two of them would have to find out is here.
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

#include "tools/muxz/android_log.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/times.h"

namespace muxz {

struct FoundFile;
struct Listing;

// --- findings

// What is wrong or worth knowing. Faults make the exit status 1, unreadable things 2.
struct Finding {
    enum class Kind { kNote, kFault, kUnreadable };
    enum class What {
        kDamage,       // bytes of a file that are no block, or a block that does not unpack
        kCutEnd,       // a finished file ends within a block or its lengths
        kHeader,       // a header that is cut, damaged or not to be found
        kHole,         // file numbers missing within a capture
        kFrontGone,    // the first files of a capture are missing, its newest one, or all
        kCaptureGone,  // a capture number, or one that the history names, is missing
        kWrongName,    // a name that contradicts the header or the order, or of too large a number
        kTwice,        // two files of one place in the order
        kLeftOut,      // looks like a log, but is not counted
        kRecycled,     // went while muxz was reading
        kUnreadable,   // an error of the system
        kPhones,       // the files are those of several phones
    };
    Kind kind = Kind::kNote;
    What what = What::kDamage;
    std::string path;  // of the file or folder; fit for opening, not for a terminal
    // Bytes of the file: where, and how many. Only of kDamage, kCutEnd and kHeader.
    std::optional<uint64_t> offset;
    uint64_t length = 0;
    // Raw bytes that are missing there; none when nothing tells how many. Estimated: by the ratio
    // of the blocks in front, since the lost ones do not say it. Only of kDamage.
    std::optional<uint64_t> raw_missing;
    bool raw_estimated = false;
    // The numbers that are missing. Only of kHole, kFrontGone and kCaptureGone.
    std::optional<uint32_t> first_number;
    std::optional<uint32_t> last_number;
    // The stretch without data. Only of kHole.
    std::optional<PhoneTime> from;
    std::optional<PhoneTime> to;
    std::string text;  // for people, without path and offset; fit for a terminal
};
// "about 4096 raw bytes are missing"
std::string RawMissing(const Finding& finding);

// --- a file

// What the modem told of itself, as the header keeps it.
struct ModemInfo {
    std::array<uint8_t, kMdInfoRecordSize> record{};
    uint32_t word_a = 0;
    uint32_t word_b = 0;
    // When it told; none when it had told nothing yet and the header gives the file's own time.
    std::optional<UtcTime> time;
};

struct CustomValue {
    uint8_t type;  // 0 tag, 1 radio version, 2 hardware id
    std::string value;
    bool operator==(const CustomValue&) const = default;
};

struct HeaderFacts {
    enum class Kind {
        kOwn,      // of the layout in docs/log-file-format.md, whole
        kForeign,  // another writer's: the first block was found behind it
        kNone,     // the blocks begin with the first byte
        kEmpty,    // the file has no bytes
        kCut,      // the file ends within a header of the known layout
        kDamaged,  // the known layout, but its lengths contradict each other
        kNoBlock,  // not the known layout, and no block in the first 128 KiB
    };
    Kind kind = Kind::kEmpty;
    uint64_t length = 0;  // bytes in front of the first block; of kNoBlock all that were looked at
    // Of kForeign and kNoBlock: where a row of blocks begins, as FindFirstBlock tells it.
    // Neighbours that agree on it settle a doubt about `length`.
    std::optional<uint64_t> row;

    // The known layout as it stands, of a known version; of kOwn only.
    std::optional<Header> own;
    // The rest is of kOwn and, as far as it can be recognised there, of kForeign.
    std::optional<UtcTime> folder_time;
    std::optional<uint32_t> file_index;
    std::optional<ModemInfo> modem;
    std::vector<CustomValue> custom;  // the tag first
};

// What blocks amount to.
struct BlockFacts {
    uint64_t blocks = 0;
    uint64_t raw = 0;     // bytes
    uint64_t packed = 0;  // bytes, without the six of each block's lengths
    // By raw, then packed length; only when there are blocks.
    quarn::log_file::BlockHeader smallest{};
    quarn::log_file::BlockHeader largest{};
    // [0] blocks of no raw bytes, [i] blocks of 2^(i-1) to 2^i - 1 raw bytes.
    std::array<uint64_t, 25> histogram{};

    void Add(const quarn::log_file::BlockHeader& lengths);
    void Add(const BlockFacts& others);
};

struct FileFacts {
    std::string path;
    std::string name;                    // its last component
    std::optional<uint32_t> index;       // of the header, else of the name
    std::optional<uint32_t> name_index;  // of the name
    std::optional<PhoneTime> opened;     // by its name
    bool exception = false;              // marked so in its name: opened after a modem exception
    bool may_be_open = false;            // by its name; its end may be anywhere
    uint64_t size = 0;                   // bytes, when it was scanned
    std::optional<UtcTime> last_change;
    bool readable = true;
    bool given = false;  // its path itself was given, not that of a folder around it
    std::shared_ptr<const FoundFile> kept;  // of a file in an archive or pipe: how to open it again
    // Which of the given paths led to it, and its place by name in a heap.
    std::pair<size_t, size_t> place;
    uint64_t fingerprint = 0;  // of the first bytes behind the header; 0: there are none

    HeaderFacts header;
    BlockFacts blocks;              // zero when only the header was read
    End end = End::kWhole;          // likewise
    std::string end_reason;         // what is wrong there, for people; empty when nothing is
    uint64_t end_offset = 0;        // behind the last good block
    uint64_t trailing = 0;          // bytes seen behind it: of a stray byte or a cut block
    uint64_t damaged_bytes = 0;     // of the file, in kDamage findings
    std::vector<Finding> findings;  // what the file alone tells

    // Set by Assemble. When its last block was written, at the latest: when the next file was
    // opened, else the last change of the file where that can be believed.
    std::optional<PhoneTime> closed;
};

// --- a capture

// When the modem crashed. `exact` when the modem itself told, by its restart.
struct ExceptionTime {
    bool exact = false;
    std::optional<UtcTime> utc;  // when exact
    std::optional<PhoneTime> from;
    std::optional<PhoneTime> to;  // as `from` when exact
    std::string told_by;          // path of the file whose header told; empty unless exact
    std::vector<UtcTime> later;   // when exact: the modem told anew once more, in later files
    bool marked = true;           // false: without a name that says so, only the modem's word
};

struct CaptureFacts {
    enum class State {
        kFinished,
        kUnfinished,    // its name says so, but a later one is there
        kNewest,        // the last one, and nobody writes it
        kBeingWritten,  // a process has a file open for writing, or it grew meanwhile
    };
    std::string path;        // of its folder; of files in a heap the folder around them
    std::string name;        // of its folder; empty when the files lie in a heap
    std::string log_folder;  // the folder around it, which counts captures for itself
    std::optional<uint32_t> index;
    State state = State::kFinished;
    bool copy = false;  // another capture holds the same; counts for nothing
    bool whole = true;  // all files of its folder were asked for, not some of them
    // Numbers of the files in the folder that were not asked for; empty when `whole`.
    std::vector<uint32_t> others;
    bool given = false;  // its path itself was given, not that of a tree around it

    std::optional<PhoneTime> start;      // when its folder was made
    std::optional<UtcTime> folder_time;  // the same instant, by its headers
    std::optional<int32_t> utc_offset;   // seconds east of Greenwich: start - folder_time
    std::optional<PhoneTime> end;        // when the last byte was written, at the latest
    // When it is marked EE, or is of a heap and the modem told anew.
    std::optional<ExceptionTime> exception;

    std::vector<FileFacts> files;  // in the order of the stream
    uint64_t size = 0;             // bytes of all files
    BlockFacts blocks;             // of all files
    uint64_t damaged_bytes = 0;
    uint64_t raw_missing = 0;  // bytes, in damaged places
    bool raw_estimated = false;
    std::vector<Finding> findings;  // about the capture as a whole; those of its files are theirs

    std::optional<double> Seconds() const;  // from start to end, when that is above 0
    // As Seconds, but without the time of files that are missing: what its bytes came in.
    std::optional<double> CoveredSeconds() const;
    const std::vector<CustomValue>& custom() const;  // of its first file that has any
};

// "finished", "unfinished", "newest" or "being written"
std::string_view Text(CaptureFacts::State state);

// --- phones

struct Phone {
    std::string hardware_id;             // empty when no header tells
    std::vector<CaptureFacts> captures;  // in capture order, copies among them
    std::vector<FileFacts> power_on_logs;
    std::optional<int32_t> utc_offset;  // seconds east, of its newest capture that tells it
    // No header tells it: it is what makes the last change of files fit the opening of the next.
    bool utc_offset_estimated = false;
    bool last_changes_kept = true;  // else the files were copied without their times
};

struct HistoryEntry {
    std::string name;  // of the capture folder once finished
    std::string path;  // of the list that names it
};

// What differs between a capture and the one before it.
struct CustomChange {
    size_t capture;  // place in Phone::captures
    uint8_t type;
    std::string before;  // empty: had none
    std::string after;
};

struct Totals {
    size_t captures = 0;  // without copies
    size_t copies = 0;
    size_t files = 0;   // without power-on logs
    uint64_t size = 0;  // bytes
    BlockFacts blocks;
    size_t exceptions = 0;
    size_t faults = 0;
    size_t holes = 0;  // among the faults
    uint64_t damaged_bytes = 0;
    uint64_t raw_missing = 0;    // bytes, in damaged places
    bool raw_estimated = false;  // not all of them are told exactly
    size_t power_on_logs = 0;
    BlockFacts power_on_blocks;  // apart from the others
};

// "about 4096 raw bytes missing". REQUIRES: there are damaged bytes.
std::string RawMissing(const Totals& totals);

enum class Depth {
    kHeaders,  // up to the first block
    kLengths,  // the lengths of all blocks: sizes, and damage that they show
    kBlocks,   // every block unpacks
};

struct Model {
    Depth depth = Depth::kHeaders;  // how far the files were read
    std::vector<Phone> phones;      // one, unless the files cannot be those of one phone
    size_t phones_found = 0;        // also those that were not asked for
    std::string phones_why;         // by which signs, when there are several
    std::vector<HistoryEntry> history;
    std::vector<Finding> findings;  // all of them, in the order of the stream
    bool reordered = false;         // the order of the model is not that of names or arguments
    Totals totals;
    std::optional<AndroidLog> android_log;  // when one was given
    std::optional<uint64_t> budget;         // bytes that the tree may have; none: nothing tells

    // Of all phones, in the order of the stream. Not copies; power-on logs only when they were
    // given themselves, since the captures hold their blocks too.
    std::vector<const FileFacts*> Files() const;

    // 0 good, 1 faults or holes, 2 something could not be read.
    int Status() const;
    // One sentence for people, without the line's end.
    std::string Verdict() const;
};

// What changed from capture to capture of a phone.
std::vector<CustomChange> Changes(const Phone& phone);

// Of the files that `listing` names, in its order: facts[i][k] is of listing.groups[i].files[k].
using ScannedFiles = std::vector<std::vector<FileFacts>>;

// Which phones the model is to hold when the files cannot be those of one.
struct PhoneChoice {
    enum class Which {
        kAll,   // each apart from the others
        kOne,   // the one of `number` alone
        kSame,  // it is one phone, whatever the signs say
    };
    Which which = Which::kAll;
    size_t number = 0;  // 1 is the first
};

struct BuildOptions {
    Depth depth = Depth::kHeaders;
    PhoneChoice phones{};
    bool copies = false;  // copies are read like the others; else only their headers
    // Leaves in a listing what is wanted of it; none: all of it.
    std::function<void(Listing& listing)> narrow = {};
    bool first_fault = false;  // reads no more than headers once a file has a fault
    bool live = false;         // as Collect has it
    // Called now and then with the bytes of log files gone by so far, and those of all of them.
    std::function<void(uint64_t done, uint64_t all)> progress{};
};
Model Build(const std::vector<std::string>& paths, const BuildOptions& options);

// `scanned` are the files that `listing` names.
Model Assemble(const Listing& listing, ScannedFiles scanned, const BuildOptions& options);

}  // namespace muxz
