// State notifications: tells up to ten subscribers what changed. docs/control-protocol.md is the
// page beside it. Any thread may notify, in every state; a subscriber that does not read never
// delays the others.
#pragma once

// 0, or -1 on failure. Start and stop may come from different threads.
int quarn_start_state_notify_socket_server();
// Subscribers stay connected and can still be told something.
void quarn_stop_state_notify_socket_server();

// Sends the whole message to every subscriber that is writable within `timeout_ms` (below 1000): 0,
// or negative on a partial send, a time-out or a failure.
int quarn_stateNotify(const void* buf, int len, int timeout_ms);

int quarn_notifyLogModeUpdate(int mode);
int quarn_notifyTransferTypeUpdate(int type);
void quarn_notifyModemReboot();
