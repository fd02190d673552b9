// All global objects of the daemon, and the report on the data path. Each object is declared in the
// header of its type. Of the daemon, only `main` and quarn.cpp, which constructs the objects,
// include this header. Its other files include the headers that they use.
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

// Logs the data rates of the past eight seconds and the reader's counters, and sets all of them
// back to 0. Blocks until it gets `stats_mutex`. The reader holds that mutex over a poll of the
// port, for up to 500 ms. If the port delivers only a few bytes at a time, the reader may take the
// mutex again a few times first. Called by the main thread.
void quarn_report_statistics();
