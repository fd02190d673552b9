// Accounts for every byte that one process of the daemon took from the modem. The seed determines
// the modem's stream. The daemon's log shows the order of the files, and which bytes it gave up.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sim/modem.h"
#include "tests/soak/phone.h"
#include "tests/support.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/tree.h"

namespace fs = std::filesystem;

namespace soak {

inline constexpr uint64_t kMiB = 1 << 20;
inline constexpr uint64_t kWrite = kMiB;  // the most bytes of one write
// Bytes of the stream that a process may hold while no file has them yet:
//   - kRing: the ring, and one chunk that the reader is putting into it
//   - kBuffer: a full buffer of blocks. A second one may be in the middle of a write. The stream
//     does not compress to less than a fifth (kMostPacking).
inline constexpr uint64_t kRing = 16 * kMiB + 64 * 1024;
inline constexpr uint64_t kMostPacking = 5;
inline constexpr uint64_t kBuffer = kMiB * kMostPacking;
inline constexpr uint64_t kFile = 4 * kMiB * kMostPacking;  // of the largest file

// Returns the word after `mark` in a line, if `mark` is there.
inline std::optional<std::string> Behind(const std::string& line, std::string_view mark) {
    const size_t at = line.find(mark);
    if (at == std::string::npos) return std::nullopt;
    const size_t start = at + mark.size();
    return line.substr(start, line.find(' ', start) - start);
}

// The part of a log file's name that never changes.
inline std::string Stem(const fs::path& path) {
    const std::string name = path.filename();
    return name.substr(0, name.find_first_of(".E"));
}

// The parts of a folder's and a file's name that never change.
inline std::string Key(const fs::path& path) {
    const std::string folder = path.parent_path().filename();
    return folder.substr(0, folder.find_last_of("0123456789") + 1) + "/" + Stem(path);
}

// Opens a log file, also if the daemon has renamed it or its folder.
inline muxz::Fd OpenRenamed(const fs::path& path) {
    if (muxz::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)); fd) return fd;
    const fs::path folder = muxz::FindRenamed(path.parent_path());
    for (const std::string& name : test::List(folder)) {
        if (Stem(name) == Stem(path)) {
            return muxz::Fd(open((folder / name).c_str(), O_RDONLY | O_CLOEXEC));
        }
    }
    return {};
}

inline uint64_t SizeOf(const muxz::Fd& fd) {
    struct stat status = {};
    fstat(fd.get(), &status);
    return static_cast<uint64_t>(status.st_size);
}

struct Folder : muxz::Capture {
    std::vector<muxz::LogFile> files;  // by index
};

// The stream of a seed, and a position in it.
class KnownStream {
  public:
    explicit KnownStream(uint64_t seed) : source(sim::MakeGeneratedSource(seed)) {}

    // Finds these bytes at the position or after it, and moves the position to their end. Returns
    // the number of bytes between the position and them, or nothing if they do not come within
    // 400 MiB.
    std::optional<uint64_t> Meet(const std::vector<uint8_t>& bytes) {
        constexpr size_t kFar = 400 * kMiB;
        const size_t needle = std::min<size_t>(bytes.size(), 2048);
        size_t gap = 0;
        Extend(bytes.size());
        if (memcmp(ahead.data(), bytes.data(), bytes.size()) != 0) {
            const void* found = nullptr;
            for (size_t from = 0; found == nullptr; from += kMiB) {
                if (from == kFar) return std::nullopt;
                Extend(from + kMiB + needle);
                found = memmem(ahead.data() + from, kMiB + needle, bytes.data(), needle);
            }
            gap = static_cast<size_t>(static_cast<const uint8_t*>(found) - ahead.data());
            Extend(gap + bytes.size());
            if (memcmp(ahead.data() + gap, bytes.data(), bytes.size()) != 0) return std::nullopt;
        }
        ahead.erase(ahead.begin(), ahead.begin() + static_cast<ptrdiff_t>(gap + bytes.size()));
        at += gap + bytes.size();
        return gap;
    }

    uint64_t position() const { return at; }

  private:
    void Extend(size_t size) {
        const size_t have = ahead.size();
        if (have >= size) return;
        ahead.resize(size);
        source->Read(ahead.data() + have, size - have);
    }

