// The simulated phone's modem: everything that the closed libraries give access to, in one class.
//
// The adaptors (mcl.cpp, mipc.cpp, ...) implement the functions of the closed libraries with this
// class. Tests and the console call it directly. Thread-safe.
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

// The source of the log stream's bytes. Not thread-safe.
class LogSource {
  public:
    virtual ~LogSource() = default;
    // Reads up to `len` bytes into `out`. Returns their number, or 0 at the end of the stream.
    virtual size_t Read(uint8_t* out, size_t len) = 0;
    // Returns one line for the status of the phone.
    virtual std::string Describe() const { return "custom"; }
};

// Returns an endless stream of framed diagnostic records (time stamps, counters, repeated message
// bodies), which depends on the seed only. Snappy compresses it by a factor of 2 to 4.
std::unique_ptr<LogSource> MakeGeneratedSource(uint64_t seed);
// Returns a stream of the bytes of a regular file from `offset` on, or null with errno set if the
// file cannot be opened. It reads the file in pieces of limited size.
std::unique_ptr<LogSource> MakeReplaySource(const std::string& path, uint64_t offset = 0);

// The request and the result of one exchange of modem IPC.
struct IpcRequest {
    IpcMessage message;
    int selector;
    int timeout_ms;  // -1: the default time-out of the library
};
struct IpcReply {
    int cause;                               // not 0 if the request was not sent
    std::optional<IpcMessage> confirmation;  // none if it did not come in time
};

// The faults of a request of modem IPC, and the meaning of `value` for each.
enum class IpcFault {
    kMessage,   // the message cannot be created
    kValue,     // no value can be added to the message
    kCause,     // the request is not sent; `value` is the cause
    kSilence,   // the request is lost; the exchange ends after `value` ms, or at its time-out if 0
    kDelay,     // the request is executed and confirmed `value` ms later, unless that is too late
    kResult,    // the request is refused with the result code `value`
    kNoResult,  // the request is executed; the confirmation has no result code
    kNoAnswer,  // the request is executed; the confirmation has no answer
    kAnswer,    // the request is executed; the answer is the number `value`
    kShort,     // the request is executed; the answer's last value lacks its last `value` bytes
    // The request is executed. When the daemon reads the values of the confirmation, the library
    // does not set their lengths. None of the values is shortened by kShort, since the daemon could
    // not notice that.
    kNoLength,
};

class Modem {
  public:
    // The object is never destroyed.
    static Modem& Instance();
    Modem(const Modem&) = delete;
    Modem& operator=(const Modem&) = delete;

    // --- The modem communication layer. platform/mcl.h describes the results. ---

    // After `Init` has succeeded, the log port is open and notifications are delivered. `Deinit`
    // waits for the callback that is running, and drops the queued notifications. `Deinit` must not
    // be called from a callback.
    int Init();
    int Deinit();
    // `OpenPort` fails while the layer is not initialised. `ClosePort` makes a waiting poll fail.
    int OpenPort();
    int ClosePort();
    // Returns 1 if there is something to read, or if the next read will find the end of the source.
    int PollPort(int timeout_ms);
    // Returns -1 with EAGAIN if there is nothing to read, EBADF if the port is closed, or ENODEV if
    // the log device is removed.
    int ReadPort(void* buf, size_t len, int* err);
    int WritePort(const void* buf, size_t len);
    // Null removes the callback. `Deinit` and `Reset` keep it. Notifications without a callback are
    // dropped.
    void RegisterCallback(mcl_ntfy_callback callback, void* user);

    // --- The log stream ---

    // Replaces the source; null: no source. The stream is stopped until `StartStream` or log mode 1
    // starts it.
    void SetSource(std::unique_ptr<LogSource> source);
    void StartStream();
    void StopStream();
    // Sets the rate of the stream. The bytes become readable every 10 ms, or as the flush interval
    // allows. Bytes that are not read accumulate: at most those of one second, plus the watermark
    // if there is a flush interval. Then the modem waits. With rate 0, the default, bytes are
    // produced as fast as they are read, and none is held back.
    void SetRate(uint64_t bytes_per_second);
    // Sets the most bytes that one read of the port returns. 0, the default: no limit.
    void SetReadLimit(size_t bytes);
    // Appends all bytes that are read from the port to this file, before the read returns. Empty:
    // no file. Returns false, with errno set and no tap, if the file cannot be opened.
    bool SetTap(const std::string& path);
    uint64_t bytes_delivered() const;
    // Returns true if a read has reached the end of the source.
    bool source_exhausted() const;

