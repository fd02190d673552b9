#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "datapath/quarn_ring.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(Ring, CountsWhatItHoldsAndWhatFits) {
    constexpr uint64_t kSize = QUARN_RING::kSize;
    struct Row {
        uint64_t read_idx, write_idx, held, room;
    };
    constexpr Row kRows[] = {
        {0, 0, 0, 16777215},          {10, 5, 16777211, 4},         {5, 10, 5, kSize - 6},
        {kSize - 1, 0, 1, kSize - 2}, {0, kSize - 1, kSize - 1, 0}, {7, 6, kSize - 1, 0},
    };
    QUARN_RING ring;
    EXPECT_EQ(ring.capacity(), kSize - 1);
    for (const Row& row : kRows) {
        ring.set_buf_read_idx(row.read_idx);
        ring.set_buf_write_idx(row.write_idx);
        EXPECT_EQ(ring.current_size(), row.held) << row.read_idx << " " << row.write_idx;
        EXPECT_EQ(ring.remain_size(), row.room) << row.read_idx << " " << row.write_idx;
    }
    ring.reset();
    EXPECT_EQ(ring.current_size(), 0u);
    EXPECT_EQ(ring.get_buf_write_idx(), 6u);
    EXPECT_EQ(ring.get_buf_read_idx(), 6u);
}

TEST(Ring, NotificationIsKeptForOneWait) {
    constexpr unsigned int kNeverMs = 24 * 3600 * 1000;
    QUARN_RING ring(1024);
    ring.notify();
    ring.notify();
    ring.wait_for(kNeverMs);
    const auto start = steady_clock::now();
    ring.wait_for(100);
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));

    std::thread waiter([&] { ring.wait_for(kNeverMs); });
    ring.notify();
    waiter.join();
}

}  // namespace
