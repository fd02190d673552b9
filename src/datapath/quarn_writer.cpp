#include "datapath/quarn_writer.h"

#include <algorithm>
#include <cstring>
#include <thread>

#include "core/quarn_global.h"
#include "datapath/quarn_socket_io.h"
#include "datapath/quarn_usb_io.h"
#include "platform/quarn_log.h"
#include "storage/quarn_file_io.h"

namespace {

using std::chrono::milliseconds;

constexpr uint64_t kChunkLimit = uint64_t{256} * 1024;
constexpr unsigned int kIdleWaitMs = 2000;
constexpr milliseconds kFailedWritePause(200);

constexpr milliseconds kDrainFirstPause(1500);
constexpr unsigned int kDrainStepMs = 200;
constexpr unsigned int kDrainLimitMs = 2000;
constexpr unsigned int kSwitchDrainLimitMs = 200;

void pause_after_failed_write() { std::this_thread::sleep_for(kFailedWritePause); }

// Returns true if the payload of a start notification asks for a new file: its second 32-bit word
// is 1 then.
bool asks_for_new_file(const void* payload) {
    if (payload == nullptr) return false;
    uint32_t words[2];
    memcpy(words, payload, sizeof(words));
    return words[1] == 1;
}

}  // namespace

QUARN_WRITER_HANDLER::QUARN_WRITER_HANDLER(QUARN_RING* log_ring, QUARN_HANDLE_ID handle_id)
    : QUARN_HANDLE(handle_id), ring(log_ring) {}

QUARN_WRITER_HANDLER::~QUARN_WRITER_HANDLER() {
    is_running = false;
    if (!writer_thread.Exists()) return;
    wake_thread();
    join_thread();
}

int32_t QUARN_WRITER_HANDLER::init() {
    io = quarn_getSaveModeIo(g_quarn.transfer_type);
    return 0;
}

int32_t QUARN_WRITER_HANDLER::start() {
    std::lock_guard lock(lifecycle_mutex);
    return start_locked();
}

int32_t QUARN_WRITER_HANDLER::start_locked() {
    if (is_running.exchange(true)) {
        QUARN_LOGI("writer_handler: already start");
        return 0;
    }
    join_thread();  // the previous thread, if it ended by itself
    auto* const usb = static_cast<QUARN_USB_IO*>(channel_of(IO_TYPE_USB));
    if (usb != nullptr) usb->io_resume();
    const auto body = [](void* self) {
        static_cast<QUARN_WRITER_HANDLER*>(self)->quarn_writer_thread_func();
    };
    if (const int error = writer_thread.Create("quarn_writer", body, this); error != 0) {
        QUARN_LOGE("writer_handler: create thread fail, errno=%d(%s)", error, strerror(error));
        if (usb != nullptr) usb->io_pause();
        is_running = false;
        return 1;
    }
    QUARN_LOGI("writer_handler: start success");
    return 0;
}

int32_t QUARN_WRITER_HANDLER::stop() {
    std::lock_guard lock(lifecycle_mutex);
    stop_locked();
    return 0;
}

void QUARN_WRITER_HANDLER::stop_locked() {
    if (!is_running.exchange(false)) {
        QUARN_LOGI("writer_handler: already stop");
        return;
    }
    wake_thread();
    QUARN_LOGI("writer_handler: join");
    join_thread();
    if (QUARN_FILE_IO* const file = storage()) file->io_close();
    QUARN_LOGI("writer_handler: stop success");
}

void QUARN_WRITER_HANDLER::wake_thread() {
    if (ring != nullptr) ring->notify();
    if (QUARN_IO* const channel = channel_of(IO_TYPE_SOCKET)) {
        auto* const host = static_cast<QUARN_SOCKET_IO*>(channel);
        if (!host->is_connected()) host->stop_wait_connect();
    }
    if (QUARN_IO* const channel = channel_of(IO_TYPE_USB)) {
        static_cast<QUARN_USB_IO*>(channel)->io_pause();
        if (const int error = writer_thread.Signal(); error != 0) {
            QUARN_LOGE("writer_handler: pthread_kill=%lu fail, errno=%s", writer_thread.id(),
                       strerror(error));
        }
    }
}

