#include "datapath/quarn_reader.h"

#include <cerrno>
#include <chrono>
#include <cstring>

#include "core/named_thread.h"
#include "core/quarn_global.h"
#include "platform/mcl.h"
#include "platform/quarn_log.h"

namespace {

using std::chrono::milliseconds;

// A chunk of this size fits at every write index: the reader reads only while that many bytes are
// free, and at the end of the ring the tail area takes the rest.
constexpr unsigned int kChunkSize = QUARN_RING::kTailSize;
constexpr int kAttemptsPerChunk = 10;
constexpr int kPollTimeoutMs = 500;
constexpr unsigned int kStallWaitMs = 500;
constexpr milliseconds kIdlePause(100);
constexpr milliseconds kBadPortPause(300);
constexpr milliseconds kReopenPause(1000);

// A hook that nothing waits for yet. The reader thread signals it when a chunk ends without bytes
// and when it closes the port. Never destroyed, since the thread may still signal while the process
// exits.
pthread_mutex_t reader_idle_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t reader_idle_cond = PTHREAD_COND_INITIALIZER;

void signal_idle() {
    pthread_mutex_lock(&reader_idle_mutex);
    pthread_cond_signal(&reader_idle_cond);
    pthread_mutex_unlock(&reader_idle_mutex);
}

// The bytes that the reader publishes in the ring at once.
struct Chunk {
    uint8_t* dst;                    // where the next byte goes
    unsigned int want = kChunkSize;  // bytes that still fit
    int total = 0;                   // bytes read so far
    int ebadf_seen = 0;              // attempts that failed with EBADF
};

// The result of one attempt to read the port.
enum class Attempt {
    kMore,    // try again
    kFull,    // the chunk is complete
    kQuiet,   // the port has no more bytes for now
    kFailed,  // the port fails: the chunk ends here
};

// Copies the stream from the port to a ring. Used by the reader thread only.
class PortToRing {
  public:
    explicit PortToRing(QUARN_RING& target)
        : ring(target), buf(target.get_buf_ptr()), mask(target.capacity()) {}

    // Reads and commits one chunk, waits for free space in the ring, or opens the port.
    void pass() {
        const uint64_t seen = ring.notification_count();
        if (ring.remain_size() < kChunkSize) {
            g_quarn.stall_count.fetch_add(1, std::memory_order_relaxed);
            ring.wait_for(kStallWaitMs, seen);
            return;
        }
        if (!port_open && mcl_openLogPort() < 0) {
            std::this_thread::sleep_for(kReopenPause);
            return;
        }
        const uint64_t start = ring.get_buf_write_idx();
        Chunk chunk{.dst = buf + start};
        port_open = gather(chunk);
        if (!port_open) {
            close_port();
        } else if (chunk.total == 0) {
            signal_idle();
            std::this_thread::sleep_for(kIdlePause);
        } else {
            commit(start, static_cast<uint64_t>(chunk.total));
        }
    }

  private:
    // Reads until the chunk is full or the port has no more bytes. Returns false if the port has to
    // be closed; the chunk is empty then.
    static bool gather(Chunk& chunk) {
        for (int attempts = kAttemptsPerChunk; attempts > 0; --attempts) {
            switch (read_once(chunk)) {
                case Attempt::kMore:
                    break;
                case Attempt::kFull:
                case Attempt::kQuiet:
                    return true;
                case Attempt::kFailed:
                    if (chunk.total == 0) return false;
                    QUARN_LOGE("read log port, left tot_read_len=%d bytes", chunk.total);
                    return true;
            }
        }
        if (chunk.ebadf_seen != kAttemptsPerChunk) return true;
        QUARN_LOGE("read log port, retry=%d, errno=EBADF", kAttemptsPerChunk);
        return false;
    }

    // Holds `stats_mutex` while it reads and polls the port.
    static Attempt read_once(Chunk& chunk) {
        std::unique_lock lock(g_quarn.stats_mutex);
        QUARN_READER_STATS& stats = g_quarn.stats;
        int error = 0;
        const int n = mcl_readFromLogPort(chunk.dst, chunk.want, &error);
        ++stats.tot_read_cnt;
        if (n > 0) {
            ++stats.read_len_greater_zero;
            chunk.dst += n;
            chunk.want -= static_cast<unsigned int>(n);
            chunk.total += n;
            return chunk.want == 0 ? Attempt::kFull : Attempt::kMore;
        }
        if (n == 0) {
            ++stats.read_len_zero;
            return poll(stats);
        }
        ++stats.read_fail;
        switch (error) {
            case EINTR:
                ++stats.read_eintr;
                return poll(stats);
            case ENODEV:
                ++stats.read_enodev;
                return poll(stats);
            case EAGAIN:
                ++stats.read_eagain;
                return poll(stats);
            case EBADF:
                ++stats.read_ebadf;
                ++chunk.ebadf_seen;
                lock.unlock();
                std::this_thread::sleep_for(kBadPortPause);
                return Attempt::kMore;
            default:
                ++stats.read_eother;
                return Attempt::kFailed;
        }
    }

