#include "tools/muxz/archive.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>

#include "storage/log_names.h"
#include "tools/muxz/block.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/spool.h"
#include "tools/muxz/tree.h"

namespace muxz {

namespace {

namespace names = quarn::log_names;

constexpr size_t kPiece = size_t{256} * 1024;        // bytes
constexpr size_t kMostEntries = size_t{1} << 20;     // all entries of an archive
constexpr size_t kMostMembers = size_t{1} << 17;     // entries that are log files or lists
constexpr size_t kLongestName = 4096;                // bytes
constexpr uint64_t kMostOfList = uint64_t{1} << 20;  // bytes of a list of captures
// Bytes of one file. More than twice the size of the largest log file.
constexpr uint64_t kMostOfFile = uint64_t{1} << 33;
// An archive that unpacks to more bytes than this, and to more than kMostRatio times its size,
// counts as a decompression bomb. Log files are already compressed, so a real archive has a small
// ratio.
constexpr uint64_t kUnsuspected = uint64_t{1} << 28;
constexpr uint64_t kMostRatio = 100;
constexpr std::array<std::string_view, 2> kLists = {"log_folder_history", "copied_folder_list"};

bool IsList(std::string_view name) {
    return std::find(kLists.begin(), kLists.end(), name) != kLists.end();
}

bool IsWanted(std::string_view name) {
    return names::ParseFile(name) || name == names::kPowerOnLog || IsList(name);
}

// Removes "..", "." and leading slashes from `path`, so that it cannot lead out of the archive.
std::string Below(std::string_view path) {
    std::string clean;
    while (!path.empty()) {
        const std::string_view part = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(path.size(), part.size() + 1));
        if (part.empty() || part == "." || part == "..") continue;
        if (!clean.empty()) clean += '/';
        clean += part;
    }
    return clean;
}

// Returns the path that muxz uses for a member. The part behind the last slash is the file name,
// also for a member at the top of the archive.
std::string PathIn(const std::string& archive, const std::string& member) {
    const std::string first = member.substr(0, member.find('/'));
    const bool apart = first == member || names::ParseFolder(first);
    return archive + (apart ? ":./" : ":") + member;
}

class Reader {
  public:
    Reader(const std::string& archive_path, std::shared_ptr<Source> from,
           std::optional<uint64_t> bytes)
        : path(archive_path), source(std::move(from)), size(bytes) {}
    ~Reader() { archive_read_free(archive); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    Archive Read() {
        archive_read_support_format_tar(archive);
        archive_read_support_format_gnutar(archive);
        archive_read_support_format_zip(archive);
        archive_read_support_format_raw(archive);
        // libarchive has more filters, but some of them start other programs.
        archive_read_support_filter_gzip(archive);
        archive_read_support_filter_bzip2(archive);
        archive_read_support_filter_xz(archive);
        archive_read_support_filter_zstd(archive);
        archive_read_set_callback_data(archive, this);
        archive_read_set_read_callback(archive, OnRead);
        archive_read_set_skip_callback(archive, OnSkip);
        if (size) archive_read_set_seek_callback(archive, OnSeek);
        if (archive_read_open1(archive) != ARCHIVE_OK) {
            Damaged();
        } else {
            while (Next()) {
            }
        }
        return std::move(result);
    }

  private:
    static la_ssize_t OnRead(struct archive* of, void* own, const void** out) {
        Reader& reader = *static_cast<Reader*>(own);
        const ssize_t got =
            reader.source->ReadAt(reader.at, reader.buffer.data(), reader.buffer.size());
        if (got < 0) archive_set_error(of, errno, "%s", reader.source->Why(errno).c_str());
        if (got > 0) reader.at += static_cast<uint64_t>(got);
        *out = reader.buffer.data();
        return got < 0 ? ARCHIVE_FATAL : got;
    }
    static la_int64_t OnSkip(struct archive*, void* own, la_int64_t bytes) {
        Reader& reader = *static_cast<Reader*>(own);
        if (!reader.size || bytes <= 0) return 0;
        const uint64_t left = *reader.size - std::min(reader.at, *reader.size);
        const uint64_t skipped = std::min(left, static_cast<uint64_t>(bytes));
        reader.at += skipped;
        return static_cast<la_int64_t>(skipped);
    }
    static la_int64_t OnSeek(struct archive*, void* own, la_int64_t offset, int whence) {
        Reader& reader = *static_cast<Reader*>(own);
        const auto from = whence == SEEK_SET   ? 0
                          : whence == SEEK_CUR ? static_cast<la_int64_t>(reader.at)
                                               : static_cast<la_int64_t>(*reader.size);
        if (offset < -from) return ARCHIVE_FATAL;
        reader.at = static_cast<uint64_t>(from + offset);
        return from + offset;
    }

    bool Damaged() {
        const char* const why = archive_error_string(archive);
        result.faults.push_back(
            "damaged archive: " + Printable(why != nullptr ? why : "unknown format") +
            (result.members.empty() ? "" : "; what was read of it is used"));
        return false;
    }
    bool GiveUp(std::string why) {
        result.faults.push_back(std::move(why) + ", the rest of the archive is left out");
        return false;
    }
    bool Leave(std::string_view name, const char* why) {
        result.notes.push_back(PrintablePath(name) + " in it " + why);
        return true;
    }

    // Reads the next entry. Returns false if there is none, or if reading cannot go on.
    bool Next() {
        archive_entry* entry = nullptr;
        const int got = archive_read_next_header(archive, &entry);
        if (got == ARCHIVE_EOF) return false;
        if (got == ARCHIVE_FATAL || got == ARCHIVE_RETRY) return Damaged();
        if (++entries > kMostEntries) return GiveUp("more than a million entries");
        if (IsBomb()) return GiveUp("unpacks to more than 100 times its size");
        const char* const given = archive_entry_pathname(entry);
        if (given == nullptr || strlen(given) > kLongestName) return true;
        std::string inner = Below(given);
        // A single compressed file without an archive: use the name of the compressed file.
        const bool raw = archive_format(archive) == ARCHIVE_FORMAT_RAW;
        if (raw) {
            const std::string_view whole = LastComponent(path);
            inner = whole.substr(0, whole.rfind('.'));
        }
        const std::string_view name = LastComponent(inner);
        if (!IsWanted(name) && !raw) return true;
        if (archive_entry_hardlink(entry) != nullptr || archive_entry_filetype(entry) == AE_IFLNK)
            return Leave(inner, "is a link, which is left out");
        if (archive_entry_filetype(entry) != AE_IFREG) return true;
        if (result.members.size() == kMostMembers) return GiveUp("too many log files");
        Member member;
        member.path = PathIn(path, inner);
        if (archive_entry_mtime_is_set(entry) != 0) member.last_change = archive_entry_mtime(entry);
        return InPlace(entry, member) || Copy(member, IsList(name) ? kMostOfList : kMostOfFile);
    }

    // Adds the member so that it is read directly from the archive. Returns false if this is not
    // possible, because the archive is compressed, not on disk, or no tar.
    bool InPlace(archive_entry* entry, Member& member) {
        if (!size || archive_filter_count(archive) != 1 || archive_entry_sparse_count(entry) != 0 ||
            (archive_format(archive) & ARCHIVE_FORMAT_BASE_MASK) != ARCHIVE_FORMAT_TAR)
            return false;
        const auto start = static_cast<uint64_t>(archive_filter_bytes(archive, 0));
        const auto length = static_cast<uint64_t>(archive_entry_size(entry));
        if (start + length > *size) return false;
        member.size = length;
        const std::shared_ptr<Source> all = source;
        member.open = [all, start, length] { return std::make_unique<Part>(all, start, length); };
        Add(std::move(member));
        return true;
    }

    bool Copy(Member& member, uint64_t most) {
        const uint64_t start = spool->size();
        std::array<uint8_t, kPiece>& piece = *copied;
        la_ssize_t got;
        while ((got = archive_read_data(archive, piece.data(), piece.size())) > 0) {
            if (!spool->Append({piece.data(), static_cast<size_t>(got)}))
                return GiveUp(spool->why());
            if (IsBomb()) return GiveUp("unpacks to more than 100 times its size");
            if (spool->size() - start > most)
                return GiveUp(PrintablePath(member.path) + " is larger than any log file");
        }
        member.size = spool->size() - start;
        const std::shared_ptr<const Spool> all = spool;
        const uint64_t length = member.size;
        member.open = [all, start, length] {
            return std::make_unique<SpoolPart>(all, start, length);
        };
        if (got < 0) Damaged();
        if (got == 0 || length != 0) Add(std::move(member));
        return got != ARCHIVE_FATAL;
    }

    // If two members have the same name, the later one counts, as if the archive were unpacked.
    void Add(Member member) {
        const auto [place, is_new] = places.try_emplace(member.path, result.members.size());
        if (is_new) {
            result.members.push_back(std::move(member));
        } else {
            result.members[place->second] = std::move(member);
        }
    }

    bool IsBomb() const {
        const auto unpacked =
            std::max(static_cast<uint64_t>(archive_filter_bytes(archive, 0)), spool->size());
        const auto packed = static_cast<uint64_t>(archive_filter_bytes(archive, -1));
        return unpacked > kUnsuspected && unpacked / kMostRatio > packed;
    }

    // A part of the archive. All parts share the ownership of its source.
    class Part : public Source {
      public:
        Part(std::shared_ptr<Source> all, uint64_t from, uint64_t bytes)
            : whole(std::move(all)), start(from), length(bytes) {}
        ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t wanted) override {
            if (offset >= length) return 0;
            return whole->ReadAt(start + offset, out, std::min<uint64_t>(wanted, length - offset));
        }

      private:
        const std::shared_ptr<Source> whole;
        const uint64_t start;
        const uint64_t length;
    };

