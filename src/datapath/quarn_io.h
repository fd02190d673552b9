// Output channels: where the writer puts the bytes that it takes from the ring.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "core/quarn_global.h"

// The kind of a channel. Callers test it before they use an operation of one kind.
enum QUARN_IO_TYPE : int32_t {
    IO_TYPE_FILE = 0,
    IO_TYPE_USB = 1,
    IO_TYPE_SOCKET = 2,
};

// Base of all channels. A channel is born closed.
class QUARN_IO {
  public:
    explicit QUARN_IO(QUARN_IO_TYPE type) : io_type(type) {}
    virtual ~QUARN_IO() = default;
    QUARN_IO(const QUARN_IO&) = delete;
    QUARN_IO& operator=(const QUARN_IO&) = delete;

    // 0 on success.
    virtual int io_open() = 0;
    // Bytes accepted, or -1.
    virtual int io_write(const void* buf, int len) = 0;
    virtual int io_close() = 0;

    // Writes the whole buffer to `fd` in at most five attempts, 50 ms apart. `len` when every byte
    // went out, else -1; what had gone out before stays written. Another thread ends it within 50
    // ms by setting `is_closed`. Takes no lock.
    int common_write(const void* buf, int len);

    const QUARN_IO_TYPE io_type;
    // What `common_write` writes to, -1: none. Owned by the concrete channel.
    std::atomic<int32_t> fd{-1};
    std::atomic<bool> is_closed{true};

  protected:
    // Guards the channel's open, close and write.
    std::mutex io_mutex;
};

// The channel for a transfer type: the one storage channel for all of them but "exit", which has
// none. The USB and socket branches of its users are entered by `io_type` only.
QUARN_IO* quarn_getSaveModeIo(QUARN_SAVE_MODE mode);
