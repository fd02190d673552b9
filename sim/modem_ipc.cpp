// The modem's side of modem IPC: the faults, and the effect and answer of each request.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <utility>

#include "sim/modem.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr size_t kRequestsKept = 256;
constexpr size_t kRequestBytesKept = 64 << 20;  // bytes of their values; a filter has up to 16 MiB

constexpr int kResultTlv = 0;
constexpr int kValueTlv = 256;
constexpr int kTextTlv = 33024;

// The result codes and causes that this modem returns.
constexpr int kInvalid = 1;
constexpr int kUnsupported = 2;
constexpr int kClosed = -1;

}  // namespace

// --- The channel ---

int Modem::OpenIpc(const char* port) {
    std::lock_guard lock(mutex_);
    int code = 0;
    if (TakeFault(ipc_init_faults_, &code)) return code;
    if (ipc_open_ || port == nullptr) return kClosed;
    ipc_open_ = true;
    return 0;
}

int Modem::CloseIpc() {
    {
        std::lock_guard lock(mutex_);
        if (!ipc_open_ || ipc_under_way_ != 0) ++ipc_misused_;
        ipc_open_ = false;
    }
    ipc_cond_.notify_all();
    return 0;
}

void Modem::SetIpcTimeout(int timeout_ms) {
    std::lock_guard lock(mutex_);
    ipc_timeout_ms_ = timeout_ms;
}

void Modem::SetIpcPort(const char* port) {
    std::lock_guard lock(mutex_);
    ipc_port_ = port != nullptr ? port : "";
}

bool Modem::MakesIpcMessage(int message_id) {
    std::lock_guard lock(mutex_);
    if (!ipc_open_) ++ipc_misused_;
    return !TakeIpcFault(message_id, IpcFault::kMessage);
}

bool Modem::TakesIpcValue(int message_id) {
    std::lock_guard lock(mutex_);
    return !TakeIpcFault(message_id, IpcFault::kValue);
}

IpcReply Modem::Exchange(const IpcRequest& request) {
    const int id = request.message.id();
    const Clock::time_point start = Clock::now();
    std::unique_lock lock(mutex_);
    if (!ipc_open_) {
        ++ipc_misused_;
        return {kClosed, std::nullopt};
    }
    ++ipc_exchanges_;
    ipc_requests_.push_back(request);
    ipc_request_bytes_ += request.message.size();
    while (ipc_requests_.size() > kRequestsKept ||
           (ipc_requests_.size() > 1 && ipc_request_bytes_ > kRequestBytesKept)) {
        ipc_request_bytes_ -= ipc_requests_.front().message.size();
        ipc_requests_.pop_front();
    }
    if (const auto cause = TakeIpcFault(id, IpcFault::kCause)) return {*cause, std::nullopt};

    const std::chrono::milliseconds timeout(request.timeout_ms >= 0 ? request.timeout_ms
                                                                    : ipc_timeout_ms_);
    const auto silence = TakeIpcFault(id, IpcFault::kSilence);
    const auto delay = TakeIpcFault(id, IpcFault::kDelay);
    const auto refusal = TakeIpcFault(id, IpcFault::kResult);
    const bool no_result = TakeIpcFault(id, IpcFault::kNoResult).has_value();
    const bool no_answer = TakeIpcFault(id, IpcFault::kNoAnswer).has_value();
    const auto other_answer = TakeIpcFault(id, IpcFault::kAnswer);
    const int missing = std::max(TakeIpcFault(id, IpcFault::kShort).value_or(0), 0);
    const bool no_length = TakeIpcFault(id, IpcFault::kNoLength).has_value();

    ++ipc_under_way_;
    IpcAnswer answer;
    if (refusal) {
        answer.result = *refusal;
    } else if (!silence) {
        lock.unlock();
        answer = Answer(request.message);
        lock.lock();
    }
    std::chrono::milliseconds pause(delay.value_or(0));
    if (silence) pause = *silence != 0 ? std::chrono::milliseconds(*silence) : timeout;
    ipc_cond_.wait_until(lock, start + std::min(pause, timeout), [this] { return !ipc_open_; });
    --ipc_under_way_;
    if (!ipc_open_) return {kClosed, std::nullopt};
    if (silence || Clock::now() - start >= timeout) return {0, std::nullopt};

    IpcMessage confirmation(id);
    if (no_length) confirmation.OmitLengths();
    if (!no_result) confirmation.AddNumber(kResultTlv, answer.result);
    if (no_answer) return {0, std::move(confirmation)};
    if (other_answer) answer.number = other_answer;
    if (answer.number) confirmation.AddNumber(kValueTlv, *answer.number);
    if (answer.text) confirmation.Add(kTextTlv, answer.text->c_str(), answer.text->size() + 1);
    if (!no_length) confirmation.Shorten(static_cast<size_t>(missing));
    return {0, std::move(confirmation)};
}

