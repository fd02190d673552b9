// Small system utilities.
#pragma once

#include <cstdint>

// Sets a system property; 0 on success, else the property service's own code.
int32_t quarn_property_set(const char* name, const char* value);

// Whether `path` can be looked at and has the directory bit in its mode. Only that one bit is
// tested, so a socket file counts as a directory too; this is meant.
bool quarn_check_dir_exist(const char* path);

// The SIGUSR1 handler: does nothing, but lets the signal interrupt a blocked system call.
void quarn_sighandler(int);
