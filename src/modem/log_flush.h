// The modem's flush interval, and flushing everything that is buffered on the way to the files.
#pragma once

#include <cstdint>

namespace quarn::zorvex {

// Remembers the configured flush interval, in ms; always 0. The modem is not told.
int32_t SetFlushIntervalConfig(int interval);

// Sets the modem's flush interval, in ms, and remembers it as the configured one; false, with
// nothing remembered, when the modem refuses. Takes `flush_interval_mutex`.
bool SetFlushInterval(int ms);

// Has the modem hand over what it holds, and the writer put all of it into the current file. Takes
// `flush_interval_mutex` and then `exec_mutex`, never both at once; the caller must hold neither.
void FlushLogBuffers();

}  // namespace quarn::zorvex
