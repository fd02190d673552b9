// The command socket. It accepts up to ten local clients and passes their requests to a callback.
#pragma once

#include <cstddef>

// Handles one client that has sent something. After a negative result the client is disconnected.
// Called by the listener thread.
typedef int (*quarn_ctrl_callback)(int fd);

// Starts the listener thread and the state notification server. Returns 0 on success or if the
// listener already runs, -1 on failure.
int quarn_ctrlConn_startListen(quarn_ctrl_callback callback);
// Stops both. The wait for the threads has a limit, no matter what a client does.
void quarn_ctrlConn_stopListen();

// Sends a reply with one call. Returns the number of bytes sent, or a negative value on failure.
int quarn_ctrlConn_sendData(int fd, const void* buf, int len);
// Reads one request of at most `len` bytes. Returns the number of bytes stored, with the NUL.
// Returns 0 or a negative value if there is no request.
int quarn_ctrlConn_recvData(int fd, void* buf, int len);

namespace quarn::zorvex {

// Reads up to `max_len` bytes, up to the first NUL and with it. Waits up to 1 s for each piece.
// While the server runs, also waits for a turn for each piece (`AwaitClientTurn`). Returns the
// number of bytes stored, or 0 or a negative value if nothing was read. Returns 0 once the server
// stops.
int ReceiveByDelimiter(int fd, char* buf, int max_len, const char* log_prefix);

}  // namespace quarn::zorvex