// --- Faults ---

void Modem::FailIpc(int message_id, IpcFault kind, int value, int count) {
    std::lock_guard lock(mutex_);
    if (count > 0) {
        ipc_faults_.push_back({message_id, kind, value, count});
        if (ipc_faults_.size() > kMostQueued) ipc_faults_.erase(ipc_faults_.begin());
    } else {
        std::erase_if(ipc_faults_, [&](const auto& f) { return f.message_id == message_id; });
    }
}

void Modem::FailIpcInit(int code, int count) {
    std::lock_guard lock(mutex_);
    AddFault(ipc_init_faults_, code, count);
}

void Modem::AnswerAt(const std::string& text, int count) {
    std::lock_guard lock(mutex_);
    if (count <= 0) {
        at_answers_.clear();
        return;
    }
    at_answers_.push_back({text, count});
    if (at_answers_.size() > kMostQueued) at_answers_.pop_front();
}

std::optional<int> Modem::TakeIpcFault(int message_id, IpcFault kind) {
    const auto fault = std::find_if(ipc_faults_.begin(), ipc_faults_.end(), [&](const auto& f) {
        return f.kind == kind && (f.message_id == message_id || f.message_id == 0);
    });
    if (fault == ipc_faults_.end()) return std::nullopt;
    const int value = fault->value;
    if (--fault->count == 0) ipc_faults_.erase(fault);
    return value;
}

// --- Requests ---

const Modem::IpcCommand Modem::kIpcCommands[] = {
    {3, &Modem::AnswerAtCommand},          {39, &Modem::AnswerSetLogMode},
    {41, &Modem::AnswerGetLogMode},        {43, &Modem::AnswerSetLogLevel},
    {45, &Modem::AnswerGetLogLevel},       {65, &Modem::AnswerSetTime},
    {119, &Modem::AnswerSetFlushInterval}, {121, &Modem::AnswerGetFlushInterval},
    {137, &Modem::AnswerTriggerFlush},     {139, &Modem::AnswerGetFlushStatus},
    {161, &Modem::AnswerSetFilter},
};

Modem::IpcAnswer Modem::Answer(const IpcMessage& request) {
    for (const IpcCommand& command : kIpcCommands) {
        if (command.message_id == request.id()) return (this->*command.answer)(request);
    }
    return {kUnsupported};
}

Modem::IpcAnswer Modem::AnswerSetLogMode(const IpcMessage& request) {
    const auto mode = request.Number(kValueTlv);
    return {mode && SetLogMode(*mode) ? 0 : kInvalid};
}

Modem::IpcAnswer Modem::AnswerGetLogMode(const IpcMessage&) { return {0, settings().log_mode}; }

Modem::IpcAnswer Modem::AnswerSetLogLevel(const IpcMessage& request) {
    constexpr int kMaxLevel = 6;
    const auto level = request.Number(kValueTlv);
    if (!level || *level < 0 || *level > kMaxLevel) return {kInvalid};
    std::lock_guard lock(mutex_);
    settings_.log_level = *level;
    settings_.filter.clear();
    SaveSettings();
    return {};
}

Modem::IpcAnswer Modem::AnswerGetLogLevel(const IpcMessage&) { return {0, settings().log_level}; }

Modem::IpcAnswer Modem::AnswerSetFlushInterval(const IpcMessage& request) {
    const auto interval = request.Number(kValueTlv);
    if (!interval || *interval < 0) return {kInvalid};
    SetFlushInterval(*interval);
    return {};
}

Modem::IpcAnswer Modem::AnswerGetFlushInterval(const IpcMessage&) {
    return {0, settings().flush_interval};
}

