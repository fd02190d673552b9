#include "core/setting_table.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "control/protocol.h"
#include "control/transfer_type.h"
#include "core/path_utility.h"
#include "platform/quarn_log.h"
#include "storage/quarn_file_io.h"

namespace quarn::zorvex {

namespace {

int32_t GetFileSize(int* mb) {
    *mb = g_file_io.get_file_size();
    return 0;
}

int32_t SetFileSize(int mb) { return g_file_io.set_file_size(mb); }

constexpr const char* RecycleTitle(QUARN_RECYCLE_OPT option) {
    switch (option) {
        case RECYCLE_OPT_SIZE:
            return "recycle size";
        case RECYCLE_OPT_EE:
            return "recycle ee";
        case RECYCLE_OPT_KEEP_EE_SIZE:
            return "keep ee";
    }
    return "";
}

template <QUARN_RECYCLE_OPT kOption>
int32_t GetRecycle(int* value) {
    unsigned int current = 0;
    const int rc = g_file_io.get_recycle_option(kOption, &current);
    if (rc != 0) QUARN_LOGE("[Error] Get default %s fail, rc=%d\n", RecycleTitle(kOption), rc);
    *value = static_cast<int>(current);
    return rc;
}

template <QUARN_RECYCLE_OPT kOption>
int32_t SetRecycle(int value) {
    return g_file_io.set_recycle_option(kOption, static_cast<unsigned int>(value));
}

}  // namespace

constexpr std::array<Setting, 10> kSettings = {{
    {"transfer_type", SettingKind::kNumber, SAVE_MODE_STORAGE, quarn_getTransferType,
     quarn_setTransferType, "transfer type"},
    {"file_size", SettingKind::kNumber, 50, GetFileSize, SetFileSize, "file size", "(MB)"},
    {"recycle_size", SettingKind::kNumber, 2500, GetRecycle<RECYCLE_OPT_SIZE>,
     SetRecycle<RECYCLE_OPT_SIZE>, "recycle size", "(MB)"},
    {"recycle_ee", SettingKind::kNumber, 1, GetRecycle<RECYCLE_OPT_EE>, SetRecycle<RECYCLE_OPT_EE>,
     "recycle ee"},
    {"recycle_keep_ee_size", SettingKind::kNumber, 0, GetRecycle<RECYCLE_OPT_KEEP_EE_SIZE>,
     SetRecycle<RECYCLE_OPT_KEEP_EE_SIZE>, "keep ee size", "(MB)"},
    {"log_mode", SettingKind::kNumber},
    {"log_folder", SettingKind::kText},
    {"log_level", SettingKind::kStrictNumber},
    {"log_filter", SettingKind::kText},
    {"flush_interval", SettingKind::kStrictNumber},
}};

namespace {

// Returns true if no key is a part of another key. A key is found wherever its text stands first in
// the file, so a load would take the line of the longer key for the line of the shorter one.
constexpr bool NoKeyLiesInAnother() {
    for (const Setting& outer : kSettings) {
        for (const Setting& inner : kSettings) {
            const bool inside =
                std::string_view(outer.key).find(inner.key) != std::string_view::npos;
            if (&outer != &inner && inside) return false;
        }
    }
    return true;
}
static_assert(NoKeyLiesInAnother());

constexpr size_t kMaxNumberSize = 32;  // bytes, with blanks and all that follows the digits

// Returns the size, in bytes, of a file in which every setting has its longest value.
constexpr size_t LargestFile() {
    size_t size = 0;
    for (const Setting& setting : kSettings) {
        // A line is the key, a blank, the value and a newline. A request is as long as its line
        // without the newline.
        constexpr size_t kMaxRequest = protocol::kMaxRequest;
        const size_t longest = std::string_view(setting.key).size() + 1 + kMaxNumberSize;
        size += (setting.kind == SettingKind::kText ? kMaxRequest : longest) + 1;
    }
    return size;
}
static_assert(LargestFile() <= kMaxLoadSize);

// Returns true if strict reading takes the value. Blanks before the number are allowed.
bool IsPlainNumber(std::string_view value) {
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    const char* const end = value.data() + value.size();
    int number;
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    return error == std::errc{} && stop == end;
}

}  // namespace

std::string WhyNotKept(std::string_view key, std::string_view value) {
    if (HasControlCharacter(value)) return "holds a control character";
    SettingKind kind = SettingKind::kText;
    for (const Setting& setting : kSettings) {
        if (value.find(setting.key) != std::string_view::npos) {
            return "holds the key " + std::string(setting.key);
        }
        if (setting.key == key) kind = setting.kind;
    }
    if (kind == SettingKind::kText) return value.starts_with(' ') ? "begins with a blank" : "";
    if (value.size() > kMaxNumberSize) return "is too long";
    if (kind == SettingKind::kStrictNumber && !IsPlainNumber(value)) return "is not a plain number";
    return "";
}

}  // namespace quarn::zorvex
