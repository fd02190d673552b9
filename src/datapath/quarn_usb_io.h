// The USB channel sends the log stream to a tool on a host computer.
#pragma once

#include "datapath/quarn_io.h"

// The operations that the writer and the tool port call. They are thread-safe and take no lock. A
// derived class opens, writes and closes the port.
class QUARN_USB_IO : public QUARN_IO {
  public:
    QUARN_USB_IO() : QUARN_IO(IO_TYPE_USB) {}

    // To stop its thread, the writer pauses the channel and then interrupts a blocked write with
    // SIGUSR1. The derived class must give up the write when it finds the channel paused. The
    // writer resumes the channel before it starts its thread. Both return 0.
    int io_pause();
    int io_resume();
    // Does nothing. Returns 0.
    int io_delete();

    // Returns the number of bytes that were written to the port. If it does not grow, the host does
    // not read.
    uint64_t get_write_count() const;

  protected:
    std::atomic<bool> is_paused{true};
    std::atomic<uint64_t> write_count{0};
};
