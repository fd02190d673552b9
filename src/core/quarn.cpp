#include "core/quarn.h"

#include <array>
#include <cstdlib>
#include <mutex>

#include "platform/quarn_log.h"
#include "storage/log_file_recycler.h"

QUARN_GLOBAL::QUARN_GLOBAL() : recycler(quarn::zorvex::LogFileRecycler::GetInstance()) {}

// The objects are destroyed in reverse order. Before that, `main` makes sure that no callback uses
// them any more.
QUARN_GLOBAL& g_quarn = *new QUARN_GLOBAL;
QUARN_FILE_IO g_file_io("/data/vendor/radio/quarn/");
QUARN_RING g_ring;
QUARN_READER_HANDLE g_reader(&g_ring);
QUARN_WRITER_HANDLER g_writer(&g_ring, HANDLE_WRITER);
QUARN_NOTIFY_HANDLER g_notify;
QUARN_TOOL_HANDLE g_tool;
QUARN_COMMAND_HANDLE g_command;
QUARN_EVENT_DETECT_HANDLE g_event_detect;
QUARN_MD_TIME_SYNC_HANDLE g_md_time_sync;
quarn::zorvex::LogFilterManagerHandle g_log_filter_manager;

namespace {

// Indexed by QUARN_HANDLE_ID.
constexpr std::array<QUARN_HANDLE*, HANDLE_MAX> kHandleTable = {
    &g_writer, &g_reader,       &g_command,      &g_tool,
    &g_notify, &g_event_detect, &g_md_time_sync, &g_log_filter_manager,
};

}  // namespace

int32_t quarn_runHandleExec(QUARN_HANDLE_ID handle, QUARN_EXEC_ID exec, void* arg) {
    if (handle >= HANDLE_MAX) return 1;
    if (handle < 0) std::abort();
    return kHandleTable[static_cast<size_t>(handle)]->exec(exec, arg);
}

int32_t quarn_request(QUARN_HANDLE_ID handle, QUARN_EXEC_ID exec, void* arg) {
    std::lock_guard lock(g_quarn.exec_mutex);
    return quarn_runHandleExec(handle, exec, arg);
}

QUARN_IO* quarn_getSaveModeIo(QUARN_SAVE_MODE mode) {
    return mode < SAVE_MODE_EXIT ? &g_file_io : nullptr;
}

void quarn_endCallbacks() {
    std::lock_guard lock(g_quarn.exec_mutex);
    g_quarn.callbacks_ended = true;
}

void quarn_report_statistics() {
    constexpr int kPeriodShift = 13;  // from bytes in eight seconds to KiB per second
    QUARN_LOGI("read rate: %lu KB/s, write rate: %lu KB/s",
               static_cast<unsigned long>(g_quarn.read_bytes.exchange(0) >> kPeriodShift),
               static_cast<unsigned long>(g_quarn.write_bytes.exchange(0) >> kPeriodShift));
    if (const uint64_t stalls = g_quarn.stall_count.exchange(0); stalls != 0) {
        QUARN_LOGI("log buffer stall count: %lu", static_cast<unsigned long>(stalls));
    }

    std::lock_guard lock(g_quarn.stats_mutex);
    const auto count = [](uint64_t value) { return static_cast<unsigned long>(value); };
    const QUARN_READER_STATS& stats = g_quarn.stats;
    QUARN_LOGI("tot_read_cnt: %lu (len_greater_zero=%lu, len_zero=%lu, fail=%lu)",
               count(stats.tot_read_cnt), count(stats.read_len_greater_zero),
               count(stats.read_len_zero), count(stats.read_fail));
    if (stats.read_fail != 0) {
        QUARN_LOGI("fail_read_cnt: %lu (eagain=%lu, eintr=%lu, enodev=%lu, ebadf=%lu, eother=%lu)",
                   count(stats.read_fail), count(stats.read_eagain), count(stats.read_eintr),
                   count(stats.read_enodev), count(stats.read_ebadf), count(stats.read_eother));
    }
    QUARN_LOGI("tot_poll_cnt: %lu (success=%lu, timeout=%lu, fail=%lu)", count(stats.tot_poll_cnt),
               count(stats.poll_success), count(stats.poll_timeout), count(stats.poll_fail));
    g_quarn.stats = {};
}
