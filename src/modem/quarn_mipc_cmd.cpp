#include "modem/quarn_mipc_cmd.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "control/quarn_state_notify.h"
#include "core/quarn_global.h"
#include "modem/log_flush.h"
#include "platform/quarn_log.h"

namespace {

constexpr int kTimeoutMs = 5000;
constexpr int kSelector = 16;  // destination of every request

constexpr int kResultTlv = 0;  // in every confirmation: 0 is success
constexpr int kValueTlv = 0x100;
constexpr int kDisableTlv = 0x101;
constexpr int kAtTextTlv = 0x8100;
// Bytes. If the library stores no length of a text, the NUL must be among this many bytes.
constexpr size_t kMaxTextWithoutLength = 64 << 10;

constexpr int32_t kFailed = 1;
constexpr int32_t kTimedOut = 2;

struct Command {
    int msg_id;
    const char* name;              // the command's name in messages
    const char* answer = nullptr;  // the answer's name in messages
};

constexpr Command kSetLogMode = {39, "set log mode"};
constexpr Command kGetLogMode = {41, "get log mode", "log mode"};
constexpr Command kSetLogLevel = {43, "set log level"};
constexpr Command kGetLogLevel = {45, "get log level", "log level"};
constexpr Command kSetTime = {65, "set time req"};
constexpr Command kSetFlushInterval = {119, "set flush interval"};
constexpr Command kGetFlushInterval = {121, "get flush interval", "flush interval"};
constexpr Command kTriggerFlush = {137, "trigger flush", "trigger flush result"};
constexpr Command kGetFlushStatus = {139, "get flush status", "flush status"};
constexpr Command kSetCustomFilter = {161, "set filter", "(set filter)"};
constexpr int kAtCommandId = 3;

// Held from a successful `quarn_mipcInit` to `quarn_mipcDeinit`, so that a second `quarn_mipcInit`
// waits. Exchanges do not take it.
std::mutex channel_lock;
// Bit 30 is set while the channel is open. The other bits count the users of the channel. Both are
// in one word, so that a user is counted only if the channel is open. So the count can only fall
// once the channel is being closed.
constexpr int kChannelOpen = 1 << 30;
std::atomic<int> channel_state{0};

// While a ChannelUse exists, an open channel stays open. True if the channel was open when the
// ChannelUse was made.
class ChannelUse {
  public:
    ChannelUse() {
        int state = channel_state;
        while ((state & kChannelOpen) != 0 && !open) {
            open = channel_state.compare_exchange_weak(state, state + 1);
        }
    }
    ~ChannelUse() {
        if (open && --channel_state == 0) channel_state.notify_all();
    }
    ChannelUse(const ChannelUse&) = delete;
    ChannelUse& operator=(const ChannelUse&) = delete;

    explicit operator bool() const { return open; }

  private:
    bool open = false;
};

struct MessageDeleter {
    void operator()(mipc_msg_t* msg) const { mipc_msg_deinit(msg); }
};
using Message = std::unique_ptr<mipc_msg_t, MessageDeleter>;

constexpr int kNoLength = -1;  // a length that the library has not stored

// Returns the number of this type, or none if there is none or it has too few bytes. A value in a
// message may not be aligned.
std::optional<int32_t> read_int(mipc_msg_t* msg, int type) {
    int length = kNoLength;
    const void* const value = mipc_msg_get_val_ptr(msg, type, &length);
    int32_t number;
    const bool is_short = length > kNoLength && length < static_cast<int>(sizeof(number));
    if (value == nullptr || is_short) return std::nullopt;
    memcpy(&number, value, sizeof(number));
    return number;
}

// Returns the text of this type up to its NUL or its length. If the library stores no length, the
// text must have a NUL.
std::optional<std::string> read_text(mipc_msg_t* msg, int type) {
    int length = kNoLength;
    const void* const value = mipc_msg_get_val_ptr(msg, type, &length);
    if (value == nullptr) return std::nullopt;
    const size_t limit = length > kNoLength ? static_cast<size_t>(length) : kMaxTextWithoutLength;
    const auto* const chars = static_cast<const char*>(value);
    const size_t size = strnlen(chars, limit);
    if (length <= kNoLength && size == limit) return std::nullopt;
    return std::string(chars, size);
}

// One request and its confirmation. Owns both messages, and keeps the channel open.
class Exchange {
  public:
    explicit Exchange(int msg_id)
        : request(use ? mipc_msg_init(msg_id, kSelector) : nullptr), complete(request != nullptr) {}

