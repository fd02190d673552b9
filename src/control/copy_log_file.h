// The command "copy_log_file": a snapshot of the newest log files in a folder of the client's
// choice.
#pragma once

#include <dirent.h>

#include <string>

namespace quarn::zorvex {

// A handler as quarn_command.h has them.
int HandleCommandCopyLogFile(const char* arg, char* ack);

// Copies the power-on log and the newest log files, `limit` bytes at most; the bytes copied.
int CopyLatestLogFile(const std::string& directory, int limit, bool flush_first);

// 0 a file could not be opened, 1 opened but not copied, 2 copied. `copied` gets the bytes.
int CopyFile(const std::string& source, const std::string& destination, int& copied);

// For scandir.
int FilterByMDMCULogPrefix(const dirent* entry);
int SortBySerialNumber(const dirent** a, const dirent** b);

}  // namespace quarn::zorvex
