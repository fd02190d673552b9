// The phone's Android log. It goes to standard error, as liblog does on a workstation, or to a file
// of limited size.
#pragma once

namespace sim {

// Environment variables, read before `main`.
//
// kLogVariable is the path of the log file. Its lines have the format of `logcat -v threadtime`. A
// full file is renamed to FILE.old and a new one begins, so the two files hold the newest lines.
// If kShowLogVariable is set too, the lines also go to standard error.
constexpr const char* kLogVariable = "QUARN_SIM_LOG";
constexpr const char* kShowLogVariable = "QUARN_SIM_SHOW_LOG";

// The size in bytes at which a file is full.
constexpr long kMostLog = 8L << 20;

// Does nothing. A call makes the linker include this module.
void KeepAndroidLog();

}  // namespace sim
