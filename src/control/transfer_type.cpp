#include "control/transfer_type.h"

#include <mutex>

#include "control/quarn_state_notify.h"
#include "core/quarn_handle.h"
#include "modem/early_log_filter.h"
#include "platform/quarn_log.h"
#include "storage/power_on_log.h"

namespace {

// Guards the transfer type. Locked before `exec_mutex`.
std::mutex command_mutex;

// Switches every handle of the data path to the new channel. REQUIRES: command_mutex is held.
void switch_handles(QUARN_SAVE_MODE type) {
    std::lock_guard lock(g_quarn.exec_mutex);
    for (const auto handle : {HANDLE_READER, HANDLE_WRITER, HANDLE_TOOL}) {
        quarn_runHandleExec(handle, EXEC_SET_SAVE_MODE, &type);
    }
    for (const auto handle : {HANDLE_WRITER, HANDLE_READER, HANDLE_TOOL}) {
        quarn_runHandleExec(handle, EXEC_START, nullptr);
    }
}

// REQUIRES: command_mutex is held.
void switch_to_storage() {
    constexpr QUARN_SAVE_MODE kType = SAVE_MODE_STORAGE;
    const QUARN_SAVE_MODE old_type = g_quarn.transfer_type;
    if (old_type == kType) {
        QUARN_LOGI("command_handler: already in transfer_type=%d", kType);
        return;
    }
    QUARN_LOGI("command_handler: switch transfer_type from %d to %d", old_type, kType);
    switch_handles(kType);
    quarn::zorvex::HandleTransferTypeSwitch(old_type, kType);
    g_quarn.transfer_type = kType;
    if (quarn_notifyTransferTypeUpdate(kType) < 0) {
        QUARN_LOGE("command_handler: notify transfer type update to %d failed!", kType);
    }
    QUARN_LOGI("HandleTransferType: switch transfer_type to %d success", kType);
}

// Sends the only request that goes out without `exec_mutex`, because the holder of that mutex may
// keep it for long. The writer gets the channel that it already has, so it drains what it can and
// stops. REQUIRES: command_mutex is held.
void request_exit() {
    QUARN_LOGI("command_handler: exit quarn");
    QUARN_SAVE_MODE type = g_quarn.transfer_type;
    quarn_runHandleExec(HANDLE_WRITER, EXEC_SET_SAVE_MODE, &type);
    g_quarn.is_close = true;
}

}  // namespace

int quarn_setTransferType(int type) {
    std::lock_guard lock(command_mutex);
    switch (type) {
        case SAVE_MODE_STORAGE:
            switch_to_storage();
            return 0;
        case SAVE_MODE_EXIT:
            request_exit();
            return 0;
        default:
            QUARN_LOGE("command_handler: only accept transfer_type=%d in the user build",
                       SAVE_MODE_STORAGE);
            return -1;
    }
}

int quarn_getTransferType(int* type) {
    std::lock_guard lock(command_mutex);
    *type = g_quarn.transfer_type;
    return 0;
}

namespace quarn::zorvex {

void HandleTransferTypeSwitch(QUARN_SAVE_MODE old_type, QUARN_SAVE_MODE new_type) {
    constexpr int kAwayFromStorage = 2;
    constexpr int kBackToStorage = 3;
    const auto is_host = [](QUARN_SAVE_MODE type) {
        return type == SAVE_MODE_USB || type == SAVE_MODE_SOCKET;
    };
    int value = -1;
    bool done = GetPowerOnLogFilterEnableNvramCfg(value);
    if (old_type == SAVE_MODE_STORAGE && is_host(new_type)) {
        PowerOnLogStop();
        quarn_request(HANDLE_LOG_FILTER_MANAGER, EXEC_LOGGING_STATE_NORMAL, nullptr);
        done = SetPowerOnLogFilterEnableNvramCfg(kAwayFromStorage) && done;
    } else if (is_host(old_type) && new_type == SAVE_MODE_STORAGE) {
        done = SetPowerOnLogFilterEnableNvramCfg(kBackToStorage) && done;
    }
    if (!done) QUARN_LOGW("Switch transfer_type with warnings");
}

}  // namespace quarn::zorvex
