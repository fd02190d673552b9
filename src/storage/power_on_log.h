// The power-on log: a copy of the stored stream of the daemon's first minute, kept in a file of its
// own beside the capture folders, of the same format as any log file and ended by one zero byte.
//
// States: 0 not initialised -> `PowerOnLogInit` -> 1 initialised -> the first new capture folder ->
// 2 writing -> 60 s, the size bound, a failed write or a stop -> 3 stopped, for good. The file
// stays open until the next write or the de-initialisation, whichever comes first, gives it its
// end. A file that somebody deleted is closed, without one, by the next write, which stops too.
//
// One mutex, the power-on mutex, guards it all. A stop joins the event thread while it holds this
// mutex, and that thread, or whom it waits for, may want it. So while a stop is under way only
// another stop waits for the mutex: everybody else does without, and acts as in state 3. Inside it
// only `md_info_mutex` and the event thread's own mutex are taken.
#pragma once

#include <ctime>

namespace quarn::zorvex {

constexpr const char* kPowerOnLogPath = "/data/vendor/radio/quarn/logs/power_on_log.muxz";

// Once at start-up: starts the thread that waits for the end of the first minute.
void PowerOnLogInit();
// A capture folder was created at `folder_time` (0: not known): begins the file, if that has not
// been done. Runs under `io_mutex` of `g_file_io`.
void PowerOnLogStart(time_t folder_time = 0);
// The bytes that have just gone to the current log file: whole blocks, with `last` and one stray
// byte behind them, which is left out. Runs under `io_mutex`.
void PowerOnLogWrite(char const* buf, unsigned int len, bool last);
// Ends the first minute early, joining its thread: lasts as long as the end of the minute does,
// when that is just being handled. The caller holds none of the locks that a flush of all buffers
// takes.
void PowerOnLogStop();
// Once at shut-down: stops, and ends the file.
void PowerOnLogDeInit();

// The thread's body: waits for the end of the first minute; then the log filter manager leaves its
// power-on phase, and all buffers are flushed.
void PowerOnEventDetectThreadEntry();

}  // namespace quarn::zorvex
