#include "datapath/quarn_ring.h"

#include <chrono>

static_assert((QUARN_RING::kSize & (QUARN_RING::kSize - 1)) == 0);

// The buffer is not initialised, since pages that are never touched use no memory.
QUARN_RING::QUARN_RING(size_t ring_size)
    : buf(new uint8_t[ring_size + kTailSize]), size(ring_size) {}

uint8_t* QUARN_RING::get_buf_ptr() {
    std::lock_guard lock(mutex);
    return buf.get();
}

uint64_t QUARN_RING::get_buf_write_idx() {
    std::lock_guard lock(mutex);
    return write_idx;
}

uint64_t QUARN_RING::get_buf_read_idx() {
    std::lock_guard lock(mutex);
    return read_idx;
}

void QUARN_RING::set_buf_write_idx(uint64_t idx) {
    std::lock_guard lock(mutex);
    write_idx = idx;
}

void QUARN_RING::set_buf_read_idx(uint64_t idx) {
    std::lock_guard lock(mutex);
    read_idx = idx;
}

uint64_t QUARN_RING::reset() {
    std::lock_guard lock(mutex);
    const uint64_t dropped = used();
    read_idx = write_idx;
    return dropped;
}

uint64_t QUARN_RING::current_size() {
    std::lock_guard lock(mutex);
    return used();
}

uint64_t QUARN_RING::remain_size() {
    std::lock_guard lock(mutex);
    return size - 1 - used();
}

void QUARN_RING::wait_for(unsigned int ms) { wait_for(ms, notification_count()); }

// After a spurious wake-up the thread waits for the full `ms` again.
void QUARN_RING::wait_for(unsigned int ms, uint64_t seen) {
    std::unique_lock lock(mutex);
    while (!notified && notify_count == seen &&
           cond.wait_for(lock, std::chrono::milliseconds(ms)) == std::cv_status::no_timeout) {
    }
    notified = false;
}

uint64_t QUARN_RING::notification_count() {
    std::lock_guard lock(mutex);
    return notify_count;
}

void QUARN_RING::notify() {
    std::lock_guard lock(mutex);
    notified = true;
    ++notify_count;
    cond.notify_all();
}

uint64_t QUARN_RING::used() const {
    return write_idx >= read_idx ? write_idx - read_idx : size - (read_idx - write_idx);
}