    bool is_channel_open() const { return static_cast<bool>(use); }
    // Returns true if the request exists and every value so far was added. A request that is not
    // complete is never sent.
    bool is_complete() const { return complete; }

    void add(int type, int length, const void* value) {
        complete = complete && mipc_msg_add_tlv(request.get(), type, length, value) == 0;
    }
    void add(int type, int32_t value) { add(type, sizeof(value), &value); }

    // Sends the request. Called once.
    int32_t send() {
        if (!complete) return kFailed;
        mipc_msg_t* cnf = nullptr;
        const int32_t status = quarn_mipcSendCmd(request.get(), &cnf);
        confirmation.reset(cnf);
        return status;
    }
    int32_t send(const Command& command) {
        const int32_t status = send();
        if (status != 0) {
            QUARN_LOGE("send mipc cmd (%s) fail, mipc_rc = %d\n", command.name, status);
        }
        return status;
    }
    // Sends a request whose answer is a number. Writes `*answer` only on success.
    int32_t ask(const Command& command, int* answer) {
        const int32_t status = send(command);
        if (status != 0) return status;
        const std::optional<int32_t> value = read_int(confirmation.get(), kValueTlv);
        if (!value) {
            QUARN_LOGE("get mipc cmd cnf %s fail, mipc_rc = %d\n", command.answer, status);
            return kFailed;
        }
        *answer = *value;
        return 0;
    }

    // Returns a text of the confirmation, or none if it has no such text. REQUIRES: `send` has
    // succeeded.
    std::optional<std::string> text(int type) { return read_text(confirmation.get(), type); }

  private:
    ChannelUse use;  // destroyed after the messages
    Message request;
    Message confirmation;
    bool complete;
};

int32_t set_number(const Command& command, int32_t value) {
    Exchange exchange(command.msg_id);
    exchange.add(kValueTlv, value);
    return exchange.send(command);
}

int32_t get_number(const Command& command, int* answer) {
    Exchange exchange(command.msg_id);
    return exchange.ask(command, answer);
}

int32_t send_log_mode(int mode) {
    Exchange exchange(kSetLogMode.msg_id);
    exchange.add(kValueTlv, mode);
    if (mode == 0) {
        constexpr uint8_t kDisable = 1;
        exchange.add(kDisableTlv, sizeof(kDisable), &kDisable);
    }
    return exchange.send(kSetLogMode);
}

}  // namespace

int32_t quarn_mipcInit(const char* port) {
    std::unique_lock lock(channel_lock);
    mipc_set_host_api_timeout(kTimeoutMs);
    SETCOM(port);
    QUARN_LOGI("mipcInit: set mipc port: %s\n", port);
    if (const int rc = mipc_init(port); rc != 0) {
        QUARN_LOGE("mipcInit: mipc init failed, rc=%d\n", rc);
        return kFailed;
    }
    QUARN_LOGI("mipcInit: mipc init success\n");
    channel_state = kChannelOpen;
    lock.release();  // `channel_lock` stays locked until `quarn_mipcDeinit`
    return 0;
}

void quarn_mipcDeinit() {
    if ((channel_state.fetch_and(~kChannelOpen) & kChannelOpen) == 0) return;
    while (const int users = channel_state) channel_state.wait(users);
    mipc_deinit();
    channel_lock.unlock();
}

int32_t quarn_mipcSendCmd(mipc_msg_t* req, mipc_msg_t** cnf) {
    *cnf = nullptr;
    const ChannelUse use;
    if (!use) return kFailed;
    mipc_msg_set_timeout_once(kTimeoutMs);
    if (const int cause = mipc_msg_sync_timeout_with_cause(req, cnf); cause != 0) {
        QUARN_LOGE("send mipc cmd fail, cause=%d\n", cause);
        return kFailed;
    }
    if (*cnf == nullptr) {
        QUARN_LOGE("send mipc cmd timeout\n");
        return kTimedOut;
    }
    const std::optional<int32_t> result = read_int(*cnf, kResultTlv);
    if (!result) {
        QUARN_LOGE("get mipc cmd result fail\n");
        return kFailed;
    }
    if (*result != 0) {
        QUARN_LOGE("mipc cmd fail, result=%d\n", *result);
        return kFailed;
    }
    return 0;
}

