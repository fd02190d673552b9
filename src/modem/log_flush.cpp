#include "modem/log_flush.h"

#include <chrono>
#include <mutex>
#include <thread>

#include "core/quarn_global.h"
#include "core/quarn_handle.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/quarn_log.h"

namespace quarn::zorvex {

namespace {

constexpr int kShortIntervalMs = 50;
constexpr std::chrono::milliseconds kFlushWait(50);  // one pass of the short interval

// Held during a change of the modem's interval. Without it, one thread could restore the interval
// after a flush while another thread changes it.
std::mutex flush_interval_mutex;

bool SendSetFlushIntervalCommand(int ms) {
    if (const int32_t rc = quarn_mipcSetFlushInterval(ms); rc != 0) {
        QUARN_LOGE("%s: Error setting flush interval MIPC command: %d",
                   "SendSetFlushIntervalCommand", rc);
        return false;
    }
    QUARN_LOGI("Set flush interval to %d by MIPC command", ms);
    return true;
}

int ConfiguredInterval() { return static_cast<int>(g_quarn.flush_interval); }

// Shortens the modem's interval for a moment. The configured interval does not change.
void FlushModem() {
    std::lock_guard lock(flush_interval_mutex);
    const bool shortened =
        ConfiguredInterval() > kShortIntervalMs && SendSetFlushIntervalCommand(kShortIntervalMs);
    std::this_thread::sleep_for(kFlushWait);
    if (shortened) SendSetFlushIntervalCommand(ConfiguredInterval());
}

}  // namespace

bool SetFlushInterval(int ms) {
    std::lock_guard lock(flush_interval_mutex);
    if (!SendSetFlushIntervalCommand(ms)) {
        QUARN_LOGE("%s: Error setting flush interval", "SetFlushInterval");
        return false;
    }
    SetFlushIntervalConfig(ms);
    return true;
}

int32_t SetFlushIntervalConfig(int interval) {
    g_quarn.flush_interval = static_cast<uint32_t>(interval);
    return 0;
}

void FlushLogBuffers() {
    FlushModem();
    quarn_request(HANDLE_WRITER, EXEC_FLUSH_RING, nullptr);
    QUARN_LOGI("Flush log buffers done");
}

}  // namespace quarn::zorvex