void QUARN_WRITER_HANDLER::join_thread() {
    if (!writer_thread.Exists()) return;
    if (const int error = writer_thread.Join([this] { wake_thread(); }); error != 0) {
        QUARN_LOGE("writer_handler: pthread_join=%lu fail, errno=%s", writer_thread.id(),
                   strerror(error));
    }
}

void QUARN_WRITER_HANDLER::quarn_writer_thread_func() {
    if (ring == nullptr) {
        QUARN_LOGE("writer_handler: cur_used_buf is NULL");
        is_running = false;
        return;
    }
    QUARN_LOGI("writer_handler: quarn_writer_thread start");
    const uint8_t* const buf = ring->get_buf_ptr();
    const uint64_t mask = ring->capacity();
    while (is_running) drain_once(buf, mask);
    QUARN_LOGI("writer_handler: quarn_writer_thread terminate");
}

void QUARN_WRITER_HANDLER::drain_once(const uint8_t* buf, uint64_t mask) {
    const uint64_t seen = ring->notification_count();
    const uint64_t available = held();
    if (available == 0) {
        ring->wait_for(kIdleWaitMs, seen);
        return;
    }
    const uint64_t chunk = std::min(available, kChunkLimit);
    const uint64_t read_idx = ring->get_buf_read_idx();
    if (read_idx + chunk <= mask + 1) {
        drain_straight(buf, read_idx, chunk, mask);
    } else {
        drain_wrapped(buf, read_idx, chunk, mask);
    }
    ring->notify();
}

void QUARN_WRITER_HANDLER::drain_straight(const uint8_t* buf, uint64_t read_idx, uint64_t chunk,
                                          uint64_t mask) {
    const int written = io_write_with_retry(buf + read_idx, static_cast<int>(chunk));
    if (written < 1) {
        pause_after_failed_write();
        return;
    }
    const auto taken = static_cast<uint64_t>(written);
    g_quarn.write_bytes += taken;
    ring->set_buf_read_idx((read_idx + taken) & mask);
}

void QUARN_WRITER_HANDLER::drain_wrapped(const uint8_t* buf, uint64_t read_idx, uint64_t chunk,
                                         uint64_t mask) {
    const uint64_t first = mask + 1 - read_idx;
    const int written = io_write_with_retry(buf + read_idx, static_cast<int>(first));
    if (written < 1) {
        pause_after_failed_write();
        return;
    }
    const auto taken = static_cast<uint64_t>(written);
    g_quarn.write_bytes += taken;
    if (taken < first) {
        ring->set_buf_read_idx((read_idx + taken) & mask);
        return;
    }
    const int rest = io_write_with_retry(buf, static_cast<int>(chunk - first));
    const auto rest_taken = static_cast<uint64_t>(std::max(rest, 0));
    g_quarn.write_bytes += rest_taken;
    ring->set_buf_read_idx(rest_taken);
}

int QUARN_WRITER_HANDLER::io_write_with_retry(const void* buf, int len) {
    QUARN_IO* const channel = io;
    if (channel == nullptr) return -1;
    const int rc = channel->io_write(buf, len);
    if (rc >= 0) return rc;
    QUARN_FILE_IO* const file = storage();
    if (file == nullptr || file->check_io_open()) return rc;
    QUARN_LOGE("writer_handler: file_io is closed, try reopen");
    if (file->io_open() != 0) return rc;
    return file->io_write(buf, len);
}

void QUARN_WRITER_HANDLER::wait_buffer_clean(unsigned int timeout_ms) {
    const auto* const usb = static_cast<QUARN_USB_IO*>(channel_of(IO_TYPE_USB));
    const uint64_t count_before = usb != nullptr ? usb->get_write_count() : 0;
    if (writer_thread.EndedWithin(kDrainFirstPause)) return;
    if (usb != nullptr && usb->get_write_count() == count_before) return;
    const auto* const host = static_cast<QUARN_SOCKET_IO*>(channel_of(IO_TYPE_SOCKET));
    if (host != nullptr && !host->is_connected()) return;
    for (unsigned int remaining = timeout_ms; remaining > 0 && held() != 0;) {
        const unsigned int step = std::min(remaining, kDrainStepMs);
        if (writer_thread.EndedWithin(milliseconds(step))) return;
        remaining -= step;
    }
}

