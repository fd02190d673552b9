#include "tests/soak/account.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>

#include "storage/log_names.h"
#include "tools/muxz_reader.h"

namespace fs = std::filesystem;

namespace soak {

namespace {

constexpr uint64_t kMiB = 1 << 20;
// What a process may hold that no file has yet: the ring and a chunk on its way there; a full
// buffer of blocks, and one that was being written, of a stream that packs at most so many times.
constexpr uint64_t kRing = 16 * kMiB + 64 * 1024;
constexpr uint64_t kMostPacking = 5;
constexpr uint64_t kBuffer = kMiB * kMostPacking;
constexpr uint64_t kFile = 4 * kMiB * kMostPacking;  // none is set to be larger

// What stands behind `mark` in a line, up to a blank.
std::optional<std::string> Behind(const std::string& line, std::string_view mark) {
    const size_t at = line.find(mark);
    if (at == std::string::npos) return std::nullopt;
    const size_t start = at + mark.size();
    return line.substr(start, line.find(' ', start) - start);
}

// A log file whose folder may have got its final name meanwhile.
muxz::Fd OpenRenamed(const fs::path& path) {
    if (const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC); fd >= 0) return muxz::Fd(fd);
    const std::string folder_name = path.parent_path().filename();
    const std::string file_name = path.filename();
    const auto wanted = quarn::log_names::ParseFolder(folder_name);
    const std::string stem = file_name.substr(0, file_name.find('.') + 1);
    std::error_code gone;
    for (const auto& folder : fs::directory_iterator(path.parent_path().parent_path(), gone)) {
        const std::string name = folder.path().filename();
        const auto parsed = quarn::log_names::ParseFolder(name);
        if (!wanted || !parsed || parsed->index != wanted->index || parsed->time != wanted->time) {
            continue;
        }
        for (const auto& file : fs::directory_iterator(folder, gone)) {
            if (!file.path().filename().native().starts_with(stem)) continue;
            if (const int fd = open(file.path().c_str(), O_RDONLY | O_CLOEXEC); fd >= 0) {
                return muxz::Fd(fd);
            }
        }
    }
    return {};
}

// Folder and file by what never changes in their names.
std::string Key(const fs::path& path) {
    const std::string folder = path.parent_path().filename();
    const std::string file = path.filename();
    return folder.substr(0, folder.find_first_of("t", sizeof("QRXMDLog_") - 1))
               .substr(0, folder.find("_EE")) +
           "/" + file.substr(0, file.find_first_of(".E"));
}

uint64_t SizeOf(const muxz::Fd& fd) {
    struct stat status = {};
    fstat(fd.get(), &status);
    return static_cast<uint64_t>(status.st_size);
}

}  // namespace

// --- the stream

void KnownStream::Extend(size_t size) {
    const size_t have = ahead.size();
    if (have >= size) return;
    ahead.resize(size);
    source->Read(ahead.data() + have, size - have);
}

bool KnownStream::Take(const uint8_t* bytes, size_t size) {
    Extend(size);
    if (memcmp(ahead.data(), bytes, size) != 0) return false;
    ahead.erase(ahead.begin(), ahead.begin() + static_cast<ptrdiff_t>(size));
    at += size;
    return true;
}

bool KnownStream::SkipTo(const uint8_t* bytes, size_t size) {
    constexpr size_t kFar = 400 * kMiB;
    const size_t needle = std::min<size_t>(size, 2048);
    for (size_t from = 0; from < kFar; from += kMiB) {
        Extend(from + kMiB + needle);
        const auto begin = ahead.begin() + static_cast<ptrdiff_t>(from);
        const auto* const found =
            static_cast<const uint8_t*>(memmem(&*begin, kMiB + needle, bytes, needle));
        if (found == nullptr) continue;
        const ptrdiff_t gap = found - ahead.data();
        ahead.erase(ahead.begin(), ahead.begin() + gap);
        at += static_cast<uint64_t>(gap);
        return true;
    }
    return false;
}

// --- what the daemon's log tells

void Account::Begin(uint64_t seed, const std::string& path) {
    stream_seed = seed;
    stream = std::make_unique<KnownStream>(seed);
    log_path = path;
    partial.clear();
    power_on.clear();
    log_at = dropped = 0;
    may_lack = all_may_lack = 0;
    recycled.clear();
    power_on_failed = false;
    files.clear();
}

bool Account::Follow() {
    ReadLog();
    const bool closed = !files.empty() && files.front().closed;
    if (closed) {
        Verify(files.front(), false);
        files.pop_front();
    }
    uint64_t bytes = 0;
    for (const File& file : files) bytes += SizeOf(file.fd);
    waiting = bytes;
    open_end = may_lack != 0;
    return closed;
}

void Account::ReadLog() {
    std::ifstream in(log_path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(log_at));
    std::string piece(256 * 1024, '\0');
    while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())), in.gcount() > 0) {
        log_at += static_cast<uint64_t>(in.gcount());
        partial.append(piece.data(), static_cast<size_t>(in.gcount()));
        size_t start = 0;
        for (size_t end; (end = partial.find('\n', start)) != std::string::npos; start = end + 1) {
            TakeLine(partial.substr(start, end - start));
        }
        partial.erase(0, start);
    }
}

