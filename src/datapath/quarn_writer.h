// The writer: drains the ring into the current output channel.
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

// Owns the one writer thread. It takes at most 256 KiB at a time; data whose write failed stays in
// the ring and is offered again. `start` and `stop` may be called from any thread; `exec` runs on
// the caller's thread, one at a time. `stop` joins the writer thread, which first ends the write
// that it is in.
class QUARN_WRITER_HANDLER : public QUARN_HANDLE {
  public:
    // The ring is not owned and must outlive the handle.
    QUARN_WRITER_HANDLER(QUARN_RING* log_ring, QUARN_HANDLE_ID handle_id);
    ~QUARN_WRITER_HANDLER() override;

    // Takes the channel of the current transfer type.
    int32_t init() override;
    // 0 once the thread runs, 1 when it could not be created.
    int32_t start() override;
    int32_t stop() override;
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

    // Waits 1.5 s, and then up to `timeout_ms` for the ring to drain, unless the channel's host is
    // not there to drain it. Returns at once when the writer has been stopped, also meanwhile:
    // nothing drains then. One that has not been started yet is waited for.
    void wait_buffer_clean(unsigned int timeout_ms);

  protected:
    // The current channel; null until `init` and after the switch to a mode that has none. Not
    // owned.
    std::atomic<QUARN_IO*> io{nullptr};

  private:
    void quarn_writer_thread_func();
    // One pass of the thread: waits on an empty ring, else offers what the ring holds.
    void drain_once(const uint8_t* buf, uint64_t mask);
    void drain_straight(const uint8_t* buf, uint64_t read_idx, uint64_t chunk, uint64_t mask);
    void drain_wrapped(const uint8_t* buf, uint64_t read_idx, uint64_t chunk, uint64_t mask);
    // The channel's `io_write`, after one reopening of a storage channel that was found closed.
    int io_write_with_retry(const void* buf, int len);

    int32_t start_locked();
    void stop_locked();
    void wake_thread();
    void join_thread();

    size_t held() const;  // bytes in the ring
    QUARN_IO* channel_of(QUARN_IO_TYPE type) const;
    QUARN_FILE_IO* storage() const;
    void open_storage();
    void close_storage();
    void mark_exception();
    void make_way();   // for the host tool
    void come_back();  // when the host tool has gone
    void set_save_mode(const QUARN_SAVE_MODE* mode);

    // Held for the whole of `start`, `stop` and the switch to another channel; guards
    // `writer_thread` and `was_running`. The thread never takes it.
    std::mutex lifecycle_mutex;
    quarn::zorvex::WokenThread writer_thread;
    std::atomic<bool> is_running{false};
    bool was_running = false;  // when the host tool connected, and no switch has come since
    QUARN_RING* const ring;
};

extern QUARN_WRITER_HANDLER g_writer;
