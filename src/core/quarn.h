// All of the daemon's global objects, each declared beside its type, and the report on the data
// path. For `main` and quarn.cpp, which constructs the objects; everybody else includes what it
// uses.
#pragma once

#include "control/quarn_command.h"
#include "core/quarn_global.h"
#include "core/quarn_handle.h"
#include "datapath/quarn_reader.h"
#include "datapath/quarn_ring.h"
#include "datapath/quarn_writer.h"
#include "modem/log_filter_manager.h"
#include "modem/quarn_event_detect.h"
#include "modem/quarn_md_time_sync.h"
#include "modem/quarn_notify_handler.h"
#include "modem/quarn_tool.h"
#include "storage/quarn_file_io.h"

// Logs the rates of the past eight seconds and the reader's counters, and starts each afresh. Waits
// for `stats_mutex`: as a rule for one poll of the port at most (500 ms), for a few of them when
// bytes only trickle, since the reader takes the mutex again at once.
void quarn_report_statistics();
