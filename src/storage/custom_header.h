// The custom header: a block of device information that is part of the header of every log file.
//
//   block = entry*, up to 1024 bytes
//   entry = type 1 + length 2 (little-endian) + value (length)
//
// The main thread builds the block once at start-up. GetCustomHeaderInfo is thread-safe: the used
// length is published after the bytes.
#pragma once

#include <string_view>

#include "platform/qrx_log_format.h"

namespace quarn::zorvex {

enum class CustomHeaderInfoType : uint8_t {
    kTag = 0,           // "ZORVEXHEADERINFO", always the first entry
    kRadioVersion = 1,  // version of the modem firmware
    kHardwareId = 2,    // hardware id of the board
};

// Builds the block again from the start. Information that the device does not have is left out.
void CustomHeaderInfoInit();
// Appends one entry. If it does not fit, logs an error and appends nothing.
void AppendInfoToBuffer(CustomHeaderInfoType type, std::string_view value);
// Sets `out` to the address and length of the block. The bytes are not copied and never move.
void GetCustomHeaderInfo(CUSTOM_HEADER_INFO& out);

}  // namespace quarn::zorvex
