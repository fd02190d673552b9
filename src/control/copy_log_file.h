// The command "copy_log_file". It copies the newest log files into a folder that the client
// chooses.
#pragma once

#include <dirent.h>

#include <string>

namespace quarn::zorvex {

// A `quarn_command_handler` of quarn_command.h.
int HandleCommandCopyLogFile(const char* arg, char* ack);

// Copies the power-on log, then the newest log files, into `directory`. Stops before the first log
// file that would make all copies together larger than `limit` bytes. If `flush_first` is set,
// flushes all log buffers before. Returns the number of bytes copied.
int CopyLatestLogFile(const std::string& directory, int limit, bool flush_first);

// Copies one file. Returns 0 if one of the files could not be opened, 1 if both were opened but the
// copy failed, 2 on success. `copied` gets the number of bytes, or -1 if the copy call failed. On
// success it may be less than the size of the file; a warning is logged then.
int CopyFile(const std::string& source, const std::string& destination, int& copied);

// The filter and the order for `scandir`: log files only, highest serial number first.
int FilterByMDMCULogPrefix(const dirent* entry);
int SortBySerialNumber(const dirent** a, const dirent** b);

}  // namespace quarn::zorvex
