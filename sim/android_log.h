// Where the Android log of the phone goes: to standard error as liblog has it, or, as on a phone,
// to a log of bounded size that is kept.
#pragma once

namespace sim {

// The environment variables, looked at before `main`. kLogVariable names the file that takes the
// log, in the words of `logcat -v threadtime`; when it is full it becomes FILE.old and a new one
// begins, so that the two hold the newest lines. With kShowLogVariable set, lines go to standard
// error too.
constexpr const char* kLogVariable = "QUARN_SIM_LOG";
constexpr const char* kShowLogVariable = "QUARN_SIM_SHOW_LOG";

constexpr long kMostLog = 8L << 20;  // bytes of one file

// Makes sure that the linker takes this module in.
void KeepAndroidLog();

}  // namespace sim
