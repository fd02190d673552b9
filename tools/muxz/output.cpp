#include "tools/muxz/output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "storage/log_names.h"
#include "tools/muxz/listing.h"
#include "tools/muxz/messages.h"

namespace muxz {

namespace {

constexpr size_t kBufferSize = size_t{512} * 1024;

}  // namespace

Output::Output(const std::string& path) : name(path.empty() ? "standard output" : path) {
    if (path.empty()) return;
    file = Fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file) Fail();
    fd = file.get();
}

uint8_t* Output::Room(size_t size) {
    if (capacity - used < size) {
        Flush();
        if (capacity < size) {
            capacity = std::max(size, kBufferSize);
            buffer.reset(new uint8_t[capacity]);
        }
    }
    return buffer.get() + used;
}

void Output::Flush() {
    Write({buffer.get(), used});
    used = 0;
}

void Output::Write(Bytes bytes) {
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

void Output::Close() {
    Flush();
    if (file && !file.Close()) Fail();
}

void Output::Fail() {
    fprintf(stderr, "muxz: %s: %s\n", PrintablePath(name).c_str(), strerror(errno));
    exit(kUsageOrIo);
}

bool MayTakeBinary(const char* command, const std::string& output_path) {
    if (!output_path.empty() || isatty(STDOUT_FILENO) == 0) return true;
    fprintf(
        stderr,
        "muxz %s: the raw stream is binary and not for a terminal: name a file with -o FILE, or "
        "send it on through a pipe\n",
        command);
    return false;
}

bool MayOverwrite(const std::string& path, const Model& model, Messages& messages) {
    char real[PATH_MAX];  // `path` may be a link to a log file
    const std::string name(LastComponent(realpath(path.c_str(), real) != nullptr ? real : path));
    const bool is_log = quarn::log_names::ParseFile(name) || name == quarn::log_names::kPowerOnLog;
    struct stat out, in;
    if (stat(path.c_str(), &out) != 0) return true;
    const std::vector<const FileFacts*> files = model.Files();
    const bool is_input = std::any_of(files.begin(), files.end(), [&](const FileFacts* file) {
        const std::string& read = file->kept ? file->kept->container : file->path;
        return stat(read.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino;
    });
    if (!is_input && !is_log) return true;
    messages.IoError(path, "is a log file, it is not overwritten");
    return false;
}

}  // namespace muxz