Modem::IpcAnswer Modem::AnswerTriggerFlush(const IpcMessage&) {
    {
        std::lock_guard lock(mutex_);
        Available();
        Release();
        flush_left_ = exhausted_ ? 0 : ready_;
    }
    port_cond_.notify_all();
    return {0, 0};
}

Modem::IpcAnswer Modem::AnswerGetFlushStatus(const IpcMessage&) {
    return {0, ipc_status().flush_status};
}

Modem::IpcAnswer Modem::AnswerSetTime(const IpcMessage& request) {
    constexpr int kFields = 7;  // year, month, day, hour, minute, second, minutes from UTC
    constexpr std::array<std::pair<int, int>, kFields> kRange = {
        {{1970, 9999}, {1, 12}, {1, 31}, {0, 23}, {0, 59}, {0, 60}, {-18 * 60, 18 * 60}}};
    std::array<int, kFields> field = {};
    for (size_t i = 0; i < kFields; ++i) {
        const auto number = request.Number(kValueTlv + static_cast<int>(i));
        if (!number || *number < kRange[i].first || *number > kRange[i].second) return {kInvalid};
        field[i] = *number;
    }
    char text[80];
    snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d UTC, offset %d minutes", field[0],
             field[1], field[2], field[3], field[4], field[5], field[6]);
    std::lock_guard lock(mutex_);
    clock_ = text;
    ++clock_sets_;
    return {};
}

Modem::IpcAnswer Modem::AnswerSetFilter(const IpcMessage& request) {
    if (!request.Has(kValueTlv)) return {kInvalid};
    const auto bytes = request.Bytes(kValueTlv);
    std::lock_guard lock(mutex_);
    settings_.filter.assign(bytes.begin(), bytes.end());
    settings_.log_level = -1;
    SaveSettings();
    return {0, 0};
}

Modem::IpcAnswer Modem::AnswerAtCommand(const IpcMessage& request) {
    const auto bytes = request.Bytes(kTextTlv);
    if (bytes.empty() || bytes.back() != 0) return {kInvalid};
    const std::string_view command(reinterpret_cast<const char*>(bytes.data()), bytes.size() - 1);
    std::lock_guard lock(mutex_);
    if (!at_answers_.empty()) {
        std::string text = at_answers_.front().text;
        if (--at_answers_.front().count == 0) at_answers_.pop_front();
        return {0, std::nullopt, std::move(text)};
    }
    return {0, std::nullopt, EarlyLogFilter(command)};
}

std::string Modem::EarlyLogFilter(std::string_view command) {
    constexpr std::string_view kSetting = "AT+ZORVEARLYLOGFILTER";
    constexpr std::string_view kOk = "OK\r\n";
    constexpr std::string_view kError = "ERROR\r\n";
    if (!command.starts_with(kSetting)) return std::string(kError);
    command.remove_prefix(kSetting.size());
    if (command == "?") return std::to_string(settings_.early_log_filter) + "\r\n\r\n" += kOk;
    if (!command.starts_with('=')) return std::string(kError);
    int value = 0;
    const char* const end = command.data() + command.size();
    const auto [stop, error] = std::from_chars(command.data() + 1, end, value);
    if (error != std::errc() || stop != end) return std::string(kError);
    settings_.early_log_filter = value;
    SaveSettings();
    return std::string(kOk);
}

// --- Status ---

Modem::Settings Modem::settings() const {
    std::lock_guard lock(mutex_);
    return settings_;
}

std::vector<IpcRequest> Modem::ipc_requests() const {
    std::lock_guard lock(mutex_);
    return {ipc_requests_.begin(), ipc_requests_.end()};
}

Modem::IpcStatus Modem::ipc_status() {
    std::lock_guard lock(mutex_);
    IpcStatus status = {};
    status.open = ipc_open_;
    status.port = ipc_port_;
    status.timeout_ms = ipc_timeout_ms_;
    status.exchanges = ipc_exchanges_;
    status.under_way = ipc_under_way_;
    status.misused = ipc_misused_;
    Available();
    status.held_back = HeldBack();
    status.flush_status = flush_left_ != 0 ? 1 : 0;
    status.clock = clock_;
    status.clock_sets = clock_sets_;
    return status;
}

}  // namespace sim
