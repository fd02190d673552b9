// The modem's own setting for the time before it knows a wanted log level or filter.
#pragma once

namespace quarn::zorvex {

// The modem's non-volatile early-log-filter setting, over AT commands; true on success. `value` is
// -1 on failure.
bool GetPowerOnLogFilterEnableNvramCfg(int& value);
bool SetPowerOnLogFilterEnableNvramCfg(int value);

}  // namespace quarn::zorvex
