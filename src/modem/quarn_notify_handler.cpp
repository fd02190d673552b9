#include "modem/quarn_notify_handler.h"

#include <array>
#include <chrono>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <mutex>
#include <thread>

#include "core/quarn_global.h"
#include "platform/quarn_log.h"

namespace {

// Bytes from the start of a payload to the modem information record. The word `md_info_word_a`
// follows the record directly.
constexpr size_t kRecordInLogStart = 8;
constexpr size_t kRecordElsewhere = 4;

// The modem expects these bytes at the log port after an exception.
constexpr std::array<uint8_t, 40> kSyncData = {
    0xac, 0xca, 0xef, 0x10, 0x18, 0x00, 0x00, 0x00, 0x10, 0xa0, 0x00, 0x00, 0xa4, 0x6a,
    0xef, 0x10, 0x17, 0x08, 0x00, 0x00, 0xac, 0xdb, 0xcf, 0xe5, 0x16, 0x10, 0x00, 0x00,
    0x00, 0x2e, 0x00, 0x2e, 0x00, 0x02, 0x00, 0x00, 0xbd, 0xdb, 0x5e, 0x00,
};
constexpr int kSyncRetries = 10;
constexpr std::chrono::milliseconds kSyncPause(200);

void update_md_info(const void* payload, size_t record_offset) {
    if (payload == nullptr) return;
    const auto* const record = static_cast<const uint8_t*>(payload) + record_offset;
    std::lock_guard lock(g_quarn.md_info_mutex);
    memcpy(&g_quarn.md_info, record, sizeof(g_quarn.md_info));
    g_quarn.md_info_time = time(nullptr);
    memcpy(&g_quarn.md_info_word_a, record + sizeof(g_quarn.md_info),
           sizeof(g_quarn.md_info_word_a));
}

// A notification and its request have the same number.
void forward(MCL_NTFY_CODE code, void* payload, std::initializer_list<QUARN_HANDLE_ID> handles) {
    for (const QUARN_HANDLE_ID handle : handles) {
        quarn_runHandleExec(handle, static_cast<QUARN_EXEC_ID>(code), payload);
    }
}

// Blocks for up to 2 s if the port refuses the bytes.
void write_sync_data() {
    if (g_quarn.transfer_type != SAVE_MODE_STORAGE) return;
    const auto write = [] { return mcl_writeToLogPort(kSyncData.data(), kSyncData.size()) >= 0; };
    bool written = write();
    for (int retry = 0; !written && retry < kSyncRetries; ++retry) {
        std::this_thread::sleep_for(kSyncPause);
        written = write();
    }
    if (!written) QUARN_LOGE("notify_handler: write sync data failed");
}

void answer_storage_mode(void* payload) {
    if (payload == nullptr) return;
    const uint32_t is_storage = g_quarn.transfer_type == SAVE_MODE_STORAGE ? 1 : 0;
    memcpy(payload, &is_storage, sizeof(is_storage));
}

void handle_notification(MCL_NTFY_CODE code, void* payload) {
    switch (code) {
        case NTFY_MD_LOG_START:
            update_md_info(payload, kRecordInLogStart);
            forward(code, payload, {HANDLE_READER, HANDLE_WRITER, HANDLE_LOG_FILTER_MANAGER});
            break;
        case NTFY_MD_LOG_STOP:
            forward(code, payload, {HANDLE_WRITER, HANDLE_LOG_FILTER_MANAGER});
            break;
        case NTFY_MD_LOG_REOPEN:
            update_md_info(payload, kRecordElsewhere);
            forward(code, payload, {HANDLE_READER, HANDLE_WRITER});
            break;
        case NTFY_MD_LOG_FLUSH_CLOSE:
            forward(code, payload, {HANDLE_READER, HANDLE_WRITER});
            break;
        case NTFY_MD_EXCEPTION:
            update_md_info(payload, kRecordElsewhere);
            forward(code, payload, {HANDLE_READER, HANDLE_WRITER});
            write_sync_data();
            break;
        case NTFY_MD_LOG_CLOSE:
        case NTFY_MD_LOG_END:
            forward(code, payload, {HANDLE_WRITER});
            break;
        case NTFY_QUERY_STORAGE_MODE:
            answer_storage_mode(payload);
            break;
        case NTFY_MD_INFO_UPDATE:
            update_md_info(payload, kRecordElsewhere);
            break;
        default:
            QUARN_LOGW("notify_handler: unknown ntfy_code=%d", code);
            break;
    }
}

}  // namespace

int32_t QUARN_NOTIFY_HANDLER::init() {
    if (mcl_registerNotifyCallback(quarn_mclNtfyCallback, this) != 0) {
        QUARN_LOGE("QUARN_NOTIFY_HANDLER::init failed. cb_func is NULL");
        return 1;
    }
    return 0;
}

int quarn_mclNtfyCallback(void* /*user*/, MCL_NTFY_CODE code, void* payload) {
    QUARN_LOGI("notify_handler: ntfy_code=%d", code);
    quarn_runCallback([&] { handle_notification(code, payload); });
    return 0;
}
