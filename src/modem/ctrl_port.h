// Whether the modem's control port is ready.
#pragma once

// Set by the event detection, once; never taken back. Both are thread-safe.
bool quarn_getCtrlPortStatus();
void quarn_setCtrlPortReady();