void Account::TakeLine(const std::string& line) {
    // Requests are somebody else's text.
    if (line.find("command_handler: receive req=") != std::string::npos) return;
    if (const auto opened = Behind(line, "file_io: open log_file=")) {
        if (line.find("fail, errno") != std::string::npos) return;
        files.push_back({OpenRenamed(*opened), *opened, false, std::exchange(may_lack, 0)});
    } else if (line.find(" header fail") != std::string::npos && !files.empty()) {
        // Taken back; its name may come again.
        may_lack += files.back().may_lack;
        files.pop_back();
    } else if (Behind(line, "file_io: close log_file=")) {
        if (!files.empty()) files.back().closed = true;
    } else if (Behind(line, "file_io: flush compress_buf data to log file fail")) {
        may_lack += kBuffer;
        all_may_lack += kBuffer;
        ++sums.closings;
    } else if (const auto count = Behind(line, "write_handler: drop ")) {
        dropped += std::stoull(*count);
    } else if (const auto rest = Behind(line, "quarn: drop ")) {
        dropped += std::stoull(*rest);
    } else if (const auto removed = Behind(line, "LogFileRecycler: remove file ")) {
        recycled.insert(Key(*removed));
        ++sums.recycled;
    } else if (const auto path = Behind(line, "Power-on log: start writing log to ")) {
        power_on = *path;
    } else if (Behind(line, "PowerOnLogWrite: Error ") ||
               Behind(line, "PowerOnLogDeInit: Error ")) {
        power_on_failed = true;
    }
}

// --- what the files hold

bool Account::Meet(KnownStream& known, const std::vector<uint8_t>& raw, uint64_t most,
                   const std::string& path) {
    if (known.Take(raw.data(), raw.size())) return true;
    const uint64_t before = known.position();
    const bool found = known.SkipTo(raw.data(), raw.size());
    const uint64_t gap = known.position() - before;
    if (found && gap <= most && known.Take(raw.data(), raw.size())) {
        skipped += gap;
        return true;
    }
    report.Fault((found
                      ? "a hole of " + std::to_string(gap) + " bytes, of which the log tells "
                      : "bytes that are damaged, twice there or out of order, and the log tells ") +
                 std::to_string(most) + " at most: " + path + ", byte " + std::to_string(before) +
                 " of the stream of seed " + std::to_string(stream_seed));
    return found && known.Take(raw.data(), raw.size());
}

void Account::Verify(File& file, bool may_be_torn) {
    if (!file.fd) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ReadLog();  // by now it tells why there is no such file
        if (!recycled.contains(Key(file.path))) report.Fault("no such file: " + file.path);
        ++sums.unread;
        (files.size() > 1 ? files[1].may_lack : may_lack) += file.may_lack + kFile;
        return;
    }
    muxz::FileSource source(file.fd.get());
    muxz::Header header;
    if (muxz::ReadHeader(source, header) != muxz::HeaderState::kWhole) {
        if (!may_be_torn) report.Fault("no whole header: " + file.path);
        return;
    }
    ++sums.files;
    muxz::BlockReader blocks(source, header.length);
    muxz::Block block;
    std::vector<uint8_t> raw;
    skipped = 0;
    while (blocks.Next(block)) {
        raw.resize(block.lengths.raw_length);
        if (!blocks.Unpack(block, raw.data()) || !Meet(*stream, raw, file.may_lack, file.path)) {
            break;
        }
        file.may_lack = 0;  // holes are in front of a file, never within one
        sums.kept += raw.size();
    }
    sums.given_up += skipped;
    const muxz::End end = blocks.end();
    if (end == muxz::End::kWhole || end == muxz::End::kStrayByte) return;
    ++sums.torn;
    if (may_be_torn && (end == muxz::End::kCutBlock || end == muxz::End::kCutLengths)) return;
    report.Fault("torn: " + file.path + " at " + std::to_string(blocks.offset()) + ": " +
                 blocks.reason());
}

// The power-on log is what the captures hold, from the front on.
void Account::CheckPowerOnLog(Ending how) {
    if (power_on.empty()) return;
    const muxz::Fd fd(open(power_on.c_str(), O_RDONLY | O_CLOEXEC));
    muxz::FileSource source(fd.get());
    muxz::Header header;
    if (!fd || muxz::ReadHeader(source, header) != muxz::HeaderState::kWhole) {
        report.Fault("no power-on log");
        return;
    }
    KnownStream front(stream_seed);
    muxz::BlockReader blocks(source, header.length);
    muxz::Block block;
    std::vector<uint8_t> raw;
    while (blocks.Next(block)) {
        raw.resize(block.lengths.raw_length);
        if (!blocks.Unpack(block, raw.data()) || !Meet(front, raw, all_may_lack, power_on)) return;
        sums.power_on += raw.size();
    }
    uint8_t last = 1;
    if (blocks.end() == muxz::End::kStrayByte) source.ReadAt(blocks.offset(), &last, 1);
    if (how != Ending::kKilled && !power_on_failed && last != 0) {
        report.Fault("the power-on log has no end: " + blocks.reason());
    }
}

// --- the end

void Account::End(Ending how, uint64_t delivered) {
    ReadLog();
    while (!files.empty()) {
        Verify(files.front(), how == Ending::kKilled && files.size() == 1);
        files.pop_front();
    }
    waiting = 0;
    CheckPowerOnLog(how);
    AccountForTheRest(how, delivered);
}

void Account::AccountForTheRest(Ending how, uint64_t delivered) {
    const uint64_t met = stream->position();
    const uint64_t missing = delivered - std::min(met, delivered);
    const uint64_t most = (how == Ending::kKilled ? kRing + 2 * kBuffer : dropped) + may_lack;
    if (met > delivered || missing < dropped || missing > most) {
        report.Fault("the modem handed over " + std::to_string(delivered) + " bytes, and " +
                     std::to_string(met) + " are accounted for; the log tells of " +
                     std::to_string(dropped) + " dropped; at most " + std::to_string(most) +
                     " may be missing");
        return;
    }
    sums.dropped += dropped;
    uint64_t& left = how == Ending::kKilled ? sums.killed
                     : may_lack != 0        ? sums.given_up
                                            : sums.behind_exit;
    left += missing - dropped;
}

}  // namespace soak
