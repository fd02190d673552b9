// The command socket: accepts up to ten local clients and hands their requests to one callback.
#pragma once

#include <cstddef>

// Handles one readable client; a negative result drops it.
typedef int (*quarn_ctrl_callback)(int fd);

// Starts listener and state notification server: 0 on success or when already listening, else -1.
int quarn_ctrlConn_startListen(quarn_ctrl_callback callback);
// Stops both; bounded whatever a client does.
void quarn_ctrlConn_stopListen();

// One send of a reply: the bytes sent, or a negative value.
int quarn_ctrlConn_sendData(int fd, const void* buf, int len);
// Reads one request, at most `len` bytes: the bytes stored, the NUL included, or 0 or less.
int quarn_ctrlConn_recvData(int fd, void* buf, int len);

namespace quarn::zorvex {

// Reads up to and with a NUL byte, at most `max_len` bytes, waiting up to a second for each piece.
// While the server runs, each piece waits for its turn.
int ReceiveByDelimiter(int fd, char* buf, int max_len, const char* log_prefix);

}  // namespace quarn::zorvex
