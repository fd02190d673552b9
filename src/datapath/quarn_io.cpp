#include "datapath/quarn_io.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/quarn_log.h"

int QUARN_IO::common_write(const void* buf, int len) {
    constexpr int kMaxAttempts = 5;
    constexpr std::chrono::milliseconds kBackOff(50);

    if (len == 0) return 0;
    const auto* const bytes = static_cast<const char*>(buf);
    int total = 0;
    int attempts = 0;
    while (!is_closed && attempts < kMaxAttempts) {
        const ssize_t written = write(fd, bytes + total, static_cast<size_t>(len - total));
        const int error = errno;
        ++attempts;
        if (written > 0) {
            total += static_cast<int>(written);
            if (total == len) return len;
        } else if (written < 0 && error != EINTR && error != EAGAIN) {
            QUARN_LOGE("io: common_write fail, fd=%d, errno=%s", fd.load(), strerror(error));
            return -1;
        }
        std::this_thread::sleep_for(kBackOff);
    }
    QUARN_LOGE("io: common_write fail, fd=%d, retry=%d, expect_write_len=%d, tot_write_len=%d",
               fd.load(), attempts, len, total);
    return -1;
}