    static Attempt poll(QUARN_READER_STATS& stats) {
        const int result = mcl_pollLogPort(kPollTimeoutMs);
        ++stats.tot_poll_cnt;
        switch (result) {
            case -2:
                ++stats.poll_timeout;
                return Attempt::kQuiet;
            case -1:
                ++stats.poll_fail;
                return Attempt::kFailed;
            default:
                ++stats.poll_success;
                return Attempt::kMore;
        }
    }

    // Publishes `total` bytes that were read to `start`. Bytes in the tail area are copied to the
    // start of the ring. That part is free, since a whole chunk was free before the read.
    void commit(uint64_t start, uint64_t total) {
        const uint64_t end = start + total;
        const uint64_t size = mask + 1;
        if (end > size) memcpy(buf, buf + size, end - size);
        ring.set_buf_write_idx(end & mask);
        g_quarn.read_bytes += total;
        ring.notify();
    }

    static void close_port() {
        signal_idle();
        mcl_closeLogPort();
        std::this_thread::sleep_for(kReopenPause);
    }

    QUARN_RING& ring;
    uint8_t* const buf;
    const uint64_t mask;
    bool port_open = true;  // `mcl_init` opens the port
};

void restart_counting() {
    g_quarn.read_bytes = 0;
    g_quarn.write_bytes = 0;
    std::lock_guard lock(g_quarn.stats_mutex);
    g_quarn.stats = {};
}

}  // namespace

QUARN_READER_HANDLE::QUARN_READER_HANDLE(QUARN_RING* log_ring)
    : QUARN_HANDLE(HANDLE_READER), ring(log_ring) {}

QUARN_READER_HANDLE::~QUARN_READER_HANDLE() {
    running = false;
    if (QUARN_RING* const target = ring) target->notify();
    if (thread.joinable()) thread.join();
}

int32_t QUARN_READER_HANDLE::start() {
    std::lock_guard lock(lifecycle_mutex);
    if (running.exchange(true)) {
        QUARN_LOGI("reader_handler: already start");
        return 0;
    }
    if (thread.joinable()) thread.join();  // the previous thread, if it ended by itself
    if (!quarn_startThread(thread, "quarn_reader", "reader_handler", [this] { read_loop(); })) {
        running = false;
        return 1;
    }
    QUARN_LOGI("reader_handler: start success");
    return 0;
}

int32_t QUARN_READER_HANDLE::stop() {
    std::lock_guard lock(lifecycle_mutex);
    if (!running.exchange(false)) {
        QUARN_LOGI("reader_handler: already stop");
        return 0;
    }
    if (QUARN_RING* const target = ring) target->notify();
    if (thread.joinable()) thread.join();
    QUARN_LOGI("reader_handler: stop success");
    return 0;
}

int32_t QUARN_READER_HANDLE::exec(QUARN_EXEC_ID exec_id, void* /*arg*/) {
    QUARN_LOGI("reader_handler: handle exec_id=%d", exec_id);
    switch (exec_id) {
        case EXEC_MD_LOG_START:
        case EXEC_MD_LOG_REOPEN:
            reattach();
            break;
        case EXEC_MD_LOG_FLUSH_CLOSE:
        case EXEC_MD_EXCEPTION:
            reattach();
            if (!g_quarn.is_started) restart_counting();
            break;
        case EXEC_SET_SAVE_MODE:
            stop();
            break;
        case EXEC_START:
            start();
            break;
        default:
            break;
    }
    QUARN_LOGI("reader_handler: handle exec_id=%d done", exec_id);
    return 0;
}

void QUARN_READER_HANDLE::reattach() {
    if (ring == &g_ring) return;
    stop();
    ring = &g_ring;
    start();
}

void QUARN_READER_HANDLE::read_loop() {
    QUARN_RING* const target = ring;
    if (target == nullptr) {
        QUARN_LOGE("read_handler: cur_used_buf is NULL");
        running = false;
        return;
    }
    QUARN_LOGI("reader_handler: quarn_read_thread start");
    PortToRing port_to_ring(*target);
    while (running) port_to_ring.pass();
    QUARN_LOGI("reader_handler: quarn_read_thread terminate");
}
