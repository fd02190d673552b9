#include "control/log_commands.h"

#include <cstdio>
#include <sstream>
#include <string>

#include "control/protocol.h"
#include "modem/log_flush.h"
#include "platform/quarn_log.h"
#include "storage/quarn_file_io.h"

namespace quarn::zorvex {

int HandleCommandLogFolder(const char* arg, char* ack) {
    const auto printed = [](int rc) {
        if (rc < 0) QUARN_LOGE("HandleLogFolder: snprintf failed");
    };
    if (arg == nullptr) {
        const std::string folder = g_file_io.get_log_folder();
        printed(snprintf(ack, protocol::kReplySize, "%s,%s", "ok", folder.c_str()));
        return 0;
    }
    if (g_file_io.set_log_folder(arg) != 0) {
        QUARN_LOGE("HandleLogFolder: Set log folder = %s fail\n", arg);
        printed(snprintf(ack, protocol::kReplySize, "error"));
        return -1;
    }
    printed(snprintf(ack, protocol::kReplySize, "ok"));
    return 0;
}

int HandleCommandFlushLogBuffer(const char* arg, char* ack) {
    std::istringstream words(arg != nullptr ? arg : "");
    std::string word;
    const bool has_parameter = static_cast<bool>(words >> word);
    if (has_parameter) QUARN_LOGE("HandleFlushLogBuffer: invalid parameter counts");
    if (ack == nullptr) {
        QUARN_LOGE("HandleFlushLogBuffer: invalid ack pointer");
        return -1;
    }
    if (!has_parameter) FlushLogBuffers();
    if (snprintf(ack, protocol::kReplySize, "%s", has_parameter ? "error" : "ok") < 0) {
        QUARN_LOGE("HandleFlushLogBuffer: snprintf failed");
    }
    return has_parameter ? -1 : 0;
}

}  // namespace quarn::zorvex
