// The power-on log: a copy of the stored stream of the daemon's first minute, kept in a file of its
// own beside the capture folders (log_names.h), of the same format as any log file.
//
// States: 0 not initialised -> `PowerOnLogInit` -> 1 initialised -> the first new capture folder ->
// 2 writing -> 60 s, the size bound, a failed write or a stop -> 3 stopped, for good.
#pragma once

namespace quarn::zorvex {

// Once at start-up: starts the thread that waits for the end of the first minute.
void PowerOnLogInit();
// A capture folder was opened: begins the file, if that has not been done.
void PowerOnLogStart();
// The bytes that have just gone to the current log file: whole blocks, with `last` and one stray
// byte behind them, which is left out.
void PowerOnLogWrite(char const* buf, unsigned int len, bool last);
// Ends the first minute early, joining its thread.
void PowerOnLogStop();
// Once at shut-down: stops, and ends the file.
void PowerOnLogDeInit();

// The thread's body.
void PowerOnEventDetectThreadEntry();

// The modem's non-volatile early-log-filter setting, over AT commands; true on success.
bool GetPowerOnLogFilterEnableNvramCfg(int& value);
bool SetPowerOnLogFilterEnableNvramCfg(int value);

}  // namespace quarn::zorvex
