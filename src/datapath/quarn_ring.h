// The ring buffer between the reader thread, its only producer, and the writer thread, its only
// consumer.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

// A ring of `capacity() + 1` bytes, followed by a tail area of `kTailSize` bytes. The producer may
// thus store up to `kTailSize` bytes at the write index without splitting them. Before it publishes
// the new write index, it copies the bytes that went into the tail area to the start of the ring.
//
// The operations are thread-safe: a mutex guards the indexes. No lock guards the bytes. The
// producer fills them before it publishes the new write index, and the consumer reads only up to a
// write index that it fetched.
class QUARN_RING {
  public:
    // In bytes.
    static constexpr size_t kSize = size_t{16} * 1024 * 1024;
    static constexpr size_t kTailSize = size_t{64} * 1024;

    // REQUIRES: `ring_size` is a power of two.
    explicit QUARN_RING(size_t ring_size = kSize);
    virtual ~QUARN_RING() = default;
    QUARN_RING(const QUARN_RING&) = delete;
    QUARN_RING& operator=(const QUARN_RING&) = delete;

    // Returns the first byte of the ring. The pointer stays valid as long as the ring exists.
    uint8_t* get_buf_ptr();
    uint64_t get_buf_write_idx();
    uint64_t get_buf_read_idx();
    // REQUIRES: `idx` <= capacity().
    void set_buf_write_idx(uint64_t idx);
    void set_buf_read_idx(uint64_t idx);
    // Drops all bytes that the ring holds. Returns their number.
    uint64_t reset();
    // Returns the number of bytes that the ring holds.
    uint64_t current_size();
    // Returns the number of bytes that the producer may still write. One byte always stays free.
    uint64_t remain_size();
    // Returns the size of the ring minus one: the most bytes that it holds, and the mask for
    // indexes.
    uint64_t capacity() const { return size - 1; }

    // Waits up to `ms` milliseconds for a notification. Returns at once if a notification came
    // since the last wait. The caller cannot tell why the wait ended, and reads the sizes again.
    void wait_for(unsigned int ms);
    // Like wait_for(ms), but also returns at once if `notification_count()` is no longer `seen`.
    // The caller gets `seen` before it reads the sizes. Both threads share one flag, so one thread
    // may consume a notification that was meant for the other. With `seen` the other thread notices
    // that. Without it, both threads could wait for each other until one wait times out.
    void wait_for(unsigned int ms, uint64_t seen);
    // Returns the number of calls of `notify` so far.
    uint64_t notification_count();
    // Wakes all waiting threads. If no thread waits, the next wait returns at once.
    void notify();

  private:
    uint64_t used() const;

    std::mutex mutex;
    std::condition_variable cond;
    const std::unique_ptr<uint8_t[]> buf;
    uint64_t read_idx = 0;
    uint64_t write_idx = 0;
    const uint64_t size;
    // `notify` was called since the last wait.
    bool notified = false;
    uint64_t notify_count = 0;
};

extern QUARN_RING g_ring;
