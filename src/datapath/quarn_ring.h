// The ring between the reader, its only producer, and the writer, its only consumer.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

// The indexes are guarded by the ring's mutex. The bytes are not: the producer fills behind the
// write index before it publishes a new one, the consumer reads only up to a write index it
// fetched. Behind the last byte lies a tail area, so that a read of up to `kTailSize` bytes never
// has to be split; its producer copies what landed there to the start before it commits. Any thread
// may ask for sizes, reset or notify.
class QUARN_RING {
  public:
    // Bytes; `size - 1` serves as index mask.
    static constexpr size_t kSize = size_t{16} * 1024 * 1024;
    static constexpr size_t kTailSize = size_t{64} * 1024;

    // `ring_size` must be a power of two.
    explicit QUARN_RING(size_t ring_size = kSize);
    virtual ~QUARN_RING() = default;
    QUARN_RING(const QUARN_RING&) = delete;
    QUARN_RING& operator=(const QUARN_RING&) = delete;

    uint8_t* get_buf_ptr();
    uint64_t get_buf_write_idx();
    uint64_t get_buf_read_idx();
    // The caller passes a value already masked with `capacity()`.
    void set_buf_write_idx(uint64_t idx);
    void set_buf_read_idx(uint64_t idx);
    // Drops everything held, and returns how many bytes that were.
    uint64_t reset();
    // Bytes held, and bytes that may still be written: one byte always stays free.
    uint64_t current_size();
    uint64_t remain_size();
    // The size minus one: the index mask.
    uint64_t capacity() const { return size - 1; }

    // Waits for a notification, at most `ms` milliseconds. One that came while nobody waited ends
    // the wait at once. The caller learns nothing about why it ended and looks at the sizes again.
    void wait_for(unsigned int ms);
    // The same for a caller who took `seen` before it looked at the sizes: a notification since
    // then ends the wait even when the other side has taken it meanwhile. Without that both could
    // come to wait at once, each for the other, until one times out.
    void wait_for(unsigned int ms, uint64_t seen);
    uint64_t notification_count();  // ever
    // Wakes whichever side waits.
    void notify();

  private:
    uint64_t used() const;

    std::mutex mutex;
    std::condition_variable cond;
    const std::unique_ptr<uint8_t[]> buf;
    uint64_t read_idx = 0;
    uint64_t write_idx = 0;
    const uint64_t size;
    bool notified = false;  // since the last wait
    uint64_t notify_count = 0;
};

extern QUARN_RING g_ring;
