#include "tools/muxz/scan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "storage/log_names.h"
#include "tools/muxz/foreign.h"
#include "tools/muxz/search.h"
#include "tools/muxz/tree.h"
#include "tools/muxz/walk.h"

namespace muxz {

namespace {

namespace names = quarn::log_names;

constexpr size_t kFingerprint = 4096;  // bytes behind the header
constexpr uint64_t kProgressStep = uint64_t{4} * 1024 * 1024;

class Scanner {
  public:
    Scanner(const FoundFile& from, const ScanOptions& chosen) : found(from), options(chosen) {
        TakeName(from.path);
        facts.given = from.given;
        facts.place = from.place;
        if (!from.container.empty()) facts.kept = std::make_shared<FoundFile>(from);
    }

    FileFacts Scan() {
        OpenedFile opened = found.open();
        if (!opened.source) {
            facts.readable = false;
            if (opened.error == ENOENT) {
                Tell(Finding::Kind::kNote, Finding::What::kRecycled, "gone, recycled meanwhile");
            } else {
                Tell(Finding::Kind::kUnreadable, Finding::What::kUnreadable, opened.why);
            }
            return std::move(facts);
        }
        if (opened.path != facts.path) TakeName(opened.path);
        facts.size = opened.size;
        facts.last_change = opened.last_change;
        source = std::move(opened.source);
        if (!TakeHeader()) return std::move(facts);
        TakeFingerprint();
        if (options.depth != Depth::kHeaders) TakeBlocks();
        return std::move(facts);
    }

  private:
    void TakeName(const std::string& path) {
        facts.path = path;
        facts.name = LastComponent(path);
        facts.may_be_open = MayBeOpen(path);
        const std::optional<names::Name> name = names::ParseFile(facts.name);
        if (!name) return;
        facts.index = facts.name_index = names::ParseIndex(name->index);
        facts.opened = ParseNameTime(name->time);
        facts.exception = !name->suffix.empty();
    }

    void Tell(Finding::Kind kind, Finding::What what, std::string text) {
        AddFinding(facts, kind, what, std::move(text));
    }
    void TellAt(Finding::Kind kind, Finding::What what, uint64_t offset, std::string text) {
        Finding& finding = AddFinding(facts, kind, what, std::move(text));
        finding.offset = offset;
    }

    // Returns true if the blocks can be read: the header is complete, or its end was found.
    bool TakeHeader();
    bool TakeForeignHeader(HeaderState state);
    void TakeOwnHeader(const Header& own);
    bool IsOwnTime(UtcTime time) const;
    bool IsBlockAt(uint64_t offset) const {
        Window window(*source, kFingerprint);
        return BlockSearch(window).LooksLikeBlockAt(offset) ||
               window.At(offset, quarn::log_file::kBlockHeaderSize).size() <
                   quarn::log_file::kBlockHeaderSize;
    }
    void TakeFingerprint();
    void TakeBlocks();

