// The modem's flush interval, and flushing all buffers between the modem and the log files.
#pragma once

#include <cstdint>

namespace quarn::zorvex {

// Stores the configured flush interval, in ms. Sends nothing to the modem. Always returns 0.
int32_t SetFlushIntervalConfig(int interval);

// Sends the flush interval, in ms, to the modem and stores it as the configured one. Returns false
// and stores nothing if the modem refuses it. Takes `flush_interval_mutex`.
bool SetFlushInterval(int ms);

// Makes the modem send the data that it holds. Then makes the writer drain the ring and write all
// blocks to the current file. Takes `flush_interval_mutex` and then `exec_mutex`, never both at
// once. REQUIRES: the caller holds neither.
void FlushLogBuffers();

}  // namespace quarn::zorvex
