#include "sim/android_log.h"

#include <android/log.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

namespace sim {

namespace {

std::mutex& mutex = *new std::mutex;  // guards the next three; never destroyed
std::string& path = *new std::string;
int log_fd = -1;
bool shown = false;

void OpenLog() { log_fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644); }

void Rotate() {
    close(log_fd);
    rename(path.c_str(), (path + ".old").c_str());
    OpenLog();
}

// Returns the start of a line: "11-23 07:39:41.123  2631  2631 I QUARN   : ".
std::string Front(int priority, const char* tag) {
    constexpr std::string_view kLetters = "??VDIWEF";
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);
    const auto letter = static_cast<size_t>(priority);
    char front[160];
    snprintf(front, sizeof(front), "%s.%03ld %5d %5ld %c %-8.64s: ", stamp, now.tv_nsec / 1'000'000,
             getpid(), syscall(SYS_gettid), letter < kLetters.size() ? kLetters[letter] : '?', tag);
    return front;
}

void Keep(const __android_logger_data* of, const char* message) {
    const std::string front = Front(of->priority, of->tag != nullptr ? of->tag : "");
    std::string_view text = message != nullptr ? message : "";
    while (text.ends_with('\n')) text.remove_suffix(1);
    std::string lines;
    do {
        const size_t end = std::min(text.find('\n'), text.size());
        lines.append(front).append(text.substr(0, end)).append("\n");
        text.remove_prefix(std::min(end + 1, text.size()));
    } while (!text.empty());
    std::lock_guard lock(mutex);
    if (log_fd != -1 && lseek(log_fd, 0, SEEK_END) > kMostLog) Rotate();
    // One write for each message, so that a program that follows the file reads whole lines. If the
    // disk is full, the lines are lost.
    [[maybe_unused]] ssize_t put = log_fd == -1 ? 0 : write(log_fd, lines.data(), lines.size());
    if (shown) put = write(STDERR_FILENO, lines.data(), lines.size());
}

// Runs before `main`, so that the file gets every line.
[[maybe_unused]] const bool kept = [] {
    const char* const name = getenv(kLogVariable);
    if (name == nullptr || *name == '\0') return false;
    path = name;
    shown = getenv(kShowLogVariable) != nullptr;
    OpenLog();
    __android_log_set_logger(Keep);
    return true;
}();

}  // namespace

void KeepAndroidLog() {}

}  // namespace sim
