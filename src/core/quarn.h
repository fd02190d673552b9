// The daemon's global objects, and small system utilities.
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

// In construction order. A callback of a closed library may come until the process is gone, so
// `g_quarn`, whose mutex each one takes first, is never destroyed; `main` sees to it that none does
// anything any more before the others are.
extern QUARN_GLOBAL& g_quarn;
extern QUARN_FILE_IO g_file_io;
extern QUARN_RING g_ring;
extern QUARN_READER_HANDLE g_reader;
extern QUARN_WRITER_HANDLER g_writer;
extern QUARN_NOTIFY_HANDLER g_notify;
extern QUARN_TOOL_HANDLE g_tool;
extern QUARN_COMMAND_HANDLE g_command;
extern QUARN_EVENT_DETECT_HANDLE g_event_detect;
extern QUARN_MD_TIME_SYNC_HANDLE g_md_time_sync;
extern quarn::zorvex::LogFilterManagerHandle g_log_filter_manager;

// Sets a system property; 0 on success, else the property service's own code.
int32_t quarn_property_set(const char* name, const char* value);

// Whether `path` can be looked at and has the directory bit in its mode. Only that one bit is
// tested, so a socket file counts as a directory too; this is meant.
bool quarn_check_dir_exist(const char* path);

// For the end of the process: sets `callbacks_ended` under `exec_mutex`. Waits for the callback
// that still runs; when it returns, none does anything any more.
void quarn_endCallbacks();

// The SIGUSR1 handler: does nothing, but lets the signal interrupt a blocked system call.
void quarn_sighandler(int);

// Logs the rates of the past eight seconds and the reader's counters, and starts each afresh. Waits
// for `stats_mutex`: as a rule for one poll of the port at most (500 ms), for a few of them when
// bytes only trickle, since the reader takes the mutex again at once.
void quarn_report_statistics();
