// The power-on log is a second copy of the blocks that go to the log files during the daemon's
// first minute. It is one file beside the capture folders. Its format is that of a log file, and
// its last byte is a zero.
//
// States:
// - 0, not initialised. `PowerOnLogInit` changes the state to 1.
// - 1, initialised. `PowerOnLogStart` creates the file and changes the state to 2.
// - 2, writing. At 50 MiB, or after a failed write, the state changes to 3. If the file was deleted
//   or cut, the next write closes it without the zero byte and changes the state to 3.
// - 3, stopped. States 1 and 2 change to 3 at the end of the first minute, or at a stop. The next
//   `PowerOnLogWrite`, or `PowerOnLogDeInit`, then appends the zero byte and closes the file, if it
//   is still open.
//
// The power-on mutex guards the state and the file. PowerOnLogStop joins the event thread while it
// holds this mutex, although the event thread locks the mutex at its end. To avoid a deadlock,
// every other caller fails to lock the mutex while a stop runs, and behaves as if the log were
// stopped. Only another stop waits for the mutex. A thread that holds the mutex locks at most two
// others: `md_info_mutex`, and the mutex on which the event thread waits.
#pragma once

#include <ctime>

namespace quarn::zorvex {

constexpr const char* kPowerOnLogPath = "/data/vendor/radio/quarn/logs/power_on_log.muxz";

// Enters state 1 and starts the event thread (`quarn_power_on`), which waits for the end of the
// first minute. If the thread cannot be created, enters state 3, and the log filter manager leaves
// its power-on phase at once. Called once at start-up.
void PowerOnLogInit();
// Creates the file in state 1, if the transfer type is storage. Called for each new capture folder.
// `folder_time` is the folder's creation time, or 0 if not known.
// REQUIRES: io_mutex of `g_file_io` is held.
void PowerOnLogStart(time_t folder_time = 0);
// Appends `len` bytes of whole blocks that were just written to the current log file. If `last` is
// set, a stray byte follows the blocks; `len` counts it, but it is not copied.
// REQUIRES: io_mutex of `g_file_io` is held.
void PowerOnLogWrite(char const* buf, unsigned int len, bool last);
// Ends the first minute early and joins the event thread. If the thread is already handling the end
// of the minute, waits until it has finished.
// REQUIRES: the caller holds none of the locks that a flush of all buffers takes, such as
// `flush_interval_mutex`, `exec_mutex` and `io_mutex`.
void PowerOnLogStop();
// Stops the power-on log and closes the file. Called once at shut-down.
void PowerOnLogDeInit();

// The body of the event thread. At the end of the first minute it makes the log filter manager
// leave its power-on phase, flushes all buffers and enters state 3.
void PowerOnEventDetectThreadEntry();

}  // namespace quarn::zorvex