    const std::string& path;
    const std::shared_ptr<Source> source;
    const std::optional<uint64_t> size;
    struct archive* const archive = archive_read_new();
    std::vector<uint8_t> buffer = std::vector<uint8_t>(kPiece);
    const std::unique_ptr<std::array<uint8_t, kPiece>> copied =
        std::make_unique<std::array<uint8_t, kPiece>>();
    const std::shared_ptr<Spool> spool = std::make_shared<Spool>();
    uint64_t at = 0;  // offset in the archive of the next read
    size_t entries = 0;
    std::map<std::string, size_t> places;  // positions in result.members, by path
    Archive result;
};

}  // namespace

bool IsArchive(Bytes front) {
    const auto begins = [front](std::string_view magic) {
        return front.size() >= magic.size() &&
               memcmp(front.data(), magic.data(), magic.size()) == 0;
    };
    constexpr size_t kTarMagic = 257;
    if (front.size() >= kTarMagic + 5 && memcmp(front.data() + kTarMagic, "ustar", 5) == 0)
        return true;
    // A log file without a header may begin with the same bytes as the archives below.
    if (LooksLikeBlock(front)) return false;
    using namespace std::string_view_literals;
    return begins("\x1f\x8b\x08"sv) || begins("PK\x03\x04"sv) || begins("PK\x05\x06"sv) ||
           begins("BZh"sv) ||
           begins(
               "\xfd"
               "7zXZ\0"sv) ||
           begins("\x28\xb5\x2f\xfd"sv);
}

bool WantsSeeking(Bytes front) { return front.size() > 1 && front[0] == 'P' && front[1] == 'K'; }

Archive ReadArchive(const std::string& path, std::shared_ptr<Source> source,
                    std::optional<uint64_t> size) {
    return Reader(path, std::move(source), size).Read();
}

}  // namespace muxz
