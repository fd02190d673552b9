// Accounts for every byte that a process of the daemon took from the modem. The modem's stream is
// known from its seed; the daemon's own log tells which file came after which and where something
// was given up.
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
inline constexpr uint64_t kWrite = kMiB;  // most that a file gets at once
// What a process may hold that no file has yet: the ring and a chunk on its way there; a full
// buffer of blocks, and one that was being written, of a stream that packs at most so many times.
inline constexpr uint64_t kRing = 16 * kMiB + 64 * 1024;
inline constexpr uint64_t kMostPacking = 5;
inline constexpr uint64_t kBuffer = kMiB * kMostPacking;
inline constexpr uint64_t kFile = 4 * kMiB * kMostPacking;  // none is set to be larger

// What stands behind `mark` in a line, up to a blank.
inline std::optional<std::string> Behind(const std::string& line, std::string_view mark) {
    const size_t at = line.find(mark);
    if (at == std::string::npos) return std::nullopt;
    const size_t start = at + mark.size();
    return line.substr(start, line.find(' ', start) - start);
}

// What never changes in the name of a log file.
inline std::string Stem(const fs::path& path) {
    const std::string name = path.filename();
    return name.substr(0, name.find_first_of(".E"));
}

// Folder and file by what never changes in their names.
inline std::string Key(const fs::path& path) {
    const std::string folder = path.parent_path().filename();
    return folder.substr(0, folder.find_last_of("0123456789") + 1) + "/" + Stem(path);
}

// A log file that may have got its final names meanwhile.
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

// The stream that a seed makes, and how far it has been met.
class KnownStream {
  public:
    explicit KnownStream(uint64_t seed) : source(sim::MakeGeneratedSource(seed)) {}

    // Goes on behind these bytes where they come next, and tells how many were left out in front of
    // them; goes nowhere when they are not within some 400 MB.
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
    std::vector<uint8_t> ahead;  // what was made of it and not yet met
    std::atomic<uint64_t> at = 0;
};

enum class Ending { kAtRest, kUnderLoad, kKilled };

// Of one process.
class Account {
  public:
    Account(Report& out, uint64_t seed, const std::string& log)
        : report(out), stream_seed(seed), log_path(log), stream(seed) {}

    // Takes up what the log tells and verifies one file that was closed; false when there is none.
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

    // After the process has ended; `delivered` is what the modem handed over to it.
    void End(Ending how, uint64_t delivered) {
        ReadLog();
        while (!files.empty()) {
            const bool last = how == Ending::kKilled && files.size() == 1;
            Verify(std::move(files.front()), stream, last ? Tail::kMayBeTorn : Tail::kWhole);
            files.pop_front();
        }
        if (!power_on.empty()) {
            // It is what the captures hold, from the front on.
            KnownStream front(stream_seed);
            Verify({muxz::Fd(open(power_on.c_str(), O_RDONLY | O_CLOEXEC)), power_on, true,
                    all_may_lack},
                   front, how == Ending::kKilled || power_on_failed ? Tail::kAny : Tail::kZero);
        }
        const uint64_t met = stream.position();
        const uint64_t missing = delivered - std::min(met, delivered);
        const uint64_t most = (how == Ending::kKilled ? kRing + 2 * kBuffer : dropped) + may_lack;
        if (met > delivered || missing < dropped || missing > most) {
            report.Fault("the modem handed over " + std::to_string(delivered) + " bytes, and " +
                         std::to_string(met) + " are accounted for; the log tells of " +
                         std::to_string(dropped) + " dropped; at most " + std::to_string(most) +
                         " may be missing");
            return;
        }
        report.Add("bytes dropped by an exit, as the log counts them", dropped);
        report.Add(how == Ending::kKilled ? "bytes lost by sudden ends"
                                          : "bytes given up, as the log tells",
                   missing - dropped);
    }

    // Deletes a log file of this process, whose bytes are accounted for all the same. Any thread
    // may call it.
    void Delete(const fs::path& path) {
        muxz::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        std::lock_guard lock(deleted_mutex);
        if (!fd || unlink(path.c_str()) != 0) return;
        report.Add("files deleted");
        if (verified.contains(Key(path))) return;
        const uint64_t size = SizeOf(fd);
        deleted.insert_or_assign(Key(path), Deleted{std::move(fd), size});
    }

    // Bytes of the stream gone by, and bytes on storage still to be verified. Any thread may ask.
    uint64_t position() const { return stream.position(); }
    uint64_t backlog() const { return waiting; }
    // A closing could not write, and no file was opened since: how much that cost is not yet known.
    bool ends_in_a_gap() const { return open_end; }

