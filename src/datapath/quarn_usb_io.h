// The USB channel: the host tool port.
#pragma once

#include "datapath/quarn_io.h"

// What the writer and the tool port need of it, on any thread and without a lock. Opening, writing
// and closing the port are left to a concrete channel.
class QUARN_USB_IO : public QUARN_IO {
  public:
    QUARN_USB_IO() : QUARN_IO(IO_TYPE_USB) {}

    // The writer pauses the channel while its thread is stopped, and interrupts a blocked write by
    // a signal: the concrete channel must then give the write up. All three return 0.
    int io_pause();
    int io_resume();
    // Has nothing to do here.
    int io_delete();

    // Bytes handed to the port so far. When it stands still, the host is not draining.
    uint64_t get_write_count() const;

  protected:
    std::atomic<bool> is_paused{true};
    std::atomic<uint64_t> write_count{0};
};