    // --- Modem IPC, see platform/mipc.h ---

    int OpenIpc(const char* port);
    // Running exchanges end with a cause.
    int CloseIpc();
    void SetIpcTimeout(int timeout_ms);
    void SetIpcPort(const char* port);
    bool MakesIpcMessage(int message_id);
    bool TakesIpcValue(int message_id);
    IpcReply Exchange(const IpcRequest& request);

    // Makes the next `count` messages of that id fail. Faults of the same kind and id are queued.
    // Id 0 stands for all messages. Count 0 removes all faults of that id.
    void FailIpc(int message_id, IpcFault kind, int value, int count);
    void FailIpcInit(int code, int count);
    // Answers the next `count` AT commands with this text, without any effect of the commands.
    // Calls are queued. Count 0 removes all such answers.
    void AnswerAt(const std::string& text, int count);
    // Returns the last 256 requests, oldest first.
    std::vector<IpcRequest> ipc_requests() const;

    // --- The settings of the modem ---

    // Sets the log mode, like a request of any client: 0 off, 1 streaming, 2 wrapping (the log
    // stays in the modem). Returns false for another mode. Does nothing if the modem is in that
    // mode.
    //   0 to 1   notification 1, its second word is 1; then the stream starts
    //   0 to 2   notification 1, its second word is 2
    //   2 to 1   notification 3; then the stream starts
    //   1 to 2   the stream ends; then notification 4
    //   to 0     the stream ends; then notification 2
    // When the stream ends, the bytes that are held back become readable, and the call waits until
    // the reader has found the port empty, for at most 2 s. It also waits until the notification
    // has been handled, for at most 3 s, since the handler may need a lock that the caller holds.
    bool SetLogMode(int mode);
    // Sets the flush interval in ms. If the stream has a rate, its bytes are held back until this
    // time has passed since the last release, or until the watermark is reached. 0: no bytes are
    // held back.
    void SetFlushInterval(int ms);
    // Sets the number of held-back bytes at which all of them become readable. Default: 1 MiB.
    void SetWatermark(size_t bytes);

    // The settings that survive a restart of the daemon.
    struct Settings {
        int log_mode = 0;
        int log_level = 1;            // -1: a custom filter is in use
        int flush_interval = 0;       // ms; 0: no bytes are held back
        int early_log_filter = 3;     // in non-volatile memory
        std::vector<uint8_t> filter;  // the bytes of the custom filter
    };
    Settings settings() const;
    // Loads the settings from this folder, and stores each change there. Does the same with the
    // number of delivered bytes, which is exact even after a kill -9.
    void KeepSettings(const std::string& folder);

    struct IpcStatus {
        bool open;
        std::string port;
        int timeout_ms;
        uint64_t exchanges;
        int under_way;
        // Calls while the channel was closed, and calls of `CloseIpc` during an exchange.
        uint64_t misused;
        size_t held_back;   // bytes of the stream that are held back
        int flush_status;   // 1 while flushed bytes have not been read yet
        std::string clock;  // as last set; empty if never set
        uint64_t clock_sets;
    };
    IpcStatus ipc_status();

    // --- Faults of the layer and its log port ---

    // Each makes the next `count` calls fail. FailReads and FailPolls are queued, and count 0
    // clears the queue. For the others the new count replaces the old one. Reads, polls and writes
    // of a closed port fail anyway and do not count.
    void FailInit(int count);
    void FailOpens(int count);
    // `error` is an errno number; 0: the reads return 0 bytes.
    void FailReads(int error, int count);
    // `result` is -1 (failure) or -2 (time-out). Both return at once.
    void FailPolls(int result, int count);
    void FailWrites(int count);
    // Makes about `per_mille` of all later reads and polls fail, in all of these ways; 0: none.
    // EBADF comes several times in a row, sometimes often enough that the reader closes the port.
    void SprinkleFaults(uint64_t seed, int per_mille);

    // Marks the scenario as ended. This only changes the status; ./run reads it and ends the phone.
    void EndScenario();

    // The number of calls, for tests.
    struct Calls {
        uint64_t init, open, close, read, poll, write;
    };
    Calls calls() const;

    // --- Notifications. The library's own thread delivers them in order, one at a time. ---

    // Queues a notification and returns at once. The payload is copied, and a short one is padded
    // with zeros. Before `Init` the notifications stay in the queue.
    void Notify(MCL_NTFY_CODE code, const void* payload = nullptr, size_t payload_size = 0);
    // Queues a notification with the payload that a modem sends with this code.
    void Raise(MCL_NTFY_CODE code);
    // Waits until the queue is empty and all its notifications are handled, or until `Deinit`.
    void WaitForNotifications();