int32_t QUARN_WRITER_HANDLER::exec(QUARN_EXEC_ID exec_id, void* arg) {
    QUARN_LOGI("writer_handler: handle exec_id=%d", exec_id);
    switch (exec_id) {
        case EXEC_MD_LOG_START:
            if (asks_for_new_file(arg)) open_storage();
            break;
        case EXEC_MD_LOG_REOPEN:
            open_storage();
            break;
        case EXEC_MD_LOG_STOP:
        case EXEC_MD_LOG_CLOSE:
        case EXEC_MD_LOG_END:
            wait_buffer_clean(kDrainLimitMs);
            close_storage();
            break;
        case EXEC_MD_LOG_FLUSH_CLOSE:
            wait_buffer_clean(kDrainLimitMs);
            if (QUARN_FILE_IO* const file = storage(); file != nullptr && file->check_io_open()) {
                file->close_log_file_with_flush();
            }
            break;
        case EXEC_MD_EXCEPTION:
            mark_exception();
            break;
        case EXEC_TOOL_CONNECTED:
            stop_for_tool();
            break;
        case EXEC_TOOL_DISCONNECTED:
            restart_after_tool();
            break;
        case EXEC_SET_SAVE_MODE:
            set_save_mode(static_cast<const QUARN_SAVE_MODE*>(arg));
            break;
        case EXEC_START:
            start();
            break;
        case EXEC_FLUSH_RING:
            wait_buffer_clean(kDrainLimitMs);
            if (QUARN_FILE_IO* const file = storage()) file->flush_ringBuf();
            break;
        default:
            break;
    }
    QUARN_LOGI("writer_handler: handle exec_id=%d done", exec_id);
    return 0;
}

size_t QUARN_WRITER_HANDLER::held() const { return ring != nullptr ? ring->current_size() : 0; }

QUARN_IO* QUARN_WRITER_HANDLER::channel_of(QUARN_IO_TYPE type) const {
    QUARN_IO* const channel = io;
    return channel != nullptr && channel->io_type == type ? channel : nullptr;
}

QUARN_FILE_IO* QUARN_WRITER_HANDLER::storage() const {
    return static_cast<QUARN_FILE_IO*>(channel_of(IO_TYPE_FILE));
}

void QUARN_WRITER_HANDLER::open_storage() {
    if (QUARN_FILE_IO* const file = storage()) {
        file->set_file_suffix("");
        file->io_open();
    }
}

void QUARN_WRITER_HANDLER::close_storage() {
    if (QUARN_FILE_IO* const file = storage()) file->io_close();
}

void QUARN_WRITER_HANDLER::mark_exception() {
    if (QUARN_FILE_IO* const file = storage()) {
        file->set_file_suffix("_EE");
        file->rename_folder_ee();
        if (!file->check_io_open()) file->io_open();
    }
}

void QUARN_WRITER_HANDLER::stop_for_tool() {
    std::lock_guard lock(lifecycle_mutex);
    was_running = is_running.load();
    if (was_running) stop_locked();
}

void QUARN_WRITER_HANDLER::restart_after_tool() {
    std::lock_guard lock(lifecycle_mutex);
    if (was_running) start_locked();
}

// The switch to "exit" comes without `exec_mutex`. So `lifecycle_mutex` keeps other requests from
// starting the writer before the new channel is set, and clearing `was_running` keeps a host tool
// that disconnects later from starting it. A writer that ran then would leave a gap in the log: its
// bytes would directly follow those from before the dropped ones.
void QUARN_WRITER_HANDLER::set_save_mode(const QUARN_SAVE_MODE* mode) {
    if (mode == nullptr) {
        QUARN_LOGE("write_handler: arg is NULL");
        return;
    }
    wait_buffer_clean(kSwitchDrainLimitMs);
    std::lock_guard lock(lifecycle_mutex);
    was_running = false;
    stop_locked();
    // Size and reset in one call, since the reader thread may be adding bytes.
    const size_t left = ring != nullptr ? ring->reset() : 0;
    if (left != 0) QUARN_LOGW("write_handler: drop %zu bytes data from cur_used_buf", left);
    io = quarn_getSaveModeIo(*mode);
}
