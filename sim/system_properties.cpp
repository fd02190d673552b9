// The property functions of a phone's C library, over libbase's property store.
#include "platform/system_properties.h"

#include <android-base/properties.h>

#include <cstring>
#include <mutex>
#include <string>

#include "sim/restart.h"

namespace {

std::mutex property_mutex;  // libbase's property store on a workstation has no lock

}  // namespace

extern "C" {

int __system_property_set(const char* name, const char* value) {
    if (name == nullptr || *name == '\0') return -1;
    const std::string text = value != nullptr ? value : "";
    if (text.size() >= PROP_VALUE_MAX) return -1;
    {
        std::lock_guard lock(property_mutex);
        if (!android::base::SetProperty(name, text)) return -1;
    }
    sim::PropertySet(name, text);
    return 0;
}

int __system_property_get(const char* name, char* value) {
    std::string text;
    if (name != nullptr) {
        std::lock_guard lock(property_mutex);
        text = android::base::GetProperty(name, "").substr(0, PROP_VALUE_MAX - 1);
    }
    memcpy(value, text.c_str(), text.size() + 1);
    return static_cast<int>(text.size());
}

}  // extern "C"
