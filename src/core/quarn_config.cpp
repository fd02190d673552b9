#include "core/quarn_config.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "core/replace_file.h"
#include "core/setting_table.h"
#include "core/utility.h"
#include "modem/log_flush.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/quarn_log.h"

namespace {

using android::base::unique_fd;
using quarn::zorvex::kMaxLoadSize;
using quarn::zorvex::kSettings;
using quarn::zorvex::Replaced;
using quarn::zorvex::ReplaceFile;
using quarn::zorvex::Setting;

constexpr const char* kDefaultConfigPath = "/vendor/etc/quarn_default.cfg";
constexpr mode_t kConfigMode = 0774;
// A save reads at most this many bytes of the file.
constexpr size_t kMaxEditSize = 64 << 10;
// Bytes. A longer line is edited in pieces of this size, each like a line of its own.
constexpr size_t kMaxLineSize = 510;
// O_NONBLOCK: if there is a pipe in place of the file, `open` must not wait for a writer.
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK;

constexpr int kDefaultFlushInterval = 600000;  // ms
constexpr int kLogModeStreaming = 1;

using ConfigText = std::array<char, kMaxLoadSize + 1>;  // ends in a NUL

// A value for each row of the table that has a setter, in the order of the rows. The elements of
// the other rows are not used.
using Numbers = std::array<int, kSettings.size()>;

// The settings of the file. A key that the file does not have has its default here.
struct Settings {
    Numbers numbers = {};
    std::string log_folder;
    int log_level = -1;
    std::string log_filter;
    int flush_interval = 0;  // ms
    int log_mode = 0;
};

unique_fd open_config(const char* path) {
    unique_fd fd(open(path, O_RDONLY | kOpenFlags));
    const int error = errno;
    if (fd < 0) QUARN_LOGE("open file: %s failed, errno=%s", path, strerror(error));
    errno = error;
    return fd;
}

// Creates the file as a copy of the factory default. Returns true if the file exists afterwards.
bool create_from_default(const char* path) {
    const unique_fd defaults(open(kDefaultConfigPath, O_RDONLY | O_CLOEXEC));
    if (defaults < 0) {
        QUARN_LOGE("open file: %s failed, errno=%s", kDefaultConfigPath, strerror(errno));
        QUARN_LOGE("no default config file");
        return false;
    }
    struct stat status;
    if (fstat(defaults, &status) != 0) {
        QUARN_LOGE("fstat file: %s failed, errno=%s", path, strerror(errno));
        return false;
    }
    const auto copy_all = [&](int fd) {
        const ssize_t copied = sendfile(fd, defaults, nullptr, static_cast<size_t>(status.st_size));
        const int error = copied < 0 ? errno : EIO;  // EIO: only a part was copied
        QUARN_LOGI("copy file expected %ld bytes, result %d bytes",
                   static_cast<long>(status.st_size), static_cast<int>(copied));
        errno = error;
        return copied == status.st_size;
    };
    const Replaced result = ReplaceFile(path, kConfigMode, copy_all);
    if (result == Replaced::kNotCreated) {
        QUARN_LOGE("create file: %s failed, errno=%s", path, strerror(errno));
    } else if (result != Replaced::kDone) {
        QUARN_LOGE("copy file failed, errno=%s", strerror(errno));
    }
    return result == Replaced::kDone || result == Replaced::kFolderNotSynced;
}

unique_fd open_or_create_config(const char* path) {
    unique_fd fd = open_config(path);
    if (fd >= 0 || errno != ENOENT || !create_from_default(path)) return fd;
    return open_config(path);
}

void close_config(unique_fd& file) {
    const int fd = file.release();
    if (close(fd) != 0) QUARN_LOGE("close fd %d fail, errno=%s", fd, strerror(errno));
}

// Reads up to kMaxLoadSize bytes of the file into `text`. Returns false, with a message, if there
// is nothing to read or reading failed.
bool read_config(const char* path, int fd, ConfigText& text) {
    if (lseek(fd, 0, SEEK_END) < 0) {
        QUARN_LOGE("lseek SEEK_END error: %s", strerror(errno));
        return false;
    }
    if (lseek(fd, 0, SEEK_SET) < 0) {
        QUARN_LOGE("lseek SEEK_SET 0 error: %s", strerror(errno));
        return false;
    }
    const ssize_t got = read(fd, text.data(), kMaxLoadSize);
    if (got < 0) QUARN_LOGE("read fail: %s", strerror(errno));
    if (got == 0) QUARN_LOGW("file %s empty", path);
    return got > 0;
}

// Leaves `value` unchanged if the key is missing. Text that is not a number counts as 0.
void read_plain_int(const char* text, const char* key, int& value) {
    const char* const found = std::strstr(text, key);
    if (found != nullptr) value = std::atoi(found + std::strlen(key));
}

void parse_settings(const char* text, Settings& settings) {
    for (size_t row = 0; row < kSettings.size(); ++row) {
        const Setting& setting = kSettings[row];
        if (setting.set == nullptr) continue;
        settings.numbers[row] = setting.default_value;
        read_plain_int(text, setting.key, settings.numbers[row]);
    }
    if (!quarn::zorvex::ParseLogFolderConfig(text, settings.log_folder)) {
        QUARN_LOGD("Log folder config is not found. Use default path as fallback.");
    }
    if (!quarn::zorvex::ParseLogFilterConfig(text, settings.log_level, settings.log_filter)) {
        QUARN_LOGD(
            "Log level/log filter config are not found. Use the default log level as fallback.");
    }
    if (!quarn::zorvex::ParseFlushIntervalConfig(text, settings.flush_interval)) {
        QUARN_LOGD("Flush interval config is not found. Use default interval as fallback.");
        settings.flush_interval = kDefaultFlushInterval;
    }
}

// Reads the numbers that are in force. A number of the file is set only if it differs from them.
int32_t read_current(Numbers& current) {
    for (size_t row = 0; row < kSettings.size(); ++row) {
        const Setting& setting = kSettings[row];
        if (setting.get == nullptr) continue;
        if (const int32_t rc = setting.get(&current[row]); rc != 0) return rc;
    }
    return 0;
}

// Stops at the first number that is refused. Returns 0, or the code of that number's setter.
int32_t apply_numbers(const Numbers& wanted, const Numbers& current) {
    for (size_t row = 0; row < kSettings.size(); ++row) {
        const Setting& setting = kSettings[row];
        if (setting.set == nullptr || wanted[row] == current[row]) continue;
        if (const int32_t rc = setting.set(wanted[row]); rc != 0) {
            QUARN_LOGE("[Error] Set %s %d%s failed, rc=%d\n", setting.title, wanted[row],
                       setting.unit, rc);
            return rc;
        }
    }
    return 0;
}

// Applies the settings that the daemon itself keeps in force. Stops at the first one that is
// refused. Returns 0, or the code of that setting's setter.
int32_t apply_own_settings(const Settings& settings, const Numbers& current) {
    int32_t rc = apply_numbers(settings.numbers, current);
    if (rc != 0) return rc;
    rc = quarn::zorvex::SetLogFolderConfig(settings.log_folder);
    if (rc != 0) {
        QUARN_LOGE("[Error] Set log folder %s failed, rc=%d\n", settings.log_folder.c_str(), rc);
        return rc;
    }
    rc = quarn::zorvex::SetFlushIntervalConfig(settings.flush_interval);
    if (rc != 0) {
        QUARN_LOGE("[Error] Set flush interval %d failed, rc=%d\n", settings.flush_interval, rc);
    }
    return rc;
}

// If the modem changes its mode, its notification reports the new mode to the log filter manager.
// If the mode is already in force there is no notification, so the manager gets the mode from here.
int32_t apply_log_mode(int mode, int modem_mode) {
    if (mode == modem_mode) {
        const int32_t rc = quarn::zorvex::SetLogModeConfig(mode);
        if (rc != 0) QUARN_LOGE("[Error] Set log mode config %d failed, rc=%d\n", mode, rc);
        return rc;
    }
    const int32_t rc = quarn_mipcSetLogMode(mode);
    if (rc == 0) return 0;
    QUARN_LOGE("[Error] Set modem log mode %d failed, rc=%d\n", mode, rc);
    return -1;
}

int32_t apply_log_filter(Settings& settings) {
    const int32_t rc = quarn::zorvex::SetLogFilterConfig(settings.log_level, settings.log_filter);
    if (rc != 0) {
        QUARN_LOGE("[Error] Set log level %d/log filter %s failed, rc=%d\n", settings.log_level,
                   settings.log_filter.c_str(), rc);
    }
    return rc;
}

int32_t apply_settings(Settings& settings, bool log_mode_only) {
    Numbers current = {};
    if (!log_mode_only) {
        if (const int32_t rc = read_current(current); rc != 0) return rc;
    }
    int modem_mode = 0;
    if (const int32_t rc = quarn_mipcGetLogMode(&modem_mode); rc != 0) {
        QUARN_LOGE("[Error] Get modem log mode failed, rc=%d\n", rc);
        return -1;
    }
    if (!log_mode_only) {
        if (const int32_t rc = apply_own_settings(settings, current); rc != 0) return rc;
    }
    if (const int32_t rc = apply_log_mode(settings.log_mode, modem_mode); rc != 0) return rc;
    if (const int32_t rc = apply_log_filter(settings); rc != 0) return rc;
    // If the modem began to stream just now, `quarn_mipcSetLogMode` has sent the interval already.
    if (modem_mode == kLogModeStreaming &&
        !quarn::zorvex::SetFlushInterval(settings.flush_interval)) {
        QUARN_LOGE("[Error] Set flush interval %d failed, rc=%d\n", settings.flush_interval, 0);
    }
    return 0;
}

// Reads the file into `text`. A missing file counts as an empty one. Returns false, with a message,
// if the file exists and cannot be read: then it must not be overwritten.
bool read_saved(std::string& text) {
    const unique_fd fd(open(kConfigPath, O_RDONLY | kOpenFlags));
    if (fd < 0 && errno == ENOENT) {
        QUARN_LOGW("saveConfig: open file: %s failed, errno=%s", kConfigPath, strerror(errno));
        return true;
    }
    if (fd < 0) {
        QUARN_LOGE("saveConfig: open file: %s failed, errno=%s", kConfigPath, strerror(errno));
        return false;
    }
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        QUARN_LOGE("saveConfig: %s is not a regular file", kConfigPath);
        return false;
    }
    text.resize(kMaxEditSize);
    size_t used = 0;
    ssize_t got = 1;
    while (got > 0 && used < text.size()) {
        got = read(fd, text.data() + used, text.size() - used);
        if (got > 0) used += static_cast<size_t>(got);
    }
    if (got < 0) {
        QUARN_LOGE("saveConfig: read file: %s failed, errno=%s", kConfigPath, strerror(errno));
        return false;
    }
    text.resize(used);
    // A damaged file may hold NULs. A load would take the first NUL for the end of the text.
    std::erase(text, '\0');
    return true;
}