    const FoundFile& found;
    const ScanOptions& options;
    std::unique_ptr<Source> source;
    FileFacts facts;
};

bool Scanner::TakeHeader() {
    Header own;
    HeaderFacts& header = facts.header;
    const HeaderState state = ReadHeader(*source, own);
    switch (state) {
        case HeaderState::kWhole:
            header.kind = HeaderFacts::Kind::kOwn;
            header.length = own.length;
            TakeOwnHeader(own);
            // A wrong length may lead past the first blocks.
            if (!IsBlockAt(own.length)) {
                const FirstBlock first = FindFirstBlock(*source);
                if (first.offset && *first.offset < own.length) {
                    header.kind = HeaderFacts::Kind::kDamaged;
                    header.length = *first.offset;
                    TellAt(Finding::Kind::kFault, Finding::What::kHeader, 0,
                           "the header's length leads past the first blocks");
                }
            }
            return true;
        case HeaderState::kReadError:
            facts.readable = false;
            TellAt(Finding::Kind::kUnreadable, Finding::What::kUnreadable, 0,
                   std::string(Text(state)));
            return false;
        case HeaderState::kEmpty:
            header.kind = HeaderFacts::Kind::kEmpty;
            if (!facts.may_be_open)
                TellAt(Finding::Kind::kFault, Finding::What::kHeader, 0, std::string(Text(state)));
            return false;
        default:
            return TakeForeignHeader(state);
    }
}

// Returns true if `time` may be the time when the file was opened, in any time zone.
bool Scanner::IsOwnTime(UtcTime time) const {
    constexpr int64_t kQuarter = 900;  // seconds; time zones differ by multiples of it
    constexpr int64_t kOpening = 5;    // seconds; opening a file may take three attempts
    if (!facts.opened) return true;
    const int64_t apart = (*facts.opened - time) % kQuarter;
    const int64_t past = (apart + kQuarter) % kQuarter;
    return past <= kOpening || past >= kQuarter - kOpening;
}

// If the modem record is empty, the modem has not sent its information yet. The time in the record
// is then the time when the file was opened.
void Scanner::TakeOwnHeader(const Header& own) {
    HeaderFacts& header = facts.header;
    header.own = own;
    if (!own.known_version) return;
    header.folder_time = own.phone.folder_time;
    header.file_index = own.phone.file_idx;
    ModemInfo& modem = header.modem.emplace();
    modem.record = own.modem_record;
    modem.word_a = own.modem.md_info_word_a;
    modem.word_b = own.modem.md_info_word_b;
    const bool empty = modem.word_a == 0 && std::all_of(modem.record.begin(), modem.record.end(),
                                                        [](uint8_t byte) { return byte == 0; });
    if (!empty || !IsOwnTime(own.modem.md_info_time)) modem.time = own.modem.md_info_time;
    Bytes rest;
    for (const CustomEntry& entry : ParseCustomBlock(own.custom, rest)) {
        header.custom.push_back({entry.type, {entry.value.begin(), entry.value.end()}});
    }
    if (facts.index && *facts.index != own.phone.file_idx) {
        Tell(Finding::Kind::kNote, Finding::What::kWrongName,
             "the header says file number " + std::to_string(own.phone.file_idx));
    }
    facts.index = own.phone.file_idx;
}

bool Scanner::TakeForeignHeader(HeaderState state) {
    const bool known = state == HeaderState::kCut || state == HeaderState::kDamaged;
    HeaderFacts& header = facts.header;
    const FirstBlock first = FindFirstBlock(*source);
    std::optional<uint64_t> length = first.offset;
    if (!known) {
        header.row = first.row;
        // The first block may be damaged. The other files of the folder then show where it is.
        if (options.foreign_header) length = options.foreign_header;
    }
    if (!length) {
        header.kind = state == HeaderState::kCut       ? HeaderFacts::Kind::kCut
                      : state == HeaderState::kDamaged ? HeaderFacts::Kind::kDamaged
                                                       : HeaderFacts::Kind::kNoBlock;
        header.length = std::min(facts.size, kMostHeader);
        const bool may_end_here = state == HeaderState::kCut || facts.size <= kMostHeader;
        if (facts.may_be_open && may_end_here && state != HeaderState::kDamaged) return false;
        std::string text(Text(state));
        if (state != HeaderState::kCut) text += ", and no block near it (try muxz recover)";
        TellAt(Finding::Kind::kFault, Finding::What::kHeader, 0, text);
        return false;
    }
    header.length = *length;
    if (known) {
        header.kind = HeaderFacts::Kind::kDamaged;
        TellAt(Finding::Kind::kFault, Finding::What::kHeader, 0, "damaged header");
        return true;
    }
    header.kind = *length == 0 ? HeaderFacts::Kind::kNone : HeaderFacts::Kind::kForeign;
    if (facts.size < *length && !facts.may_be_open) {
        TellAt(Finding::Kind::kFault, Finding::What::kHeader, 0,
               std::string(Text(HeaderState::kCut)));
    }
    Window window(*source, static_cast<size_t>(kMostHeader));
    const Bytes bytes = window.At(0, static_cast<size_t>(*length));
    Recognise(bytes.first(std::min<size_t>(bytes.size(), static_cast<size_t>(*length))),
              facts.index, facts.opened, header);
    return true;
}

void Scanner::TakeFingerprint() {
    Window window(*source, kFingerprint);
    const Bytes bytes = window.At(facts.header.length, kFingerprint);
    const Bytes front = bytes.first(std::min(bytes.size(), kFingerprint));
    if (front.empty()) return;
    facts.fingerprint =
        std::hash<std::string_view>()({reinterpret_cast<const char*>(front.data()), front.size()});
}

void Scanner::TakeBlocks() {
    uint64_t reported = 0;
    const bool unpacks = options.depth == Depth::kBlocks;
    WalkBlocks(*source, unpacks ? BlockReader::Mode::kBytes : BlockReader::Mode::kLengths, facts,
               [&](BlockReader& reader, const Block& block) {
                   if (options.progress && block.offset >= reported + kProgressStep) {
                       options.progress(block.offset - reported);
                       reported = block.offset;
                   }
                   return !unpacks || reader.Check(block);
               });
    if (options.progress && facts.size > reported) options.progress(facts.size - reported);
}

}  // namespace

FileFacts ScanFile(const FoundFile& file, const ScanOptions& options) {
    return Scanner(file, options).Scan();
}

}  // namespace muxz