    // Simulates a crash of the modem: stops the stream, raises notification 6, then notification 3,
    // and starts the stream again if it was running. Waits up to 5 s for the handler of each
    // notification.
    void Exception();

    // --- The log device, which provides the log port ---

    // While the device is removed, the port is closed and cannot be opened, and reads fail with
    // ENODEV. When the device is added again, the port is still closed.
    void RemoveLogDevice();
    void AddLogDevice();

    // Returns the last mebibyte of what the daemon wrote to the log port.
    std::string written() const;

    // The status of the modem, for people and for programs that wait for a change.
    struct Status {
        bool up, port_open, log_device, streaming, exhausted, scenario_ended;
        std::string source;  // its description; empty if there is none
        uint64_t rate;
        size_t read_limit;
        std::string tap;  // its path, or the reason why it was given up; empty if there is none
        uint64_t delivered;
        uint64_t written;                        // bytes written to the port since the start
        uint64_t sync_blocks;                    // sync blocks of exceptions among these bytes
        std::optional<uint32_t> storage_answer;  // the last answer to notification 8
        uint64_t notified;                       // notifications that have been handled
        size_t notify_queue;                     // notifications in the queue
        int sprinkle_per_mille;
        Calls calls;
    };
    Status status() const;

    // For tests: restores the state of a new process, except for the registered callback.
    void Reset();

  private:
    using Clock = std::chrono::steady_clock;

    Modem();
    ~Modem() = delete;

    static constexpr size_t kDefaultWatermark = 1 << 20;
    // The size limit of each queue of faults and of notifications. The oldest entry is dropped
    // first.
    static constexpr size_t kMostQueued = 4096;
    // In bytes; the payload of notification 1.
    static constexpr size_t kLargestPayload = 4 + 4 + 204 + 4;

    struct Fault {
        int value;
        int count;
    };
    struct Notification {
        MCL_NTFY_CODE code;
        bool has_payload;
        std::vector<uint8_t> payload;
    };
    struct Tap {
        int fd = -1;  // owned; -1 if there is none
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

    // REQUIRES for the functions up to CloseTap: mutex_ is held.
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

    // Serialises Init, Deinit and Reset. Locked before `mutex_`.
    std::mutex lifecycle_mutex_;
    // Held during a change of the log mode and its notifications. Locked before `mutex_`.
    std::mutex log_mode_mutex_;
    // Guards all members below. Never held while a callback runs.
    mutable std::mutex mutex_;
    std::condition_variable port_cond_;    // there may be bytes to read, or the port was closed
    std::condition_variable notify_cond_;  // the queue or `up_` has changed
    std::condition_variable idle_cond_;    // a notification was handled, or `up_` was cleared
    std::condition_variable quiet_cond_;   // a poll found the port empty, or the port was closed
    std::condition_variable ipc_cond_;     // the IPC channel was closed

    bool up_ = false;
    bool port_open_ = false;
    bool log_device_ = true;
    bool streaming_ = false;
    bool exhausted_ = false;
    bool scenario_ended_ = false;
    std::unique_ptr<LogSource> source_;
    uint64_t rate_ = 0;
    uint64_t credit_ = 0;      // produced and not yet read bytes, times ticks per second
    uint64_t ready_ = 0;       // bytes among them that are not held back
    uint64_t flush_left_ = 0;  // bytes of the last flush that were not read yet
    size_t watermark_ = kDefaultWatermark;
    Clock::time_point last_tick_;
    Clock::time_point last_release_;
    uint64_t quiet_polls_ = 0;       // polls that found the port empty
    uint64_t delivered_before_ = 0;  // `delivered_` when the stream was started
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
    std::string settings_folder_;  // empty if the settings are not stored
    int delivered_fd_ = -1;        // the file that stores `delivered_`; -1 if there is none
    std::string clock_;
    uint64_t clock_sets_ = 0;

    mcl_ntfy_callback callback_ = nullptr;
    void* callback_user_ = nullptr;
    std::deque<Notification> notifications_;
    bool notifying_ = false;
    uint64_t notified_ = 0;
    uint64_t raised_ = 0;   // notifications that were queued so far
    uint64_t settled_ = 0;  // those of them that were handled or dropped
    std::optional<uint32_t> storage_answer_;
    uint32_t md_info_updates_ = 0;
    std::thread notifier_;
};

}  // namespace sim
