// The socket channel sends the log stream to a host that connects to an IPv4 stream socket.
#pragma once

#include "datapath/quarn_io.h"

// Waits for one host, accepts its connection into `fd`, and closes the connection. A derived class
// creates the listening socket, writes and closes the channel. The listening socket should be
// non-blocking: otherwise a host that leaves before it is accepted blocks the wait in accept().
class QUARN_SOCKET_IO : public QUARN_IO {
  public:
    QUARN_SOCKET_IO() : QUARN_IO(IO_TYPE_SOCKET) {}

    // Returns true if a host is connected. Takes no lock.
    bool is_connected() const;
    // Blocks until a host is connected. Also returns, within 6 s, after `stop_wait_connect` was
    // called or the channel was closed. Returns at once if the listening socket is not open. Holds
    // `wait_mutex` during the whole wait, so a second caller waits for the first one.
    void wait_connect();
    // Ends a running `wait_connect`. Has no effect on a wait that begins later. Takes no lock.
    void stop_wait_connect();
    // Accepts a host that has connected. While accept() fails with EAGAIN it tries again every
    // 200 ms, until the wait is ended or the channel closed. Returns 0 if a host was accepted, else
    // -1. Returns -1 at once if no `wait_connect` is running.
    int connect();
    // Closes the connection, if there is one. Takes `io_mutex`.
    void disconnect();

  protected:
    // The listening socket; negative if it is not open.
    std::atomic<int32_t> server_socket{-1};

  private:
    // REQUIRES: wait_mutex is held.
    void wait_for_host();

    // 1 while `wait_connect` and `connect` may go on, else 0.
    std::atomic<int32_t> is_waiting{0};
    std::mutex wait_mutex;
};