    const std::unique_ptr<sim::LogSource> source;
    std::vector<uint8_t> ahead;  // read from the source, from the position on
    std::atomic<uint64_t> at = 0;
};

// The account of one process.
class Account {
  public:
    Account(Report& out, uint64_t seed, const std::string& log)
        : report(out), stream_seed(seed), log_path(log), stream(seed) {}

    // Reads the new lines of the daemon's log and verifies one closed file. Returns false if there
    // is none.
    bool Follow() {
        ReadLog();
        const bool closed = !files.empty() && files.front().closed;
        if (closed) {
            Verify(std::move(files.front()), stream, Tail::kWhole);
            files.pop_front();
        }
        uint64_t bytes = 0;
        for (const File& file : files) bytes += SizeOf(file.fd);
        waiting = bytes;
        open_end = may_lack != 0;
        return closed;
    }

    // Called after the process has ended. `delivered` is the number of bytes that it got from the
    // modem.
    void End(bool killed, uint64_t delivered) {
        ReadLog();
        may_lack_file = killed;
        while (!files.empty()) {
            const bool last = killed && files.size() == 1;
            Verify(std::move(files.front()), stream, last ? Tail::kMayBeTorn : Tail::kWhole);
            files.pop_front();
        }
        if (!power_on.empty()) {
            // It holds a prefix of what the captures hold.
            KnownStream prefix(stream_seed);
            const bool any = killed || power_on_failed;
            if (muxz::Fd fd(open(power_on.c_str(), O_RDONLY | O_CLOEXEC)); fd || !any) {
                Verify({std::move(fd), power_on, true, all_may_lack}, prefix,
                       any ? Tail::kAny : Tail::kZero);
            }
        }
        const uint64_t met = stream.position();
        const uint64_t missing = delivered - std::min(met, delivered);
        const uint64_t most = (killed ? kRing + 2 * kBuffer : dropped) + may_lack;
        if (met > delivered || missing < dropped || missing > most) {
            report.Fault("the modem handed over " + std::to_string(delivered) + " bytes, and " +
                         std::to_string(met) + " are accounted for; the log reports " +
                         std::to_string(dropped) + " dropped; at most " + std::to_string(most) +
                         " may be missing");
            return;
        }
        report.Add("bytes dropped by an exit, as the log counts them", dropped);
        report.Add(killed ? "bytes lost by kills" : "bytes given up, as the log reports",
                   missing - dropped);
    }

