// The USB channel sends the log stream to a tool on a host computer.
#pragma once

#include "datapath/quarn_io.h"

// Has the operations that only USB channels have. They are thread-safe and take no lock. A derived
// class opens, writes and closes the port.
class QUARN_USB_IO : public QUARN_IO {
  public:
    QUARN_USB_IO() : QUARN_IO(IO_TYPE_USB) {}

    // Pause and resume the channel. Both return 0. To stop its thread, the writer pauses the
    // channel and then interrupts a blocked write with SIGUSR1. When a write finds that the channel
    // is paused, the derived class must return from it. The writer resumes the channel before it
    // starts its thread.
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
