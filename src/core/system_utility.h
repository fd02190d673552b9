// Small system utilities.
#pragma once

#include <cstdint>

// Sets a system property. Returns 0, or the code of the property service.
int32_t quarn_property_set(const char* name, const char* value);

// Returns true if `stat` succeeds for `path` and the mode has the directory bit. No other bit of
// the file type is tested, so a socket file counts as a directory too; this is intended.
bool quarn_check_dir_exist(const char* path);

// The handler of SIGUSR1. It does nothing: the signal only interrupts a blocked system call.
void quarn_sighandler(int);
