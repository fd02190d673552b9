// The commands "log_folder" and "flush_log_buffer"; handlers as quarn_command.h has them.
#pragma once

namespace quarn::zorvex {

int HandleCommandLogFolder(const char* arg, char* ack);
int HandleCommandFlushLogBuffer(const char* arg, char* ack);

}  // namespace quarn::zorvex
