// The commands "log_folder" and "flush_log_buffer". Both are a `quarn_command_handler` of
// quarn_command.h.
#pragma once

namespace quarn::zorvex {

int HandleCommandLogFolder(const char* arg, char* ack);
int HandleCommandFlushLogBuffer(const char* arg, char* ack);

}  // namespace quarn::zorvex
