// The modem's early-log-filter setting. It applies until the modem gets a log level or a filter.
#pragma once

namespace quarn::zorvex {

// Read and write the setting with an AT command each. The modem keeps it in non-volatile memory.
// Return true on success. On failure `value` is -1.
bool GetPowerOnLogFilterEnableNvramCfg(int& value);
bool SetPowerOnLogFilterEnableNvramCfg(int value);

}  // namespace quarn::zorvex