  private:
    struct File {
        muxz::Fd fd;
        std::string path;
        bool closed;
        uint64_t may_lack;                  // bytes that, by the log, may be missing in front of it
        std::optional<uint64_t> told = {};  // bytes that went with it, by the log
    };
    struct Deleted {
        muxz::Fd fd;
        uint64_t size;  // when it was
    };
    // How a file may end. The power-on log is closed by a zero byte.
    enum class Tail { kWhole, kMayBeTorn, kZero, kAny };
    void ReadLog() {
        std::ifstream in(log_path, std::ios::binary);
        in.seekg(log_at);
        for (std::string piece; std::getline(in, piece);) {
            partial += piece;
            log_at += static_cast<std::streamoff>(piece.size());
            if (in.eof()) return;  // the rest of the line is still to come
            ++log_at;
            TakeLine(std::exchange(partial, ""));
        }
    }

    void TakeLine(const std::string& line) {
        // Requests are somebody else's text.
        if (line.find("command_handler: receive req=") != std::string::npos) return;
        if (const auto opened = Behind(line, "file_io: open log_file=")) {
            if (line.find("fail, errno") != std::string::npos) return;
            files.push_back({OpenRenamed(*opened), *opened, false,
                             // A writer that the host started again goes on behind an exit's drop.
                             std::exchange(may_lack, 0) + std::exchange(dropped, 0)});
        } else if (line.find(" header fail") != std::string::npos && !files.empty()) {
            // Taken back; its name may come again.
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

    // Whether a file that was deleted got no write more, and whether the log tells its loss if it
    // was open. Keeps it readable.
    bool TakeDeleted(File& file) {
        std::lock_guard lock(deleted_mutex);
        verified.insert(Key(file.path));
        auto entry = deleted.extract(Key(file.path));
        if (!entry) {
            if (file.told) report.Fault("told as deleted, which it was not: " + file.path);
            return false;
        }
        Deleted& gone = entry.mapped();
        file.fd = std::move(gone.fd);
        const uint64_t size = SizeOf(file.fd);
        // One write may have been under way.
        const uint64_t most = gone.size + (file.told || !file.closed ? kWrite : 0);
        if (size > most || (file.told && *file.told != size)) {
            report.Fault("deleted with " + std::to_string(gone.size) + " bytes, it has " +
                         std::to_string(size) + " and the log tells of " +
                         std::to_string(file.told.value_or(0)) + ": " + file.path);
        }
        if (file.told) report.Add("files deleted that were told");
        return true;
    }

    // For the file behind the one that is verified.
    void MayLackNext(uint64_t bytes) { (files.size() > 1 ? files[1].may_lack : may_lack) += bytes; }

    // Whether the file holds what `known` goes on with, and ends as it may.
    void Verify(File&& file, KnownStream& known, Tail tail) {
        const bool in_captures = &known == &stream;
        const bool was_deleted = in_captures && TakeDeleted(file);
        if (!file.fd) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ReadLog();  // by now it tells why there is no such file
            if (!recycled.contains(Key(file.path))) report.Fault("no such file: " + file.path);
            report.Add("files recycled before they were read");
            MayLackNext(file.may_lack + kFile);
            return;
        }
        muxz::FileSource source(file.fd.get());
        muxz::Header header;
        if (muxz::ReadHeader(source, header) != muxz::HeaderState::kWhole) {
            if (tail != Tail::kMayBeTorn) report.Fault("no whole header: " + file.path);
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
                report.Fault((gap ? "a hole of " + std::to_string(*gap)
                                  : "damaged, doubled or out of order, and not a hole of") +
                             " bytes, of which the log tells " + std::to_string(most) +
                             " at most: " + file.path + ", byte " + std::to_string(at) +
                             " of the stream of seed " + std::to_string(stream_seed));
            }
            if (!gap) break;
            report.Add(was_deleted   ? "bytes in deleted files"
                       : in_captures ? "bytes kept"
                                     : "bytes in power-on logs",
                       raw.size());
            if (in_captures) report.Add("bytes given up, as the log tells", *gap);
            // Holes are in front of a file, never within one; but one power-on log has all of them.
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
    std::string partial;  // the log's last line so far
    std::streamoff log_at = 0;
    std::deque<File> files;  // in the order of the stream
    uint64_t may_lack = 0;   // for the next file
    uint64_t all_may_lack = 0;
    std::set<std::string> recycled;
    std::mutex deleted_mutex;
    std::set<std::string> verified;
    std::map<std::string, Deleted> deleted;  // not yet verified
    uint64_t dropped = 0;
    std::string power_on;  // the path, once it is written to
    bool power_on_failed = false;
    std::atomic<uint64_t> waiting = 0;
    std::atomic<bool> open_end = false;
};

}  // namespace soak
