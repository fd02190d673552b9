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
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/mcl.h"
#include "sim/ipc_message.h"

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

// What one exchange of modem IPC takes and gives.
struct IpcRequest {
    IpcMessage message;
    int selector;
    int timeout_ms;  // -1: the library's own
};
struct IpcReply {
    int cause;                               // nonzero: the request was not sent
    std::optional<IpcMessage> confirmation;  // none: it did not come in time
};

// What can go wrong with a message of modem IPC, and what `value` says then.
enum class IpcFault {
    kMessage,   // it cannot be made
    kValue,     // no value can be added to it
    kCause,     // it is not sent, for this cause
    kSilence,   // it is lost: no confirmation, after this many ms (0: after the whole time-out)
    kDelay,     // it is carried out, and confirmed so many ms later if that is in time
    kResult,    // it is refused with this result code
    kNoResult,  // it is carried out, and the confirmation has no result code
    kNoAnswer,  // it is carried out, and the confirmation has no answer
    kAnswer,    // it is carried out, and the answer is this number
    kShort,     // it is carried out, and of the answer's last value so many bytes are missing
    // It is carried out, and the library leaves alone the lengths that are asked for with the
    // confirmation's values. None of them is made short, since nobody could see that.
    kNoLength,
};

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
    // The stream stands still until it is started, here or by log mode 1. Replaces the source;
    // null: none.
    void SetSource(std::unique_ptr<LogSource> source);
    void StartStream();
    void StopStream();
    // Bytes a second, which become readable in bursts every 10 ms, or as the flush interval has it;
    // what nobody reads piles up for one second at most, then the modem waits. 0: as fast as they
    // are read (the default), with nothing held back.
    void SetRate(uint64_t bytes_per_second);
    // Most bytes that one read of the port gives; 0: what the caller asks for (the default).
    void SetReadLimit(size_t bytes);
    // Appends everything that is handed over at the port to this file, before the read returns;
    // empty: nothing. False, with errno set and no tap, when the file cannot be opened.
    bool SetTap(const std::string& path);
    uint64_t bytes_delivered() const;
    bool source_exhausted() const;  // a read has met the end of the source

    // --- modem IPC: platform/mipc.h, from several threads at a time ---
    int OpenIpc(const char* port);
    // Exchanges under way end with a cause.
    int CloseIpc();
    void SetIpcTimeout(int timeout_ms);
    void SetIpcPort(const char* port);
    bool MakesIpcMessage(int message_id);
    bool TakesIpcValue(int message_id);
    IpcReply Exchange(const IpcRequest& request);

    // Faults of one kind and message come one after another, as those of the log port do. An id of
    // 0 stands for every message; a count of 0 drops all faults of that id.
    void FailIpc(int message_id, IpcFault kind, int value, int count);
    void FailIpcInit(int code, int count);
    // The next `count` AT commands, behind those that are to be answered so already, are answered
    // by this text and change nothing; a count of 0 drops all such answers.
    void AnswerAt(const std::string& text, int count);
    // What was asked, the last 256 requests, oldest first.
    std::vector<IpcRequest> ipc_requests() const;

    // --- what modem IPC sets ---
    // As a request of any client does: 0 off, 1 streaming, 2 wrapping (the log stays in the modem);
    // false for anything else. The mode that is already on changes and tells nothing. Otherwise:
    //   0 to 1   notification 1, its second word 1, then the stream starts
    //   0 to 2   notification 1, its second word 2
    //   2 to 1   notification 3, then the stream starts
    //   1 to 2   the stream ends, then notification 4
    //   to 0     the stream ends, then notification 2
    // A stream that ends hands over what is held back, and waits until its reader has found the
    // port empty, for 2 s at most. Returns once the notification has been handled; a handler that
    // takes longer than 3 s, such as one that waits for a lock of the caller's, is not waited for.
    bool SetLogMode(int mode);
    // Milliseconds; 0: nothing is held back. Longer ones hold bytes of a stream that has a rate
    // back until so much time has passed since the last release, or the watermark is reached.
    void SetFlushInterval(int ms);
    // Held-back bytes at which all of them become readable; 1 MiB by default.
    void SetWatermark(size_t bytes);

    // What outlives the daemon's process.
    struct Settings {
        int log_mode = 0;
        int log_level = 1;            // -1: a custom filter is in force
        int flush_interval = 0;       // ms; 0: nothing is held back
        int early_log_filter = 3;     // non-volatile
        std::vector<uint8_t> filter;  // the custom filter's bytes
    };
    Settings settings() const;
    // Takes up the settings that are kept in this folder, and keeps each change there; the same
    // with the count of delivered bytes, which is exact even after a kill -9.
    void KeepSettings(const std::string& folder);

    struct IpcStatus {
        bool open;
        std::string port;
        int timeout_ms;
        uint64_t exchanges;
        int under_way;
        // Calls while the channel was closed, and closings under an exchange.
        uint64_t misused;
        size_t held_back;   // bytes of the stream
        int flush_status;   // 1 while flushed bytes are still to be read
        std::string clock;  // as last set; empty: never
        uint64_t clock_sets;
    };
    IpcStatus ipc_status();

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

    // The story of the phone is over: told by its state, and up to who runs it.
    void EndScenario();

    // Counts of calls, for tests.
    struct Calls {
        uint64_t init, open, close, read, poll, write;
    };
    Calls calls() const;

    // --- notifications: from the library's own thread, one at a time, in order ---
    // Returns at once; the payload is copied, a short one with zeros behind it. Before `Init` they
    // queue up.
    void Notify(MCL_NTFY_CODE code, const void* payload = nullptr, size_t payload_size = 0);
    // With the payload that a modem sends with this code.
    void Raise(MCL_NTFY_CODE code);
    // Waits until everything queued so far and since is handled, or the layer goes down.
    void WaitForNotifications();

    // A crash of the modem: the stream stands still, 6 is raised, and once that has been handled
    // the log port is back: 3 is raised and the stream goes on. Returns then, or when a handler has
    // taken longer than 5 s.
    void Exception();

    // --- the log device, whose port it is ---
    // While it is gone the port is closed and cannot be opened; reads fail with ENODEV. A device
    // that comes back has a closed port.
    void RemoveLogDevice();
    void AddLogDevice();

    // --- what the daemon wrote to the log port ---
    std::string written() const;  // the last mebibyte

    // How the modem stands, for people and for programs that wait for it.
    struct Status {
        bool up, port_open, log_device, streaming, exhausted, scenario_ended;
        std::string source;  // as it describes itself; empty: none
        uint64_t rate;
        size_t read_limit;
        std::string tap;  // empty: none; else the path, or why it was given up
        uint64_t delivered;
        uint64_t written;                        // bytes, since the start
        uint64_t sync_blocks;                    // of an exception, among them
        std::optional<uint32_t> storage_answer;  // what code 8 was answered last
        uint64_t notified;                       // notifications handled
        size_t notify_queue;                     // still to be handled
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

    static constexpr size_t kDefaultWatermark = 1 << 20;
    // Faults of a kind, and notifications, that can wait; then the oldest are dropped.
    static constexpr size_t kMostQueued = 4096;
    static constexpr size_t kLargestPayload = 4 + 4 + 204 + 4;  // bytes; that of code 1

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

    struct PendingIpcFault {
        int message_id;
        IpcFault kind;
        int value;
        int count;
    };
    struct IpcAnswer {
        int result = 0;
        std::optional<int32_t> number = std::nullopt;
        std::optional<std::string> text = std::nullopt;
    };
    struct IpcCommand {
        int message_id;
        IpcAnswer (Modem::*answer)(const IpcMessage& request);
    };
    static const IpcCommand kIpcCommands[];
    IpcAnswer AnswerSetLogMode(const IpcMessage& request);
    IpcAnswer AnswerGetLogMode(const IpcMessage& request);
    IpcAnswer AnswerSetLogLevel(const IpcMessage& request);
    IpcAnswer AnswerGetLogLevel(const IpcMessage& request);
    IpcAnswer AnswerSetFlushInterval(const IpcMessage& request);
    IpcAnswer AnswerGetFlushInterval(const IpcMessage& request);
    IpcAnswer AnswerTriggerFlush(const IpcMessage& request);
    IpcAnswer AnswerGetFlushStatus(const IpcMessage& request);
    IpcAnswer AnswerSetTime(const IpcMessage& request);
    IpcAnswer AnswerSetFilter(const IpcMessage& request);
    IpcAnswer AnswerAtCommand(const IpcMessage& request);
    IpcAnswer Answer(const IpcMessage& request);

    // Under `mutex_`.
    std::optional<int> TakeIpcFault(int message_id, IpcFault kind);
    std::string EarlyLogFilter(std::string_view command);
    void SaveSettings();
    void KeepDelivered(const std::string& path);
    void SaveDelivered();
    void Produce();
    void Release();
    size_t HeldBack() const;
    void EndStream(std::unique_lock<std::mutex>& lock);
    std::vector<uint8_t> Payload(MCL_NTFY_CODE code);
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
    uint64_t Queue(Notification notification);
    void RaiseAndWait(MCL_NTFY_CODE code, std::chrono::seconds limit);

    std::mutex lifecycle_mutex_;  // serialises Init, Deinit and Reset; taken before `mutex_`
    std::mutex log_mode_mutex_;   // around a change and its notifications; taken before `mutex_`
    mutable std::mutex mutex_;    // guards everything below; never held while a callback runs
    std::condition_variable port_cond_;    // something to read may have come, or the port closed
    std::condition_variable notify_cond_;  // the queue or `up_` changed
    std::condition_variable idle_cond_;    // a notification was handled, or the layer went down
    std::condition_variable quiet_cond_;   // a poll found the port empty, or the port closed
    std::condition_variable ipc_cond_;     // the IPC channel was closed

    bool up_ = false;
    bool port_open_ = false;
    bool log_device_ = true;
    bool streaming_ = false;
    bool exhausted_ = false;
    bool scenario_ended_ = false;
    std::unique_ptr<LogSource> source_;
    uint64_t rate_ = 0;
    uint64_t credit_ = 0;      // produced bytes that were not read, times ticks a second
    uint64_t ready_ = 0;       // bytes of them that are not held back
    uint64_t flush_left_ = 0;  // bytes of those that the last flush was about
    size_t watermark_ = kDefaultWatermark;
    Clock::time_point last_tick_;
    Clock::time_point last_release_;
    uint64_t quiet_polls_ = 0;       // that found the port empty
    uint64_t delivered_before_ = 0;  // when the stream was started
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
    uint64_t sync_blocks_ = 0;

    bool ipc_open_ = false;
    std::string ipc_port_;
    int ipc_timeout_ms_ = 0;
    uint64_t ipc_exchanges_ = 0;
    int ipc_under_way_ = 0;
    uint64_t ipc_misused_ = 0;
    std::deque<IpcRequest> ipc_requests_;
    size_t ipc_request_bytes_ = 0;
    std::vector<PendingIpcFault> ipc_faults_;
    std::deque<Fault> ipc_init_faults_;
    struct AtAnswer {
        std::string text;
        int count;
    };
    std::deque<AtAnswer> at_answers_;
    Settings settings_;
    std::string settings_folder_;  // empty: nowhere
    int delivered_fd_ = -1;        // where `delivered_` is kept; -1: nowhere
    std::string clock_;
    uint64_t clock_sets_ = 0;

    mcl_ntfy_callback callback_ = nullptr;
    void* callback_user_ = nullptr;
    std::deque<Notification> notifications_;
    bool notifying_ = false;
    uint64_t notified_ = 0;
    uint64_t raised_ = 0;   // notifications ever queued
    uint64_t settled_ = 0;  // of them, handled or dropped
    std::optional<uint32_t> storage_answer_;
    uint32_t md_info_updates_ = 0;
    std::thread notifier_;
};

}  // namespace sim
