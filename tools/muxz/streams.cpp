// muxz cat, verify and recover: what goes through the blocks of files.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "storage/log_names.h"
#include "tools/muxz/commands.h"
#include "tools/muxz/header.h"
#include "tools/muxz/input.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/recovery.h"
#include "tools/muxz/tree.h"

namespace muxz {

namespace {

// Where the raw stream goes. An error of it ends the program with status 2: nothing that follows
// could be of use.
class Output {
  public:
    explicit Output(const std::string& path) : name(path.empty() ? "standard output" : path) {
        if (path.empty()) return;
        file = Fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (!file) Fail();
        fd = file.get();
    }

    // Room for `size` bytes, to be filled and then told to `Filled`.
    uint8_t* Room(size_t size) {
        if (capacity - used < size) {
            Flush();
            if (capacity < size) {
                capacity = std::max(size, kBufferSize);
                buffer.reset(new uint8_t[capacity]);
            }
        }
        return buffer.get() + used;
    }
    void Filled(size_t size) { used += size; }
    void Flush() {
        Write({buffer.get(), used});
        used = 0;
    }
    void Write(Bytes bytes) {
        while (!bytes.empty()) {
            const ssize_t written = write(fd, bytes.data(), bytes.size());
            if (written >= 0) {
                bytes = bytes.subspan(static_cast<size_t>(written));
            } else if (errno == EAGAIN) {
                pollfd ready{fd, POLLOUT, 0};
                poll(&ready, 1, -1);
            } else if (errno != EINTR) {
                Fail();
            }
        }
    }
    // A file system may tell only now that it had no room.
    void Close() {
        Flush();
        if (file && !file.Close()) Fail();
    }

  private:
    static constexpr size_t kBufferSize = size_t{512} * 1024;

    [[noreturn]] void Fail() {
        fprintf(stderr, "muxz: %s: %s\n", PrintablePath(name).c_str(), strerror(errno));
        exit(kUsageOrIo);
    }

    const std::string name;
    Fd file;
    int fd = STDOUT_FILENO;
    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    size_t used = 0;
};

// An existing log must not be lost by a slip of the arguments.
bool MayOverwrite(const std::string& path, const Input& input, Messages& messages) {
    char real[PATH_MAX];  // a link may lead to one
    const std::string name(LastComponent(realpath(path.c_str(), real) != nullptr ? real : path));
    const bool is_log = quarn::log_names::ParseFile(name) || name == quarn::log_names::kPowerOnLog;
    if (!input.Holds(path) && !(is_log && access(path.c_str(), F_OK) == 0)) return true;
    messages.IoError(path, "is a log file, it is not overwritten");
    return false;
}

}  // namespace

int Cat(const std::vector<std::string>& paths, const std::string& output_path) {
    Messages messages(!output_path.empty() || isatty(STDOUT_FILENO) == 0);
    Input input(messages);
    bool any = false;
    for (const std::string& path : paths) any = input.Add(path, false) || any;
    if (!any) return messages.status;
    if (!output_path.empty() && !MayOverwrite(output_path, input, messages)) return messages.status;
    Output output(output_path);
    uint64_t done = 0;
    input.Visit([&](const OpenLog& log) {
        FileSource source(log.fd);
        Header header;
        if (!TakeHeader(source, log, header, messages)) return true;
        BlockReader reader(source, header.length);
        Block block;
        while (reader.Next(block)) {
            const size_t raw = block.lengths.raw_length;
            if (!reader.Unpack(block, output.Room(raw))) break;
            output.Filled(raw);
            messages.progress.At(done + block.offset);
        }
        done += reader.offset();
        TellEnd(reader, log, messages, "; the rest of the file is left out (try muxz recover)");
        return true;
    });
    output.Close();
    return messages.status;
}

int Verify(const std::vector<std::string>& paths) {
    Messages messages(true);
    Input input(messages);
    for (const std::string& path : paths) {
        if (!input.Add(path, true) || messages.status != kFine) return messages.status;
    }
    uint64_t files = 0, blocks = 0, raw = 0, done = 0;
    input.Visit([&](const OpenLog& log) {
        ++files;
        FileSource source(log.fd);
        Header header;
        if (!TakeHeader(source, log, header, messages)) return messages.status == kFine;
        BlockReader reader(source, header.length);
        Block block;
        while (reader.Next(block) && reader.Check(block)) {
            ++blocks;
            raw += block.lengths.raw_length;
            messages.progress.At(done + block.offset);
        }
        done += reader.offset();
        TellEnd(reader, log, messages, "");
        return messages.status == kFine;
    });
    if (messages.status == kFine)
        printf("%" PRIu64 " files, %" PRIu64 " blocks, %" PRIu64
               " raw bytes: every block is good\n",
               files, blocks, raw);
    return messages.status;
}

int RecoverFile(const std::string& path, const std::string& output_path) {
    constexpr uint64_t kMostGapsTold = 100;
    Messages messages(!output_path.empty() || isatty(STDOUT_FILENO) == 0);
    std::string why;
    const Fd fd = OpenRegular(AT_FDCWD, path, why);
    if (!fd) {
        messages.IoError(path, why);
        return messages.status;
    }
    Input input(messages);
    input.Add(path, false);
    if (!output_path.empty() && !MayOverwrite(output_path, input, messages)) return messages.status;
    struct stat info;
    if (fstat(fd.get(), &info) == 0) messages.progress.Expect(static_cast<uint64_t>(info.st_size));
    Output output(output_path);

    uint64_t gaps_told = 0;
    FileSource source(fd.get());
    const Recovery result = Recover(
        source, {.block =
                     [&](uint64_t offset, Bytes raw) {
                         memcpy(output.Room(raw.size()), raw.data(), raw.size());
                         output.Filled(raw.size());
                         messages.progress.At(offset);
                     },
                 .gap =
                     [&](Gap gap) {
                         if (++gaps_told > kMostGapsTold) return;
                         messages.Note(path, "offset " + std::to_string(gap.offset) + ": skipped " +
                                                 std::to_string(gap.length) + " bytes");
                     },
                 .progress = [&](uint64_t offset) { messages.progress.At(offset); }});
    output.Close();

    if (gaps_told > kMostGapsTold)
        messages.Note(path, std::to_string(gaps_told - kMostGapsTold) + " more gaps");
    const bool cut = result.ends_cut && result.gaps == 1;
    std::string summary = std::to_string(result.blocks) + " blocks, " +
                          std::to_string(result.raw_bytes) + " raw bytes recovered; " +
                          std::to_string(result.skipped) + " bytes skipped in " +
                          std::to_string(result.gaps) + " places";
    if (result.header != HeaderState::kWhole) summary += "; " + std::string(Text(result.header));
    if (result.ends_cut) summary += "; the file ends within a block";
    if (result.trailing > 1)
        summary += "; " + std::to_string(result.trailing) + " bytes of a block at the end";
    messages.Note(path, summary);
    if (result.error != 0) {
        messages.IoError(path,
                         "offset " + std::to_string(result.end) + ": " + strerror(result.error));
    } else if (result.gaps != 0 && !(cut && MayBeOpen(path))) {
        messages.status = std::max(messages.status, kFaults);
    }
    return messages.status;
}

}  // namespace muxz