bool holds_any(std::string_view line, std::span<const char* const> keys) {
    return std::any_of(keys.begin(), keys.end(),
                       [&](const char* key) { return line.find(key) != std::string_view::npos; });
}

// Returns the lines of `text`. `new_line` takes the place of each line that holds the key, or is
// appended if there is none. Lines with a displaced key are left out.
std::string edit_lines(std::string_view text, const char* key, const char* value,
                       const std::string& new_line, std::span<const char* const> displaced_keys) {
    std::string output;
    bool replaced = false;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size() - 1);
        const std::string line(text.substr(0, std::min(end + 1, kMaxLineSize)));
        text.remove_prefix(line.size());
        if (line.find(key) != std::string::npos) {
            output += new_line;
            replaced = true;
        } else if (holds_any(line, displaced_keys)) {
            QUARN_LOGD("saveConfig: %s %s replaces %s", key, value, line.c_str());
        } else {
            output += line;
        }
    }
    if (replaced) return output;
    // Without this newline, the new line would become a part of the last one.
    if (!output.empty() && output.back() != '\n') output += '\n';
    return output + new_line;
}

// Returns -1 if the new file could not be created. Returns 0 even if it could not be written and
// the old file stays: the setting is in force all the same.
int32_t write_config(const std::string& text) {
    const Replaced result = ReplaceFile(
        kConfigPath, kConfigMode, [&](int fd) { return android::base::WriteStringToFd(text, fd); });
    switch (result) {
        case Replaced::kDone:
            return 0;
        case Replaced::kNotCreated:
            QUARN_LOGE("saveConfig: open file: %s failed, errno=%s", kConfigPath, strerror(errno));
            return -1;
        case Replaced::kNotClosed:
            QUARN_LOGE("saveConfig: fclose failed, errno=%s", strerror(errno));
            return 0;
        case Replaced::kNotWritten:
        case Replaced::kFolderNotSynced:
            QUARN_LOGE("saveConfig: write fail error: %s", strerror(errno));
            return 0;
    }
    return -1;
}

}  // namespace

