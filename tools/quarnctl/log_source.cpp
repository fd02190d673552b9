#include "log_source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "screen.h"

namespace quarnctl {

namespace {

constexpr size_t kPiece = 16 << 10;  // bytes
// 4 MiB. A large log is read in several calls, so that the caller can handle signals between them.
constexpr int kMostPieces = 256;
constexpr size_t kLongestLine = 64 << 10;  // bytes; the Android log's own limit is below 5 KiB
// Exit statuses of a shell that cannot run a program.
constexpr int kNotFound = 127;
constexpr int kNotAllowed = 126;

constexpr const char* kNoLogcat =
    "there is no logcat to read the daemon's reports with: name the log with --log FILE, or pipe "
    "it in with --log -";
constexpr const char* kWhoMay = "; may this user read it? root and the shell of adb may";

[[noreturn]] void BecomeLogcat(int out, bool follow) {
    setpgid(0, 0);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    // exec wants arguments that are not const.
    char name[] = "logcat", format[] = "-v", threadtime[] = "threadtime", only[] = "-s",
         tag[] = "QUARN:I", dump[] = "-d";
    char* arguments[] = {name,
                         format,
                         threadtime,
                         follow ? only : dump,
                         follow ? tag : only,
                         follow ? nullptr : tag,
                         nullptr};
    execvp(name, arguments);
    execv("/system/bin/logcat", arguments);
    _exit(errno == ENOENT ? kNotFound : kNotAllowed);
}

}  // namespace

LogSource::LogSource(std::string path, bool follow) : from(std::move(path)), follows(follow) {
    if (IsLogcat()) {
        StartLogcat();
    } else if (from == "-") {
        fd = Descriptor(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
        if (fd.get() < 0) {
            trouble = std::string("cannot read standard input: ") + strerror(errno);
            ended = true;
        }
    } else {
        OpenFile();
    }
}

LogSource::~LogSource() { EndLogcat(); }

void LogSource::StartLogcat() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        trouble = std::string("cannot run logcat: ") + strerror(errno);
        ended = true;
        return;
    }
    fd = Descriptor(ends[0]);
    const Descriptor out(ends[1]);
    logcat = fork();
    if (logcat == 0) BecomeLogcat(out.get(), follows);
    if (logcat < 0) trouble = std::string("cannot run logcat: ") + strerror(errno);
    // The child does this, too. Either may come first, and EndLogcat needs the group.
    if (logcat > 0) setpgid(logcat, logcat);
}

void LogSource::EndLogcat() {
    if (logcat <= 0) return;
    // Not SIGTERM: a stopped or hanging logcat would not end, and waitpid would block.
    kill(-logcat, SIGKILL);
    int status = 0;
    while (waitpid(logcat, &status, 0) < 0 && errno == EINTR) {
    }
    logcat = -1;
}

void LogSource::OpenFile() {
    // Opening a named pipe without O_NONBLOCK waits for a writer.
    Descriptor file(open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) {
        trouble = "cannot open " + from + ": " + strerror(errno);
        ended = !follows;
        return;
    }
    trouble.clear();
    fd = std::move(file);
}

bool LogSource::BeginsAnew(const std::function<void(std::string_view)>& take) {
    struct stat named, opened;
    if (stat(from.c_str(), &named) != 0) return false;
    if (fd.get() >= 0) {
        if (fstat(fd.get(), &opened) != 0 || !S_ISREG(opened.st_mode)) return false;
        if (named.st_dev == opened.st_dev && named.st_ino == opened.st_ino) {
            if (opened.st_size >= lseek(fd.get(), 0, SEEK_CUR)) return false;
            pending.clear();
            return lseek(fd.get(), 0, SEEK_SET) == 0;
        }
        // Lines may have come between the last read of the old file and its replacement.
        while (ReadPiece(take)) {
        }
        if (!pending.empty()) take(std::exchange(pending, ""));
    }
    OpenFile();
    return fd.get() >= 0;
}

void LogSource::Read(const std::function<void(std::string_view)>& take) {
    if (ended) return;
    if (fd.get() < 0 && (IsLogcat() || from == "-" || !BeginsAnew(take))) return;
    ReadPieces(take);
    if (at_end && follows && !ended && BeginsAnew(take)) ReadPieces(take);
}

void LogSource::ReadPieces(const std::function<void(std::string_view)>& take) {
    for (int i = 0; i < kMostPieces && ReadPiece(take); ++i) {
    }
}

// Returns true if there may be more.
bool LogSource::ReadPiece(const std::function<void(std::string_view)>& take) {
    pollfd ready = {fd.get(), POLLIN, 0};
    if (poll(&ready, 1, 0) <= 0) return false;
    std::array<char, kPiece> piece;
    const ssize_t n = read(fd.get(), piece.data(), piece.size());
    if (n < 0) {
        if (errno == EINTR) return true;
        if (errno == EAGAIN) return false;
        trouble = "cannot read " + from + ": " + strerror(errno);
    }
    if (n <= 0) {
        AtEnd(take);
        return false;
    }
    at_end = false;
    pending.append(piece.data(), static_cast<size_t>(n));
    TakeLines(take);
    return true;
}

void LogSource::TakeLines(const std::function<void(std::string_view)>& take) {
    size_t begin = 0;
    for (size_t end; (end = pending.find('\n', begin)) != std::string::npos; begin = end + 1) {
        last_line = pending.substr(begin, end - begin);
        take(last_line);
    }
    pending.erase(0, begin);
    if (pending.size() > kLongestLine) pending.clear();
}

void LogSource::AtEnd(const std::function<void(std::string_view)>& take) {
    at_end = true;
    const bool goes_on = follows && !IsLogcat() && from != "-";
    if (goes_on) return;
    ended = true;
    if (!pending.empty()) take(std::exchange(pending, ""));
    if (logcat <= 0) return;
    int status = 0;
    while (waitpid(logcat, &status, 0) < 0 && errno == EINTR) {
    }
    logcat = -1;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (code == kNotFound) {
        trouble = kNoLogcat;
    } else if (code == kNotAllowed) {
        trouble = std::string("logcat may not be run") + kWhoMay;
    } else if (status != 0) {
        trouble = "logcat cannot read the log: " + Printable(last_line) + kWhoMay;
    } else if (follows) {
        trouble = "logcat has ended";
    }
}

}  // namespace quarnctl