    // Verifies the files of the process's captures that still exist. Each file continues where the
    // file before it ended, unless files between them are missing. Only the newest file may end
    // anywhere.
    void VerifyLeft(const std::vector<Folder>& folders, uint32_t next_folder) {
        KnownStream left(stream_seed);
        bool complete = true;
        for (const Folder& folder : folders) {
            complete = complete && folder.index == next_folder;
            uint32_t next_file = 0;
            for (const muxz::LogFile& file : folder.files) {
                complete = complete && file.index == next_file;
                const bool newest = &folder == &folders.back() && &file == &folder.files.back();
                const fs::path path = folder.path() + "/" + file.name;
                Verify({muxz::Fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)), path, true,
                        complete ? 0 : UINT64_MAX},
                       left, newest ? Tail::kAny : Tail::kWhole);
                complete = true;
                next_file = file.index + 1;
            }
            // A recycled file may have been this folder's last.
            const std::string any = Key(fs::path(folder.path()) / "");
            const auto gone = recycled.lower_bound(any);
            complete = gone == recycled.end() || !gone->starts_with(any);
            next_folder = folder.index + 1;
        }
    }

    // Returns true if the log mentions a capture of this index.
    bool Mentions(uint32_t index) const { return mentioned.contains(index); }

    // Deletes a log file of this process. The account includes its bytes. Thread-safe.
    void Delete(const fs::path& path) {
        muxz::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        std::lock_guard lock(deleted_mutex);
        if (!fd || unlink(path.c_str()) != 0) return;
        report.Add("files deleted");
        if (verified.contains(Key(path))) return;
        const uint64_t size = SizeOf(fd);
        deleted.insert_or_assign(Key(path), Deleted{std::move(fd), size});
    }

    // Bytes of the stream that are verified, and bytes of files that are not. Thread-safe.
    uint64_t position() const { return stream.position(); }
    uint64_t backlog() const { return waiting; }
    // Returns true if a close failed to write its buffer and no file was opened after it. How many
    // bytes that cost is not known yet.
    bool ends_in_a_gap() const { return open_end; }

  private:
    struct File {
        muxz::Fd fd;
        std::string path;
        bool closed;
        uint64_t may_lack;                  // bytes that the log allows to be missing before it
        std::optional<uint64_t> told = {};  // its size when it was deleted, by the log
    };
    struct Deleted {
        muxz::Fd fd;
        uint64_t size;  // when it was deleted
    };
    // How a file may end. The power-on log ends with a zero byte.
    enum class Tail { kWhole, kMayBeTorn, kZero, kAny };
    void ReadLog() {
        std::ifstream in(log_path, std::ios::binary);
        in.seekg(log_at);
        for (std::string piece; std::getline(in, piece);) {
            partial += piece;
            log_at += static_cast<std::streamoff>(piece.size());
            if (in.eof()) return;  // the daemon has not written the rest of the line yet
            ++log_at;
            TakeLine(std::exchange(partial, ""));
        }
    }

    void TakeLine(const std::string& line) {
        // Clients choose the text of requests.
        if (line.find("command_handler: receive req=") != std::string::npos) return;
        if (const auto index = Behind(line, "/" + std::string(quarn::log_names::kPrefix))) {
            mentioned.insert(static_cast<uint32_t>(strtoul(index->c_str(), nullptr, 10)));
        }
        if (const auto opened = Behind(line, "file_io: open log_file=")) {
            if (line.find("fail, errno") != std::string::npos) return;
            files.push_back({OpenRenamed(*opened), *opened, false,
                             // After an exit dropped bytes, a host tool may start the writer again.
                             std::exchange(may_lack, 0) + std::exchange(dropped, 0)});
        } else if (line.find(" header fail") != std::string::npos && !files.empty()) {
            // The daemon removes the file, and may use its name again.
            may_lack += files.back().may_lack;
            files.pop_back();
        } else if (const auto lost = Behind(line, " was deleted, ");
                   lost && Behind(line, "file_io: log_file=")) {
            if (!files.empty()) files.back().told = std::stoull(*lost);
        } else if (Behind(line, "file_io: close log_file=")) {
            if (!files.empty()) files.back().closed = true;
        } else if (Behind(line, "file_io: flush compress_buf data to log file fail")) {
            may_lack += kBuffer;
            all_may_lack += kBuffer;
            report.Add("closes that could not write");
        } else if (const auto count = Behind(line, "write_handler: drop ")) {
            dropped += std::stoull(*count);
        } else if (const auto rest = Behind(line, "quarn: drop ")) {
            dropped += std::stoull(*rest);
        } else if (const auto removed = Behind(line, "LogFileRecycler: remove file ")) {
            recycled.insert(Key(*removed));
            report.Add("files recycled");
        } else if (const auto path = Behind(line, "Power-on log: start writing log to ")) {
            power_on = *path;
        } else if (Behind(line, "PowerOnLogWrite: Error ") ||
                   Behind(line, "PowerOnLogDeInit: Error ")) {
            power_on_failed = true;
        }
    }

    // Returns true if this program deleted the file, and puts its descriptor into `file`. It is a
    // fault if the daemon wrote to it later, or if the log does not report the loss of an open
    // file.
    bool TakeDeleted(File& file) {
        std::lock_guard lock(deleted_mutex);
        verified.insert(Key(file.path));
        auto entry = deleted.extract(Key(file.path));
        if (!entry) {
            if (file.told) report.Fault("reported as deleted, but was not: " + file.path);
            return false;
        }
        Deleted& gone = entry.mapped();
        file.fd = std::move(gone.fd);
        const uint64_t size = SizeOf(file.fd);
        // One write may have been in progress.
        const uint64_t most = gone.size + (file.told || !file.closed ? kWrite : 0);
        if (size > most || (file.told && *file.told != size)) {
            report.Fault("deleted with " + std::to_string(gone.size) + " bytes, it has " +
                         std::to_string(size) + " and the log reports " +
                         std::to_string(file.told.value_or(0)) + ": " + file.path);
        }
        if (file.told) report.Add("files deleted while they were open, as the log reports");
        return true;
    }

    // Allows the file after the one that is being verified to lack these bytes, too.
    void MayLackNext(uint64_t bytes) { (files.size() > 1 ? files[1].may_lack : may_lack) += bytes; }

    // Checks that the file continues `known`, and that it ends as `tail` allows.
    void Verify(File&& file, KnownStream& known, Tail tail) {
        const bool in_captures = &known == &stream;
        const bool was_deleted = in_captures && TakeDeleted(file);
        if (!file.fd) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ReadLog();  // the log now shows why the file does not exist
            // The kill may have come between the recycler's removal and its message.
            if (!recycled.contains(Key(file.path)) && !std::exchange(may_lack_file, false)) {
                report.Fault("no such file: " + file.path);
            }
            report.Add("files recycled before they were read");
            MayLackNext(file.may_lack + kFile);
            return;
        }
        muxz::FileSource source(file.fd.get());
        muxz::Header header;
        if (muxz::ReadHeader(source, header) != muxz::HeaderState::kWhole) {
            report.Add("files without a whole header");
            if (tail == Tail::kWhole || tail == Tail::kZero) {
                report.Fault("no whole header: " + file.path);
            }
            return;
        }
        muxz::BlockReader blocks(source, header.length);
        muxz::Block block;
        std::vector<uint8_t> raw;
        bool empty = true;
        for (uint64_t most = file.may_lack; blocks.Next(block); empty = false) {
            raw.resize(block.lengths.raw_length);
            if (!blocks.Unpack(block, raw.data())) break;
            const uint64_t at = known.position();
            const auto gap = known.Meet(raw);
            if (!gap || *gap > most) {
                report.Fault((gap ? "a gap of " + std::to_string(*gap)
                                  : "damaged, doubled or out of order, and not a gap of") +
                             " bytes, where the log allows " + std::to_string(most) +
                             " at most: " + file.path + ", byte " + std::to_string(at) +
                             " of the stream of seed " + std::to_string(stream_seed));
            }
            if (!gap) break;
            report.Add(was_deleted   ? "bytes in deleted files"
                       : in_captures ? "bytes kept"
                                     : "bytes compared a second time",
                       raw.size());
            if (in_captures) report.Add("bytes given up, as the log reports", *gap);
            // Gaps are before a file, never within it. The power-on log alone has all of them.
            most = in_captures ? 0 : most - std::min(most, *gap);
        }
        if (in_captures && empty) MayLackNext(file.may_lack);
        report.Add("files");
        const muxz::End end = blocks.end();
        uint8_t last = 1;
        if (end == muxz::End::kStrayByte) source.ReadAt(blocks.offset(), &last, 1);
        if (tail == Tail::kAny || (tail == Tail::kZero && last == 0)) return;
        const bool whole = end == muxz::End::kWhole || end == muxz::End::kStrayByte;
        if (tail != Tail::kZero && whole) return;
        if (end == muxz::End::kCutBlock || end == muxz::End::kCutLengths) {
            report.Add("files torn");
            if (tail == Tail::kMayBeTorn) return;
        }
        report.Fault("ends as it may not: " + file.path + " at " + std::to_string(blocks.offset()) +
                     ": " + blocks.reason());
    }

    Report& report;
    const uint64_t stream_seed;
    const std::string log_path;
    KnownStream stream;
    std::string partial;  // of the log's last line
    std::streamoff log_at = 0;
    std::deque<File> files;  // in the order of the stream
    uint64_t may_lack = 0;   // for the next file
    uint64_t all_may_lack = 0;
    bool may_lack_file = false;
    std::set<std::string> recycled;
    std::set<uint32_t> mentioned;  // indices of captures
    std::mutex deleted_mutex;
    std::set<std::string> verified;
    std::map<std::string, Deleted> deleted;  // not yet verified
    uint64_t dropped = 0;
    std::string power_on;  // the path of the power-on log, once there is one
    bool power_on_failed = false;
    std::atomic<uint64_t> waiting = 0;
    std::atomic<bool> open_end = false;
};

}  // namespace soak
