// Constants of the protocol between the daemon and its clients. Clients include this header too, so
// it holds nothing but constants. docs/control-protocol.md describes the protocol.
#pragma once

#include <array>
#include <cstddef>

namespace quarn::protocol {

// Names of the sockets in the abstract namespace.
constexpr const char* kCommandSocket = "/dev/quarn_server.socket";
constexpr const char* kNotifySocket = "/dev/quarn_callback_server.socket";
constexpr int kMaxClients = 10;  // of each socket at the same time

constexpr size_t kMaxRequest = 127;  // bytes, with the NUL
constexpr size_t kReplySize = 128;   // bytes of every reply, padded with NULs

// The names of values, indexed by the value. Messages hold these names; requests and replies hold
// numbers.
constexpr std::array<const char*, 4> kTransferTypes = {"usb", "storage", "socket", "exit"};
constexpr std::array<const char*, 3> kLogModes = {"disable", "streaming", "wrapping"};
constexpr std::array<const char*, 7> kLogLevels = {"all_off",    "moderate",    "standard", "slim",
                                                   "ultra slim", "pls_ps_only", "low_power"};
// The reply to "log_level" if the modem runs with a log filter instead of a level.
constexpr int kFilterInForce = -1;

// Notifications. A notification is one of these words, a comma, the value and a NUL. kReboot has
// neither comma nor value.
constexpr const char* kLogModeChanged = "cb_log_mode";
constexpr const char* kTransferTypeChanged = "cb_transfer_type";
constexpr const char* kReboot = "cb_reboot";

}  // namespace quarn::protocol
