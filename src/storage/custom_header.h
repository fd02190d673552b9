// The custom header: a block of device information that every log file carries in its header.
//
// Packed entries: type 1 + length 2 (little-endian) + value, 1024 bytes at most. Built once at
// start-up on the main thread; the used count is published after the bytes, so any thread may read.
#pragma once

#include <string_view>

#include "platform/qrx_log_format.h"

namespace quarn::zorvex {

enum class CustomHeaderInfoType : uint8_t {
    kTag = 0,           // "ZORVEXHEADERINFO", always the first entry
    kRadioVersion = 1,  // modem firmware
    kHardwareId = 2,    // board
};

// Rebuilds the block from empty. What the device does not tell is left out.
void CustomHeaderInfoInit();
// Appends one entry, or drops it with an error line when it does not fit.
void AppendInfoToBuffer(CustomHeaderInfoType type, std::string_view value);
// Fills `out` with the block's address and length; the bytes stay where they are.
void GetCustomHeaderInfo(CUSTOM_HEADER_INFO& out);

}  // namespace quarn::zorvex
