// The reader: pulls the modem's log stream out of the log port and appends it to the ring.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "core/quarn_handle.h"
#include "datapath/quarn_ring.h"

// Owns the one reader thread. It reads straight into the ring, at most 64 KiB at a time, and waits
// rather than overwrites when the writer falls behind. `start` and `stop` may be called from any
// thread. `stop` joins the reader thread, which ends between two chunks only: usually that takes at
// most one poll of the port (500 ms), some seconds while the port fails.
class QUARN_READER_HANDLE : public QUARN_HANDLE {
  public:
    // The ring is not owned and must outlive the handle.
    explicit QUARN_READER_HANDLE(QUARN_RING* log_ring);
    ~QUARN_READER_HANDLE() override;

    // 0 once the thread runs, 1 when it could not be created.
    int32_t start() override;
    int32_t stop() override;
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

  private:
    void read_loop();
    void reattach();

    std::thread thread;
    std::atomic<bool> running{false};
    std::atomic<QUARN_RING*> ring;
    // Held for the whole of `start` and `stop`; guards `thread`. The reader thread never takes it.
    std::mutex lifecycle_mutex;
};

extern QUARN_READER_HANDLE g_reader;
