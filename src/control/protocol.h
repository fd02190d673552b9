// What the daemon and its clients agree on. Programs that talk to the daemon include this header
// too, so it holds constants only. docs/control-protocol.md tells how they are used.
#pragma once

#include <array>
#include <cstddef>

namespace quarn::protocol {

// Names of the sockets in the abstract namespace.
constexpr const char* kCommandSocket = "/dev/quarn_server.socket";
constexpr const char* kNotifySocket = "/dev/quarn_callback_server.socket";
constexpr int kMaxClients = 10;  // of each socket at a time

constexpr size_t kMaxRequest = 127;  // bytes, the NUL among them
constexpr size_t kReplySize = 128;   // bytes of every reply, filled up with NULs

// Names of values, indexed by the value. They stand in messages; requests and replies carry
// numbers.
constexpr std::array<const char*, 4> kTransferTypes = {"usb", "storage", "socket", "exit"};
constexpr std::array<const char*, 3> kLogModes = {"disable", "streaming", "wrapping"};
constexpr std::array<const char*, 7> kLogLevels = {"all_off",    "moderate",    "standard", "slim",
                                                   "ultra slim", "pls_ps_only", "low_power"};
constexpr int kFilterInForce = -1;  // in place of a log level

// Notifications: the word, a comma, the value (kReboot has none), a NUL.
constexpr const char* kLogModeChanged = "cb_log_mode";
constexpr const char* kTransferTypeChanged = "cb_transfer_type";
constexpr const char* kReboot = "cb_reboot";

}  // namespace quarn::protocol
