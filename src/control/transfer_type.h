// The transfer type: where the log stream goes, and the switch from one type to another.
#pragma once

#include "core/quarn_global.h"

// Switches the transfer type. Returns 0 on success, -1 on refusal. Takes `command_mutex`, and
// `exec_mutex` inside it. REQUIRES: the caller holds neither `io_mutex` nor `exec_mutex`.
int quarn_setTransferType(int type);
// Stores the transfer type in `*type`. Always returns 0. Takes `command_mutex`: it waits for a
// switch that is under way. The data path reads `QUARN_GLOBAL::transfer_type` instead.
int quarn_getTransferType(int* type);

namespace quarn::zorvex {

// Adapts the power-on log to a switch of the transfer type. A switch from storage to a host ends
// the power-on log. A switch in either direction sets the modem's early log filter; the modem
// defines the meaning of the values. Sends up to two AT commands. REQUIRES: the caller holds
// neither `io_mutex` nor `exec_mutex`.
void HandleTransferTypeSwitch(QUARN_SAVE_MODE old_type, QUARN_SAVE_MODE new_type);

}  // namespace quarn::zorvex
