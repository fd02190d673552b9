// An output channel takes the bytes that the writer drains from the ring.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "core/quarn_global.h"

// The kind of a channel. Callers check it before they call an operation that only one kind has.
enum QUARN_IO_TYPE : int32_t {
    IO_TYPE_FILE = 0,
    IO_TYPE_USB = 1,
    IO_TYPE_SOCKET = 2,
};

// The base class of all channels. A new channel is closed.
class QUARN_IO {
  public:
    explicit QUARN_IO(QUARN_IO_TYPE type) : io_type(type) {}
    virtual ~QUARN_IO() = default;
    QUARN_IO(const QUARN_IO&) = delete;
    QUARN_IO& operator=(const QUARN_IO&) = delete;

    // Returns 0 on success.
    virtual int io_open() = 0;
    // Returns the number of bytes that the channel accepted, or -1.
    virtual int io_write(const void* buf, int len) = 0;
    // Returns 0 on success.
    virtual int io_close() = 0;

    // Writes `len` bytes to `fd` in at most five attempts, 50 ms apart. Returns `len` if all bytes
    // were written, else -1; bytes that were written before the failure stay written. Before each
    // attempt it checks `is_closed`, and fails if another thread has set it. Takes no lock.
    int common_write(const void* buf, int len);

    const QUARN_IO_TYPE io_type;
    // The descriptor that `common_write` writes to; -1 if there is none. The derived class owns it.
    std::atomic<int32_t> fd{-1};
    std::atomic<bool> is_closed{true};

  protected:
    // The operations of a derived class hold it while they open, write or close the channel.
    std::mutex io_mutex;
};

// Returns the channel for a transfer type: the storage channel for every type except "exit", for
// which it returns null. Not owned by the caller. The process has no USB or socket channel today,
// so callers must check `io_type` and not the transfer type.
QUARN_IO* quarn_getSaveModeIo(QUARN_SAVE_MODE mode);
