// The simulated phone's modem: everything behind the closed libraries, in one object.
//
// The adaptors of the closed libraries' functions (mcl.cpp, ...) are thin covers over this class;
// tests and the console steer it directly. Every operation may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/mcl.h"

namespace sim {

// Where the bytes of the log stream come from. Called by one thread at a time.
class LogSource {
  public:
    virtual ~LogSource() = default;
    // Fills up to `len` bytes and returns how many; 0 at the end of the stream.
    virtual size_t Read(uint8_t* out, size_t len) = 0;
    // One line for people.
    virtual std::string Describe() const { return "custom"; }
};

// Endless framed diagnostic records (time stamps, counters, repeated message bodies), the same for
// the same seed; packs 2 to 4 times with Snappy.
std::unique_ptr<LogSource> MakeGeneratedSource(uint64_t seed);
// The bytes of a regular file, from `offset` on, read in bounded pieces; null, with errno set, when
// it cannot be opened.
std::unique_ptr<LogSource> MakeReplaySource(const std::string& path, uint64_t offset = 0);

class Modem {
  public:
    static Modem& Instance();  // never destroyed
    Modem(const Modem&) = delete;
    Modem& operator=(const Modem&) = delete;

    // --- what the modem communication layer asks; results as platform/mcl.h has them ---
    // Once `Init` has succeeded the log port is open and notifications are delivered. `Deinit`
    // waits for the callback that is running and drops what is queued behind it; not to be called
    // from a callback.
    int Init();
    int Deinit();
    // Opening fails while the layer is not up; closing makes a waiting poll fail.
    int OpenPort();
    int ClosePort();
    // 1 when there is something to read, or a read would find the end of the source.
    int PollPort(int timeout_ms);
    // -1 with EAGAIN when nothing is there, EBADF while the port is closed.
    int ReadPort(void* buf, size_t len, int* err);
    int WritePort(const void* buf, size_t len);
    // Kept over `Deinit` and `Reset`; null: none. Notifications without a callback are dropped.
    void RegisterCallback(mcl_ntfy_callback callback, void* user);

    // --- the log stream ---
    // The stream stands still until it is started. Replaces the source; null: none.
    void SetSource(std::unique_ptr<LogSource> source);
    void StartStream();
    void StopStream();
    // Bytes a second, which become readable in bursts every 10 ms; what nobody reads piles up for
    // one second at most, then the modem waits. 0: as fast as they are read (the default).
    void SetRate(uint64_t bytes_per_second);
    // Most bytes that one read of the port gives; 0: what the caller asks for (the default).
    void SetReadLimit(size_t bytes);
    // Appends everything that is handed over at the port to this file, before the read returns;
    // empty: nothing. False, with errno set and no tap, when the file cannot be opened.
    bool SetTap(const std::string& path);
    uint64_t bytes_delivered() const;
    bool source_exhausted() const;  // a read has met the end of the source

    // --- faults of the layer and its log port, each for the next `count` calls ---
    // Faults of one kind that are asked for one after another come one after another; a count of 0
    // drops those still to come. A closed port fails as such and uses none up.
    void FailInit(int count);
    void FailOpens(int count);
    void FailReads(int error, int count);   // an errno number; 0: reads of zero bytes
    void FailPolls(int result, int count);  // -1 failure, -2 time-out; both return at once
    void FailWrites(int count);
    // Makes about `per_mille` of all reads and polls fail in any of these ways, for ever; 0: off.
    // EBADF comes in runs that may be long enough to have the port closed.
    void SprinkleFaults(uint64_t seed, int per_mille);

    // Counts of calls, for tests.
    struct Calls {
        uint64_t init, open, close, read, poll, write;
    };
    Calls calls() const;

    // --- notifications: from the library's own thread, one at a time, in order ---
    // Returns at once; the payload is copied. Before `Init` they queue up.
    void Notify(MCL_NTFY_CODE code, const void* payload = nullptr, size_t payload_size = 0);
    // Waits until everything queued so far and since is handled, or the layer goes down.
    void WaitForNotifications();

    // --- what the daemon wrote to the log port ---
    std::string written() const;  // the last mebibyte

    // How the modem stands, for people and for programs that wait for it.
    struct Status {
        bool up, port_open, streaming, exhausted;
        std::string source;  // as it describes itself; empty: none
        uint64_t rate;
        size_t read_limit;
        std::string tap;  // empty: none; else the path, or why it was given up
        uint64_t delivered;
        uint64_t written;     // bytes, since the start
        uint64_t notified;    // notifications handled
        size_t notify_queue;  // still to be handled
        int sprinkle_per_mille;
        Calls calls;
    };
    Status status() const;

    // Back to how a fresh process has it, registered callback apart; for tests.
    void Reset();

  private:
    using Clock = std::chrono::steady_clock;

    Modem();
    ~Modem() = delete;

    struct Fault {
        int value;
        int count;
    };
    struct Notification {
        MCL_NTFY_CODE code;
        bool has_payload;
        std::vector<uint8_t> payload;
    };
    // A descriptor of ours; -1: none.
    struct Tap {
        int fd = -1;
        std::string text;
    };

    // Under `mutex_`.
    static void AddFault(std::deque<Fault>& faults, int value, int count);
    static bool TakeFault(std::deque<Fault>& faults, int* value);
    bool SprinkleHits();
    bool SprinkleRead(int* error);
    bool SprinklePoll(int* result);
    void RestartRateClock();
    size_t Available();
    void WriteTap(const uint8_t* bytes, size_t len);
    void CloseTap();

    void NotifyThread();

    std::mutex lifecycle_mutex_;  // serialises Init, Deinit and Reset; taken before `mutex_`
    mutable std::mutex mutex_;    // guards everything below; never held while a callback runs
    std::condition_variable port_cond_;    // something to read may have come, or the port closed
    std::condition_variable notify_cond_;  // the queue or `up_` changed
    std::condition_variable idle_cond_;    // a notification was handled, or the layer went down

    bool up_ = false;
    bool port_open_ = false;
    bool streaming_ = false;
    bool exhausted_ = false;
    std::unique_ptr<LogSource> source_;
    uint64_t rate_ = 0;
    uint64_t credit_ = 0;  // readable bytes times ticks a second
    Clock::time_point last_tick_;
    size_t read_limit_ = 0;
    Tap tap_;
    uint64_t delivered_ = 0;

    int init_faults_ = 0;
    int open_faults_ = 0;
    int write_faults_ = 0;
    std::deque<Fault> read_faults_;
    std::deque<Fault> poll_faults_;
    int sprinkle_per_mille_ = 0;
    int sprinkle_ebadf_left_ = 0;
    std::mt19937_64 sprinkle_random_;

    Calls calls_ = {};
    std::string written_;
    uint64_t written_total_ = 0;

    mcl_ntfy_callback callback_ = nullptr;
    void* callback_user_ = nullptr;
    std::deque<Notification> notifications_;
    bool notifying_ = false;
    uint64_t notified_ = 0;
    std::thread notifier_;
};

}  // namespace sim
