#include "control/quarn_command.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "control/copy_log_file.h"
#include "control/log_commands.h"
#include "control/protocol.h"
#include "control/quarn_ctrl_connect.h"
#include "control/transfer_type.h"
#include "core/quarn_config.h"
#include "core/quarn_global.h"
#include "modem/log_flush.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/quarn_log.h"
#include "storage/quarn_file_io.h"

namespace {

namespace protocol = quarn::protocol;
using protocol::kLogLevels;
using protocol::kLogModes;
using protocol::kTransferTypes;

// One byte more than a request: the last byte is always NUL.
constexpr size_t kRequestBufferSize = protocol::kMaxRequest + 1;

template <size_t N>
bool is_index_of(const std::array<const char*, N>& /*names*/, int value) {
    return static_cast<unsigned int>(value) < N;
}

template <size_t N>
const char* name_of(const std::array<const char*, N>& names, int value) {
    return names[static_cast<size_t>(value)];
}

const char* text_or_null(const char* text) { return text != nullptr ? text : "(null)"; }

// --- replies: return false, with a message, if the reply could not be formatted ---

bool printed(const char* who, int rc) {
    if (rc < 0) QUARN_LOGE("%s: snprintf failed", who);
    return rc >= 0;
}

bool reply(char* ack, const char* who, const char* text) {
    return printed(who, snprintf(ack, protocol::kReplySize, "%s", text));
}

bool reply_value(char* ack, const char* who, int value) {
    return printed(who, snprintf(ack, protocol::kReplySize, "%s,%d", "ok", value));
}

// Writes the reply of a handler that failed, and returns the handler's result.
int reply_error(char* ack, const char* who) {
    reply(ack, who, "error");
    return -1;
}

// Returns the result of a handler that succeeds only if its reply could be formatted.
int result_of(bool replied) { return replied ? 0 : -1; }

// --- handlers ---

int quarn_command_handleLogMode(const char* arg, char* ack) {
    constexpr const char* kWho = "HandleLogMode";
    int mode = 0;
    if (arg == nullptr) {
        if (const int rc = quarn_mipcGetLogMode(&mode); rc != 0) {
            QUARN_LOGE("HandleLogMode: Get log mode fail, mipc_rc = %d\n", rc);
            return reply_error(ack, kWho);
        }
        if (is_index_of(kLogModes, mode)) return result_of(reply_value(ack, kWho, mode));
        QUARN_LOGE("HandleLogMode: Get unexpected log mode = %d\n", mode);
        return reply_error(ack, kWho);
    }
    mode = atoi(arg);
    if (!is_index_of(kLogModes, mode)) {
        QUARN_LOGE("HandleLogMode: Invalid log mode = %d\n", mode);
        return reply_error(ack, kWho);
    }
    if (const int rc = quarn_mipcSetLogMode(mode); rc != 0) {
        QUARN_LOGE("HandleLogMode: Set log mode = %d (%s) fail, mipc_rc = %d\n", mode,
                   name_of(kLogModes, mode), rc);
        return reply_error(ack, kWho);
    }
    reply(ack, kWho, "ok");
    return 0;
}

int quarn_command_handleLogLevel(const char* arg, char* ack) {
    constexpr const char* kWho = "HandleLogLevel";
    int32_t level = 0;
    if (arg == nullptr) {
        if (const int rc = quarn_mipcGetLogLevel(&level); rc != 0) {
            QUARN_LOGE("HandleLogLevel: Get log level fail, mipc_rc = %d\n", rc);
            return reply_error(ack, kWho);
        }
        const bool known = level == protocol::kFilterInForce || is_index_of(kLogLevels, level);
        if (known) return result_of(reply_value(ack, kWho, level));
        QUARN_LOGE("HandleLogLevel: Get unexpected log level = %d\n", level);
        return reply_error(ack, kWho);
    }
    level = atoi(arg);
    if (!is_index_of(kLogLevels, level)) {
        QUARN_LOGE("HandleLogLevel: Invalid log level = %d\n", level);
        return reply_error(ack, kWho);
    }
    int32_t wanted = level;
    if (quarn_request(HANDLE_LOG_FILTER_MANAGER, EXEC_SET_LOG_LEVEL, &wanted) != 0) {
        QUARN_LOGE("HandleLogLevel Set log level = %d (%s) fail\n", level,
                   name_of(kLogLevels, level));
        return reply_error(ack, kWho);
    }
    reply(ack, kWho, "ok");
    return 0;
}

int quarn_command_handleTriggerFlush(const char* /*arg*/, char* ack) {
    constexpr const char* kWho = "handleTriggerFlush";
    int result = 0;
    if (const int rc = quarn_mipcTriggerFlush(&result); rc != 0) {
        QUARN_LOGE("handleTriggerFlush Trigger flush fail, mipc_rc = %d\n", rc);
        return reply_error(ack, kWho);
    }
    if (result != 0) {
        QUARN_LOGE("handleTriggerFlush: Trigger flush fail, trigger_result=%d\n", result);
        return reply_error(ack, kWho);
    }
    return result_of(reply(ack, kWho, "ok"));
}

int quarn_command_handleFlushStatus(const char* /*arg*/, char* ack) {
    constexpr const char* kWho = "handleFlushStatus";
    int status = 0;
    if (const int rc = quarn_mipcGetFlushStatus(&status); rc != 0) {
        QUARN_LOGE("handleFlushStatus: Get flush status fail, mipc_rc = %d\n", rc);
        return reply_error(ack, kWho);
    }
    return result_of(reply_value(ack, kWho, status));
}

int quarn_command_handleFlushInterval(const char* arg, char* ack) {
    constexpr const char* kWho = "handleFlushInterval";
    int interval = 0;
    if (arg == nullptr) {
        if (const int rc = quarn_mipcGetFlushInterval(&interval); rc != 0) {
            QUARN_LOGE("handleFlushInterval: Get flush interval fail, mipc_rc = %d\n", rc);
            return reply_error(ack, kWho);
        }
        return result_of(reply_value(ack, kWho, interval));
    }
    interval = atoi(arg);
    if (!quarn::zorvex::SetFlushInterval(interval)) {
        QUARN_LOGE("handleFlushInterval: Set flush interval = %d(ms) fail", interval);
        return reply_error(ack, kWho);
    }
    reply(ack, kWho, "ok");
    return 0;
}

int quarn_command_handleTransferType(const char* arg, char* ack) {
    constexpr const char* kWho = "HandleTransferType";
    int type = 0;
    if (arg == nullptr) {
        quarn_getTransferType(&type);
        if (is_index_of(kTransferTypes, type)) return result_of(reply_value(ack, kWho, type));
        QUARN_LOGE("HandleTransferType: Get unexpected transfer type = %d\n", type);
        return reply_error(ack, kWho);
    }
    type = atoi(arg);
    if (!is_index_of(kTransferTypes, type)) {
        QUARN_LOGE("HandleTransferType: Invalid transfer type = %d\n", type);
        return reply_error(ack, kWho);
    }
    if (quarn_setTransferType(type) != 0) {
        QUARN_LOGE("HandleTransferType: Set transfer type = %d (%s) fail\n", type,
                   name_of(kTransferTypes, type));
        return reply_error(ack, kWho);
    }
    return result_of(reply(ack, kWho, "ok"));
}

int quarn_command_handleFileSize(const char* arg, char* ack) {
    constexpr const char* kWho = "HandleFileSize";
    if (arg == nullptr) {
        reply_value(ack, kWho, g_file_io.get_file_size());
        return 0;
    }
    const int mb = atoi(arg);
    if (g_file_io.set_file_size(mb) != 0) {
        QUARN_LOGE("HandleFileSize: Set file size = %d (MB) fail\n", mb);
        return reply_error(ack, kWho);
    }
    reply(ack, kWho, "ok");
    return 0;
}

// The texts for a recycle setting in log messages.
struct RecycleTexts {
    const char* who;
    const char* setting;
    const char* unit;
};

constexpr RecycleTexts recycle_texts(QUARN_RECYCLE_OPT option) {
    switch (option) {
        case RECYCLE_OPT_SIZE:
            return {"HandleRecycleSize", "recycle size", " (MB)"};
        case RECYCLE_OPT_EE:
            return {"HandleRecycleEE", "recycle EE", ""};
        case RECYCLE_OPT_KEEP_EE_SIZE:
            return {"HandleRecycleKeepEESize", "recycle keep EE size", " (MB)"};
    }
    return {};
}

template <QUARN_RECYCLE_OPT kOption>
int quarn_command_handleRecycle(const char* arg, char* ack) {
    constexpr RecycleTexts kTexts = recycle_texts(kOption);
    if (arg == nullptr) {
        unsigned int value = 0;
        if (g_file_io.get_recycle_option(kOption, &value) != 0) {
            QUARN_LOGE("%s: Get %s fail\n", kTexts.who, kTexts.setting);
            return reply_error(ack, kTexts.who);
        }
        return result_of(reply_value(ack, kTexts.who, static_cast<int>(value)));
    }
    const int value = atoi(arg);
    if (g_file_io.set_recycle_option(kOption, static_cast<unsigned int>(value)) != 0) {
        QUARN_LOGE("%s: Set %s = %d%s fail\n", kTexts.who, kTexts.setting, value, kTexts.unit);
        return reply_error(ack, kTexts.who);
    }
    reply(ack, kTexts.who, "ok");
    return 0;
}

// There is no query. Without an argument, the log filter manager gets null and refuses it.
int quarn_command_handleLogFilter(const char* arg, char* ack) {
    constexpr const char* kWho = "handleLogFilter";
    QUARN_LOGI("filter path %s\n", text_or_null(arg));
    if (quarn_request(HANDLE_LOG_FILTER_MANAGER, EXEC_SET_LOG_FILTER, const_cast<char*>(arg)) !=
        0) {
        QUARN_LOGE("handleLogFilter: Set log filter = %s fail\n", text_or_null(arg));
        return reply_error(ack, kWho);
    }
    return result_of(reply(ack, kWho, "ok"));
}

int quarn_command_handleFlushRingBuf(const char* /*arg*/, char* ack) {
    // Not this handler's name, but readers of the log know the message in this form.
    constexpr const char* kWho = "HandleTransferType";
    int type = 0;
    quarn_getTransferType(&type);
    if (type != SAVE_MODE_STORAGE) {
        QUARN_LOGE("HandleFlushRingBuf: Only support storage mode\n");
        return reply_error(ack, kWho);
    }
    if (g_file_io.flush_ringBuf() != 0) {
        QUARN_LOGE("HandleFlushRingBuf: Flush Ring buffer failed\n");
        return reply_error(ack, kWho);
    }
    return result_of(reply(ack, kWho, "ok"));
}

// --- the table and its dispatcher ---

using quarn::zorvex::HandleCommandCopyLogFile;
using quarn::zorvex::HandleCommandFlushLogBuffer;
using quarn::zorvex::HandleCommandLogFolder;

// The modem runs either with a level or with a filter. So saving one of them drops the other.
constexpr const char* kLevelKey[] = {"log_level"};
constexpr const char* kFilterKey[] = {"log_filter"};

constexpr std::array<QUARN_COMMAND_INFO, 15> kCommandTable = {{
    {"log_mode", 1, 0, 1, quarn_command_handleLogMode, {}},
    {"log_level", 1, 0, 1, quarn_command_handleLogLevel, kFilterKey},
    {"trigger_flush", 1, 0, 0, quarn_command_handleTriggerFlush, {}},
    {"flush_status", 1, 0, 0, quarn_command_handleFlushStatus, {}},
    {"flush_interval", 1, 0, 1, quarn_command_handleFlushInterval, {}},
    {"transfer_type", 0, 0, 1, quarn_command_handleTransferType, {}},
    {"file_size", 0, 0, 1, quarn_command_handleFileSize, {}},
    {"recycle_size", 0, 0, 1, quarn_command_handleRecycle<RECYCLE_OPT_SIZE>, {}},
    {"recycle_ee", 0, 0, 1, quarn_command_handleRecycle<RECYCLE_OPT_EE>, {}},
    {"recycle_keep_ee_size", 0, 0, 1, quarn_command_handleRecycle<RECYCLE_OPT_KEEP_EE_SIZE>, {}},
    {"log_filter", 1, 0, 1, quarn_command_handleLogFilter, kLevelKey},
    {"flush_ring_buf", 1, 0, 0, quarn_command_handleFlushRingBuf, {}},
    {"log_folder", 0, 0, 1, HandleCommandLogFolder, {}},
    {"copy_log_file", 0, 0, 0, HandleCommandCopyLogFile, {}},
    {"flush_log_buffer", 0, 0, 0, HandleCommandFlushLogBuffer, {}},
}};

// Returns true if no row's name begins with the name of an earlier row. Otherwise no request could
// select the later row.
constexpr bool is_every_row_reached() {
    for (size_t row = 0; row < kCommandTable.size(); ++row) {
        for (size_t earlier = 0; earlier < row; ++earlier) {
            const std::string_view name = kCommandTable[row].name;
            if (name.starts_with(kCommandTable[earlier].name)) return false;
        }
    }
    return true;
}
static_assert(is_every_row_reached());

// Returns the first row whose name is a prefix of the request, or null if there is none.
const QUARN_COMMAND_INFO* find_command(const char* request) {
    for (const QUARN_COMMAND_INFO& command : kCommandTable) {
        if (strncmp(request, command.name, strlen(command.name)) == 0) return &command;
    }
    return nullptr;
}

// Returns true for the request to exit. It is not saved, since the next start would exit again.
bool is_exit_request(const QUARN_COMMAND_INFO& command, const char* arg) {
    return arg != nullptr && strcmp(command.name, "transfer_type") == 0 &&
           atoi(arg) == SAVE_MODE_EXIT;
}

bool shall_save(const QUARN_COMMAND_INFO& command, const char* arg) {
    if (command.save_on_success != 1) return false;
    if (command.save_unfiltered == 1 || !is_exit_request(command, arg)) return true;
    QUARN_LOGW("command_handler: Do not save transfer_type 3\n");
    return false;
}

void run_command(const QUARN_COMMAND_INFO& command, const char* request, char* ack) {
    // Any single character separates the name from the argument.
    char copy[kRequestBufferSize] = {};
    const char* arg = nullptr;
    if (const size_t name_length = strlen(command.name); strlen(request) > name_length) {
        if (snprintf(copy, sizeof(copy), "%s", request + name_length + 1) < 0) {
            QUARN_LOGE("command_handler: snprintf failed");
        }
        arg = copy;
    }
    const int result = command.handler(arg, ack);
    if (command.handle_only != 0 || result != 0 || !shall_save(command, arg)) return;
    if (quarn_command_saveConfig(command.name, arg, command.related_keys) != 0) {
        QUARN_LOGE("command_handler: Save configuration failed\n");
    }
}

}  // namespace

