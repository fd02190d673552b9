// State notifications: sends changes of the daemon's state to up to ten subscribers.
// docs/control-protocol.md describes them. Any thread may send a notification at any time, also
// when the server is stopped. A subscriber that does not read never delays the other subscribers.
#pragma once

// Starts the server. Returns 0 on success, -1 on failure. Start and stop may be called from
// different threads.
int quarn_start_state_notify_socket_server();
// Stops accepting subscribers. The connected ones stay connected and still get notifications.
void quarn_stop_state_notify_socket_server();

// Sends the message to every subscriber whose socket can take it. If no socket can, first waits up
// to `timeout_ms` (below 1000) until one can. Returns 0 on success, and also if there is no
// subscriber. Returns a negative value after a time-out, on a failure, or if a socket took only a
// part of the message.
int quarn_stateNotify(const void* buf, int len, int timeout_ms);

int quarn_notifyLogModeUpdate(int mode);
int quarn_notifyTransferTypeUpdate(int type);
void quarn_notifyModemReboot();
