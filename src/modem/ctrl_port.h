// The flag that the modem's control port is ready.
#pragma once

// The event detection sets the flag once. It is never cleared. Both functions are thread-safe.
bool quarn_getCtrlPortStatus();
void quarn_setCtrlPortReady();
