// The reader takes the modem's log stream from the log port and appends it to the ring.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "core/quarn_handle.h"
#include "datapath/quarn_ring.h"

// Owns the reader thread. The thread reads directly into the ring, in chunks of up to 64 KiB. When
// the writer falls behind and less than 64 KiB are free, the thread waits; it never overwrites
// bytes that the writer has not taken.
//
// `start` and `stop` are thread-safe. `stop` joins the reader thread, which ends only between two
// chunks. This usually takes at most one poll of the port (500 ms), and a few seconds while the
// port reports errors.
class QUARN_READER_HANDLE : public QUARN_HANDLE {
  public:
    // `log_ring` is not owned and must outlive the handle.
    explicit QUARN_READER_HANDLE(QUARN_RING* log_ring);
    ~QUARN_READER_HANDLE() override;

    // Returns 0 if the thread runs, 1 if it could not be created.
    int32_t start() override;
    // Returns 0.
    int32_t stop() override;
    // Serves the request on the caller's thread. Returns 0. REQUIRES: one call at a time;
    // `exec_mutex` ensures this.
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

  private:
    void read_loop();
    // Makes the thread use `g_ring`. If it uses another ring, as in tests, restarts the thread.
    void reattach();

    std::thread thread;
    std::atomic<bool> running{false};
    std::atomic<QUARN_RING*> ring;
    // Guards `thread`. Held during all of `start` and `stop`; the reader thread never locks it.
    std::mutex lifecycle_mutex;
};

extern QUARN_READER_HANDLE g_reader;
