// The modem's log mode, and the payloads of the modem's notifications.
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

#include "sim/modem.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr int kOff = 0;
constexpr int kStreaming = 1;
constexpr int kWrapping = 2;

constexpr auto kModePatience = 3s;
// Longer than the handler of an exception, which tries to write for 2 s.
constexpr auto kExceptionPatience = 5s;

// Payload of codes 1, 3, 6 and 9, with little-endian numbers:
//
//   payload = word 4 + (code 1 only: log mode 4) + modem information record 204 + word 4
constexpr size_t kRecordSize = 204;
constexpr size_t kNumberAt = kRecordSize - sizeof(uint32_t);
constexpr std::string_view kRecordText = "simulated modem 1.0";
constexpr uint32_t kInfoWord = 0x00010001;

void AppendWord(std::vector<uint8_t>& payload, uint32_t word) {
    const size_t at = payload.size();
    payload.resize(at + sizeof(word));
    memcpy(payload.data() + at, &word, sizeof(word));
}

// Appends a record that ends with `number`, so that two updates differ.
void AppendRecord(std::vector<uint8_t>& payload, uint32_t number) {
    std::array<uint8_t, kRecordSize> record = {};
    memcpy(record.data(), kRecordText.data(), kRecordText.size());
    memcpy(record.data() + kNumberAt, &number, sizeof(number));
    payload.insert(payload.end(), record.begin(), record.end());
    AppendWord(payload, kInfoWord);
}

}  // namespace

std::vector<uint8_t> Modem::Payload(MCL_NTFY_CODE code) {
    std::vector<uint8_t> payload;
    switch (code) {
        case NTFY_MD_LOG_START:
            AppendWord(payload, 0);
            AppendWord(payload, settings_.log_mode == kWrapping ? kWrapping : kStreaming);
            AppendRecord(payload, ++md_info_updates_);
            break;
        case NTFY_MD_LOG_REOPEN:
        case NTFY_MD_EXCEPTION:
        case NTFY_MD_INFO_UPDATE:
            AppendWord(payload, 0);
            AppendRecord(payload, ++md_info_updates_);
            break;
        case NTFY_QUERY_STORAGE_MODE:
            AppendWord(payload, UINT32_MAX);  // no valid answer: the daemon writes its own here
            break;
        default:
            break;
    }
    return payload;
}

void Modem::Raise(MCL_NTFY_CODE code) {
    std::vector<uint8_t> payload;
    {
        std::lock_guard lock(mutex_);
        payload = Payload(code);
    }
    const bool has_payload = !payload.empty();
    Queue({code, has_payload, std::move(payload)});
}

void Modem::RaiseAndWait(MCL_NTFY_CODE code, std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    std::vector<uint8_t> payload = Payload(code);
    const bool has_payload = !payload.empty();
    const bool own_thread = up_ && notifier_.get_id() == std::this_thread::get_id();
    lock.unlock();
    const uint64_t ticket = Queue({code, has_payload, std::move(payload)});
    lock.lock();
    if (own_thread) return;  // a handler has called this; it cannot wait for itself
    idle_cond_.wait_for(lock, limit, [&] { return !up_ || settled_ >= ticket; });
}

bool Modem::SetLogMode(int mode) {
    if (mode < kOff || mode > kWrapping) return false;
    std::lock_guard changing(log_mode_mutex_);
    int old_mode = 0;
    {
        std::unique_lock lock(mutex_);
        old_mode = std::exchange(settings_.log_mode, mode);
        if (mode == old_mode) return true;
        SaveSettings();
        if (old_mode == kStreaming) EndStream(lock);
    }
    if (mode == kOff) {
        RaiseAndWait(NTFY_MD_LOG_STOP, kModePatience);
    } else if (mode == kWrapping && old_mode == kStreaming) {
        RaiseAndWait(NTFY_MD_LOG_CLOSE, kModePatience);
    } else {
        RaiseAndWait(old_mode == kOff ? NTFY_MD_LOG_START : NTFY_MD_LOG_REOPEN, kModePatience);
        if (mode == kStreaming) StartStream();
    }
    return true;
}

void Modem::Exception() {
    std::lock_guard changing(log_mode_mutex_);
    bool flowing = false;
    {
        std::lock_guard lock(mutex_);
        flowing = std::exchange(streaming_, false);
    }
    RaiseAndWait(NTFY_MD_EXCEPTION, kExceptionPatience);
    RaiseAndWait(NTFY_MD_LOG_REOPEN, kExceptionPatience);
    {
        std::lock_guard lock(mutex_);
        if (!flowing || streaming_) return;
        streaming_ = true;
        last_tick_ = Clock::now();  // no bytes were produced while the stream was stopped
    }
    port_cond_.notify_all();
}

}  // namespace sim
