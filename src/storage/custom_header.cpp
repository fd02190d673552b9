#include "storage/custom_header.h"

#include <android-base/properties.h>
#include <limits.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/quarn_log.h"

namespace quarn::zorvex {

namespace {

constexpr size_t kEntryHeaderSize = 1 + 2;  // type + length
constexpr size_t kMaxValueSize = UINT16_MAX;
constexpr std::string_view kTag = "ZORVEXHEADERINFO";
constexpr const char* kRadioVersionLink = "/mnt/vendor/modem_img/images/default";
constexpr std::string_view kHardwareIdProperty = "ro.boot.cdt_hwid";

std::array<uint8_t, 1024> header_info;
std::atomic<size_t> header_info_used{0};

// Returns the target of the link to the firmware image, which is the name of the firmware version,
// or an empty string if there is no link.
std::string GetRadioVersion() {
    std::array<char, PATH_MAX> target;
    const ssize_t length = readlink(kRadioVersionLink, target.data(), target.size());
    if (length < 0) {
        QUARN_LOGE("%s: Error reading symbolic link: %s", "GetRadioVersion", strerror(errno));
        return {};
    }
    std::string version(target.data(), static_cast<size_t>(length));
    QUARN_LOGD("Custom header: radio version is %s", version.c_str());
    return version;
}

std::string GetHardwareId() {
    const int name_length = static_cast<int>(kHardwareIdProperty.size());
    std::string id = android::base::GetProperty(std::string(kHardwareIdProperty), "");
    if (id.empty()) {
        QUARN_LOGD("Custom header: value of property %.*s is not found", name_length,
                   kHardwareIdProperty.data());
        QUARN_LOGE("Custom header: failed to get platform data");
    } else {
        QUARN_LOGD("Custom header: property %.*s is %s", name_length, kHardwareIdProperty.data(),
                   id.c_str());
    }
    return id;
}

}  // namespace

void AppendInfoToBuffer(CustomHeaderInfoType type, std::string_view value) {
    const int type_number = static_cast<int>(type);
    if (value.size() > kMaxValueSize) {
        QUARN_LOGE("Custom header: the value length %zu of type %d is too large", value.size(),
                   type_number);
        return;
    }
    const size_t used = header_info_used.load(std::memory_order_relaxed);
    const size_t entry_size = kEntryHeaderSize + value.size();
    if (used + entry_size > header_info.size()) {
        QUARN_LOGE("Custom header: custom header info buffer is full");
        return;
    }
    uint8_t* const entry = header_info.data() + used;
    entry[0] = static_cast<uint8_t>(type);
    entry[1] = static_cast<uint8_t>(value.size());
    entry[2] = static_cast<uint8_t>(value.size() >> 8);
    memcpy(entry + kEntryHeaderSize, value.data(), value.size());
    header_info_used.store(used + entry_size, std::memory_order_release);
    QUARN_LOGI("Custom header: append type %d info successfully", type_number);
}

void CustomHeaderInfoInit() {
    header_info_used.store(0, std::memory_order_release);
    AppendInfoToBuffer(CustomHeaderInfoType::kTag, kTag);
    if (const std::string version = GetRadioVersion(); !version.empty()) {
        AppendInfoToBuffer(CustomHeaderInfoType::kRadioVersion, version);
    }
    if (const std::string id = GetHardwareId(); !id.empty()) {
        AppendInfoToBuffer(CustomHeaderInfoType::kHardwareId, id);
    }
    QUARN_LOGI("Custom header: initialize successfully");
}

void GetCustomHeaderInfo(CUSTOM_HEADER_INFO& out) {
    const size_t used = header_info_used.load(std::memory_order_acquire);
    out.present = used != 0 ? 1 : 0;
    out.length = static_cast<uint16_t>(used);
    out.data = used != 0 ? header_info.data() : nullptr;
}

}  // namespace quarn::zorvex