int32_t quarn_mipcSetLogMode(int mode) {
    if (const int32_t status = send_log_mode(mode); status != 0) return status;
    if (quarn_notifyLogModeUpdate(mode) < 0) {
        QUARN_LOGE("HandleLogMode: notify log mode update to %d failed!", mode);
    }
    if (mode == 1) {
        const int interval = static_cast<int>(g_quarn.flush_interval);
        if (!quarn::zorvex::SetFlushInterval(interval)) {
            QUARN_LOGE("HandleLogMode: set flush interval to %d failed!", interval);
        }
    }
    return 0;
}

int32_t quarn_mipcGetLogMode(int* mode) { return get_number(kGetLogMode, mode); }

int32_t quarn_mipcSetLogLevel(int level) { return set_number(kSetLogLevel, level); }

int32_t quarn_mipcGetLogLevel(int* level) { return get_number(kGetLogLevel, level); }

int32_t quarn_mipcSetFlushInterval(int interval) { return set_number(kSetFlushInterval, interval); }

int32_t quarn_mipcGetFlushInterval(int* interval) {
    return get_number(kGetFlushInterval, interval);
}

int32_t quarn_mipcTriggerFlush(int* result) { return get_number(kTriggerFlush, result); }

int32_t quarn_mipcGetFlushStatus(int* status) { return get_number(kGetFlushStatus, status); }

// NOLINTNEXTLINE(readability-non-const-parameter): the interface is as other code knows it.
int32_t quarn_mipcSetTime(long* t) {
    const time_t seconds = *t;
    struct tm utc = {};
    if (gmtime_r(&seconds, &utc) == nullptr) {
        QUARN_LOGE("get gmtime fail\n");
        return kFailed;
    }
    struct tm local = {};
    if (localtime_r(&seconds, &local) == nullptr) {
        QUARN_LOGE("localtime_r fail, errno = %s\n", strerror(errno));
        return kFailed;
    }
    const int year = utc.tm_year + 1900;
    const int month = utc.tm_mon + 1;
    const int offset = static_cast<int>(local.tm_gmtoff / 60);

    Exchange exchange(kSetTime.msg_id);
    int type = kValueTlv;
    for (const int value :
         {year, month, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, offset}) {
        exchange.add(type++, value);
    }
    const int32_t status = exchange.send(kSetTime);
    if (status == 0) {
        QUARN_LOGI("MIPC SYS_SET_TIME_REQ: %d/%d/%d - %d:%d:%d - %d\n", year, month, utc.tm_mday,
                   utc.tm_hour, utc.tm_min, utc.tm_sec, offset);
    }
    return status;
}

int32_t quarn_mipcSetCustomFilter(int length, char* data, int* result) {
    Exchange exchange(kSetCustomFilter.msg_id);
    exchange.add(kValueTlv, length, data);
    return exchange.ask(kSetCustomFilter, result);
}

namespace quarn::zorvex {

bool SendAtCommandByMipc(const std::string& cmd, std::string& result) {
    result.clear();
    Exchange exchange(kAtCommandId);
    if (!exchange.is_channel_open()) {
        QUARN_LOGE("AT command: Send mipc cmd failed: %d", kFailed);
        return false;
    }
    if (!exchange.is_complete()) {
        QUARN_LOGE("AT command: Init mipc cmd message failed");
        return false;
    }
    exchange.add(kAtTextTlv, static_cast<int>(cmd.size() + 1), cmd.c_str());
    if (!exchange.is_complete()) {
        QUARN_LOGE("AT command: Form mipc cmd message failed");
        return false;
    }
    QUARN_LOGI("AT command: Send mipc cmd: %s", cmd.c_str());
    if (const int32_t status = exchange.send(); status != 0) {
        QUARN_LOGE("AT command: Send mipc cmd failed: %d", status);
        return false;
    }
    std::optional<std::string> response = exchange.text(kAtTextTlv);
    if (!response) {
        QUARN_LOGE("AT command: Get mipc cmd cnf result failed");
        return false;
    }
    result = std::move(*response);
    QUARN_LOGD("AT command: Return result message: %s", result.c_str());
    return true;
}

bool GetAtCommandExecStatus(const std::string& response) {
    constexpr const char* kLineEnds = "\r\n";
    const size_t last = response.find_last_not_of(kLineEnds);
    if (last == std::string::npos) {
        QUARN_LOGE("AT command: execution status not found");
        return false;
    }
    const std::string text = response.substr(0, last + 1);
    // The last line begins behind the last line end. Without a line end it is the whole text, since
    // npos + 1 is 0.
    return text.substr(text.find_last_of(kLineEnds) + 1) == "OK";
}

}  // namespace quarn::zorvex
