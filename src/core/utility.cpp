#include "core/utility.h"

#include <charconv>
#include <cstring>
#include <system_error>

#include "core/quarn_handle.h"
#include "platform/quarn_log.h"
#include "storage/quarn_file_io.h"

namespace quarn::zorvex {

namespace {

// Returns the start of the key's value, or null if the key is missing. Also returns null, with a
// warning, if nothing but blanks follows the key on its line.
const char* FindValue(const char* text, const char* key) {
    const char* value = std::strstr(text, key);
    if (value == nullptr) return nullptr;
    value += std::strlen(key);
    while (*value == ' ' || *value == '\t') ++value;
    if (*value != '\0' && *value != '\n') return value;
    QUARN_LOGW("The value of config %s is missing in the file", key);
    return nullptr;
}

}  // namespace

bool ParseStringConfig(const char* text, const char* key, std::string& out) {
    const char* const value = FindValue(text, key);
    if (value == nullptr) return false;
    const char* const end = std::strchr(value, '\n');
    if (end == nullptr) {
        QUARN_LOGW("Config %s ends without a newline in the file", key);
        return false;
    }
    out.assign(value, end);
    return true;
}

bool ParseIntConfig(const char* text, const char* key, int& out) {
    const char* const value = FindValue(text, key);
    if (value == nullptr) return false;
    const auto [end, error] = std::from_chars(value, value + std::strlen(value), out);
    if (error == std::errc::invalid_argument) {
        QUARN_LOGW("The value of config %s is invalid", key);
        return false;
    }
    if (error == std::errc::result_out_of_range) {
        QUARN_LOGW("The value of config %s is out of range", key);
        return false;
    }
    if (*end != '\n') {
        QUARN_LOGW("Config %s ends without a newline in the file", key);
        return false;
    }
    return true;
}

bool ParseLogFolderConfig(const char* text, std::string& folder) {
    folder.clear();
    return ParseStringConfig(text, "log_folder", folder);
}

// If anything but a newline follows the level, the level counts as not read but `level` keeps the
// number. Then a load applies both the level and the filter, in this order.
bool ParseLogFilterConfig(const char* text, int& level, std::string& filter) {
    level = -1;
    filter.clear();
    return ParseIntConfig(text, "log_level", level) ||
           ParseStringConfig(text, "log_filter", filter);
}

bool ParseFlushIntervalConfig(const char* text, int& interval) {
    interval = 0;
    return ParseIntConfig(text, "flush_interval", interval);
}

int32_t SetLogFolderConfig(const std::string& folder) {
    if (folder.empty() || folder == g_file_io.get_log_folder()) return 0;
    if (g_file_io.set_log_folder(folder) < 0) {
        QUARN_LOGW("Fail to set log folder %s from config file", folder.c_str());
    }
    return 0;
}

int32_t SetLogFilterConfig(int level, std::string& filter) {
    if (level != -1 && quarn_request(HANDLE_LOG_FILTER_MANAGER, EXEC_SET_LOG_LEVEL, &level) != 0) {
        QUARN_LOGW("Fail to set log level %d from config file", level);
    }
    if (!filter.empty() &&
        quarn_request(HANDLE_LOG_FILTER_MANAGER, EXEC_SET_LOG_FILTER, filter.data()) != 0) {
        QUARN_LOGW("Fail to set log filter %s from config file", filter.c_str());
    }
    return 0;
}

int32_t SetLogModeConfig(int mode) {
    const QUARN_EXEC_ID exec_id = mode != 0 ? EXEC_MD_LOG_START : EXEC_MD_LOG_STOP;
    if (quarn_request(HANDLE_LOG_FILTER_MANAGER, exec_id, nullptr) != 0) {
        QUARN_LOGW("Fail to set log mode %d from config", mode);
    }
    return 0;
}

}  // namespace quarn::zorvex