std::span<const QUARN_COMMAND_INFO> quarn_commandTable() { return kCommandTable; }

int quarn_ctrlConnCallback(int fd) {
    // After a request to exit no client is served: a request would delay the exit, or the exit
    // would cut the request off.
    if (g_quarn.is_close) return -1;
    char request[kRequestBufferSize] = {};
    char ack[protocol::kReplySize] = {};
    if (const int rc = quarn_ctrlConn_recvData(fd, request, protocol::kMaxRequest); rc < 1) {
        QUARN_LOGE("command_handler: receive cmd fail, rc=%d, errno=%s", rc, strerror(errno));
        return -1;
    }
    QUARN_LOGI("command_handler: receive req=%s, strlen(req)=%lu", request,
               static_cast<unsigned long>(strlen(request)));
    if (const QUARN_COMMAND_INFO* const command = find_command(request)) {
        run_command(*command, request, ack);
    } else {
        QUARN_LOGE("command_handler: unrecognized command");
        reply(ack, "command_handler", "error");
    }

    // A local socket takes either the whole block or nothing.
    const int rc = quarn_ctrlConn_sendData(fd, ack, sizeof(ack));
    if (rc < 1) {
        QUARN_LOGE("command_handler: send cmd ack=%s fail, rc=%d, errno=%s", ack, rc,
                   strerror(errno));
        return -1;
    }
    QUARN_LOGI("command_handler: send cmd ack=%s success", ack);
    return 0;
}

int32_t QUARN_COMMAND_HANDLE::start() {
    if (const int rc = quarn_ctrlConn_startListen(quarn_ctrlConnCallback); rc != 0) {
        QUARN_LOGE("command_handle: start listen ctrl command fail, rc=%d", rc);
        return 1;
    }
    QUARN_LOGI("command_handle: start listen ctrl command");
    return 0;
}

int32_t QUARN_COMMAND_HANDLE::stop() {
    quarn_ctrlConn_stopListen();
    return 0;
}
