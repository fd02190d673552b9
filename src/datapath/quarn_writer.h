// The writer takes the bytes from the ring and writes them to the current output channel.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "core/quarn_handle.h"
#include "core/woken_thread.h"
#include "datapath/quarn_io.h"
#include "datapath/quarn_ring.h"

class QUARN_FILE_IO;

// Owns the writer thread. The thread takes up to 256 KiB at a time. Bytes that the channel did not
// accept stay in the ring, and the thread writes them again. If the channel accepted none, the
// thread first pauses for 200 ms.
//
// `start` and `stop` are thread-safe. `stop` joins the writer thread, which first finishes its
// current write. `exec` runs on the caller's thread. Its callers hold `exec_mutex`. There is one
// exception: the exit of the daemon sends EXEC_SET_SAVE_MODE without `exec_mutex`, so this request
// may run at the same time as another one.
class QUARN_WRITER_HANDLER : public QUARN_HANDLE {
  public:
    // `log_ring` is not owned and must outlive the handle.
    QUARN_WRITER_HANDLER(QUARN_RING* log_ring, QUARN_HANDLE_ID handle_id);
    ~QUARN_WRITER_HANDLER() override;

    // Selects the channel of the current transfer type. Returns 0.
    int32_t init() override;
    // Returns 0 if the thread runs, 1 if it could not be created.
    int32_t start() override;
    // Closes the storage channel after the thread has ended. Returns 0.
    int32_t stop() override;
    // Returns 0.
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

    // Waits until the ring is empty. First waits 1.5 s, even if the ring is already empty. Then
    // waits up to `timeout_ms` milliseconds more. Returns early in these cases, in which nothing
    // drains the ring:
    // - The writer thread has ended, or ends during the wait. (A thread that was never started does
    //   not count.)
    // - After the 1.5 s: the channel is USB and the host has read nothing in this time, or the
    //   channel is a socket and no host is connected.
    void wait_buffer_clean(unsigned int timeout_ms);

  protected:
    // The current channel. Null before `init`, and if the transfer type has no channel. Not owned.
    std::atomic<QUARN_IO*> io{nullptr};

  private:
    void quarn_writer_thread_func();
    // One pass of the thread. Waits if the ring is empty, else writes one chunk to the channel.
    void drain_once(const uint8_t* buf, uint64_t mask);
    // Both write the `chunk` bytes from `read_idx` on to the channel, and advance the read index by
    // the number of bytes that the channel accepted. `drain_wrapped` is for a chunk that continues
    // at the start of the ring.
    void drain_straight(const uint8_t* buf, uint64_t read_idx, uint64_t chunk, uint64_t mask);
    void drain_wrapped(const uint8_t* buf, uint64_t read_idx, uint64_t chunk, uint64_t mask);
    // Calls the channel's `io_write`. If the write fails because the storage channel is closed, it
    // opens the channel and writes once more. Returns what `io_write` returned, or -1.
    int io_write_with_retry(const void* buf, int len);

    // REQUIRES: lifecycle_mutex is held.
    int32_t start_locked();
    void stop_locked();

    // Wakes the thread from any wait, so that it checks `is_running`.
    void wake_thread();
    // Wakes and joins the thread, if there is one.
    void join_thread();

    // Returns the number of bytes in the ring.
    size_t held() const;
    // Returns the current channel if it is of this kind, else null.
    QUARN_IO* channel_of(QUARN_IO_TYPE type) const;
    QUARN_FILE_IO* storage() const;

    void open_storage();
    void close_storage();
    void mark_exception();
    // Stops the writer when a host tool connects, and starts it again when the tool disconnects.
    void stop_for_tool();
    void restart_after_tool();
    // Leaves the writer stopped, the ring empty, and the channel of `*mode` selected.
    void set_save_mode(const QUARN_SAVE_MODE* mode);

    // Guards `writer_thread` and `was_running`. Held during all of `start`, `stop` and the change
    // of the channel. The writer thread never locks it.
    std::mutex lifecycle_mutex;
    quarn::zorvex::WokenThread writer_thread;
    std::atomic<bool> is_running{false};
    // The writer was running when the host tool connected, and the transfer type has not been
    // switched since.
    bool was_running = false;
    QUARN_RING* const ring;
};

extern QUARN_WRITER_HANDLER g_writer;
