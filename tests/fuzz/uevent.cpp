// Fuzz target: a device event. The datagram has any bytes, and ends with the two NULs that the
// receiver adds.
#include <cstring>

#include "fuzz.h"
#include "modem/quarn_event_detect.h"

void fuzz::SetUp() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string message = std::string(fuzz::Text(data, size)) + std::string(2, '\0');
    // A buffer of exactly this size, so that the sanitizer sees a read behind its end.
    const std::vector<char> buffer(message.begin(), message.end());
    event_info info;
    const QUARN_EVENT event = QUARN_EVENT_DETECT_HANDLE::parse_uevent(buffer.data(), &info);

    for (const char* text : {info.device_name, info.action, info.subsystem}) {
        fuzz::Check(text == nullptr || (text > buffer.data() && text < &buffer.back()),
                    "texts lie in the message");
    }
    if (event == EVENT_NONE) return 0;
    fuzz::Check(info.subsystem != nullptr && strcmp(info.subsystem, "vqmi") == 0,
                "an event is one of the modem's");
    fuzz::Check(info.device_name != nullptr && info.action != nullptr, "of a device");
    const bool removed = event == EVENT_MD_LOG_PORT_REMOVED;
    fuzz::Check(strcmp(info.action, removed ? "remove" : "add") == 0, "it says what happened");
    fuzz::Check(strcmp(info.device_name, removed ? "wwanD0MDLog" : "wwanD0MIPC0") == 0, "to what");
    return 0;
}
