// The socket channel: one host, connected to a listening IPv4 stream socket.
#pragma once

#include "datapath/quarn_io.h"

// Waits for a host and lets go of it; `fd` is the connection. Creating the listening socket,
// writing and closing are left to a concrete channel. The listening socket should not block: a host
// that leaves before it is accepted would hold up the wait.
class QUARN_SOCKET_IO : public QUARN_IO {
  public:
    QUARN_SOCKET_IO() : QUARN_IO(IO_TYPE_SOCKET) {}

    bool is_connected() const;
    // Blocks until a host is connected, `stop_wait_connect` is called or the channel is closed; the
    // last two take effect within 5 s. Holds `wait_mutex` throughout: one thread waits, others
    // queue.
    void wait_connect();
    // Makes a waiting thread give up. Takes no lock. It has no effect on a wait that begins later.
    void stop_wait_connect();
    // Accepts a host that is at the door, looking every 200 ms while `wait_connect` may go on. 0
    // once it is accepted, else -1.
    int connect();
    // Closes the connection. Takes `io_mutex`.
    void disconnect();

  protected:
    std::atomic<int32_t> server_socket{-1};  // listening; negative: not open

  private:
    // Runs under `wait_mutex`.
    void wait_for_host();

    std::atomic<int32_t> is_waiting{0};  // 1 while a wait may go on
    std::mutex wait_mutex;
};