int32_t quarn_loadConfig(const char* path, int32_t log_mode_only) {
    unique_fd fd = open_or_create_config(path);
    if (fd < 0) return -1;
    ConfigText text = {};
    const bool has_text = read_config(path, fd, text);
    Settings settings;
    if (has_text && log_mode_only == 0) parse_settings(text.data(), settings);
    if (has_text) read_plain_int(text.data(), "log_mode", settings.log_mode);
    close_config(fd);
    return has_text ? apply_settings(settings, log_mode_only != 0) : -1;
}

int32_t quarn_command_saveConfig(const char* key, const char* value,
                                 std::span<const char* const> displaced_keys) {
    if (value == nullptr) return 0;
    const auto refuse = [&](const std::string& reason) {
        QUARN_LOGW("saveConfig: the value of %s %s and is not saved", key, reason.c_str());
        return -1;
    };
    if (const std::string reason = quarn::zorvex::WhyNotKept(key, value); !reason.empty()) {
        return refuse(reason);
    }
    std::string before;
    if (!read_saved(before)) return -1;
    const std::string new_line = std::string(key) + " " + value + "\n";
    const std::string text = edit_lines(before, key, value, new_line, displaced_keys);
    // A load would not read the end of a longer file.
    if (text.size() > kMaxLoadSize) return refuse("makes the file too long");
    return write_config(text);
}
