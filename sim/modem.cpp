#include "sim/modem.h"

#include <android/log.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kTick = 10ms;
constexpr uint64_t kTicksPerSecond = 1s / kTick;
constexpr size_t kWrittenKept = 1 << 20;
// The daemon writes this to the port after an exception.
constexpr std::string_view kSyncBlock(
    "\xac\xca\xef\x10\x18\x00\x00\x00\x10\xa0\x00\x00\xa4\x6a\xef\x10\x17\x08\x00\x00"
    "\xac\xdb\xcf\xe5\x16\x10\x00\x00\x00\x2e\x00\x2e\x00\x02\x00\x00\xbd\xdb\x5e\x00",
    40);

}  // namespace

Modem& Modem::Instance() {
    static Modem& modem = *new Modem;
    return modem;
}

Modem::Modem() {
    // The default priority of liblog differs between platforms, so set one. A priority that was set
    // before is kept.
    if (__android_log_get_minimum_priority() == ANDROID_LOG_DEFAULT) {
        __android_log_set_minimum_priority(ANDROID_LOG_INFO);
    }
}

// --- The layer and its port ---

int Modem::Init() {
    std::lock_guard lifecycle(lifecycle_mutex_);
    std::lock_guard lock(mutex_);
    ++calls_.init;
    if (init_faults_ > 0) {
        --init_faults_;
        return -1;
    }
    if (up_) return 0;
    up_ = true;
    port_open_ = log_device_;
    RestartRateClock();
    notifier_ = std::thread(&Modem::NotifyThread, this);
    return 0;
}

int Modem::Deinit() {
    std::lock_guard lifecycle(lifecycle_mutex_);
    {
        std::lock_guard lock(mutex_);
        if (!up_) return 0;
        up_ = false;
        port_open_ = false;
        settled_ += notifications_.size();
        notifications_.clear();
    }
    port_cond_.notify_all();
    quiet_cond_.notify_all();
    notify_cond_.notify_all();
    notifier_.join();
    idle_cond_.notify_all();
    return 0;
}

int Modem::OpenPort() {
    std::lock_guard lock(mutex_);
    ++calls_.open;
    if (!up_ || !log_device_) return -1;
    if (open_faults_ > 0) {
        --open_faults_;
        return -1;
    }
    port_open_ = true;
    return 0;
}

int Modem::ClosePort() {
    {
        std::lock_guard lock(mutex_);
        ++calls_.close;
        port_open_ = false;
    }
    port_cond_.notify_all();
    quiet_cond_.notify_all();
    return 0;
}

void Modem::RemoveLogDevice() {
    {
        std::lock_guard lock(mutex_);
        log_device_ = port_open_ = false;
    }
    port_cond_.notify_all();
    quiet_cond_.notify_all();
}

void Modem::AddLogDevice() {
    std::lock_guard lock(mutex_);
    log_device_ = true;
}

int Modem::PollPort(int timeout_ms) {
    constexpr auto kForEver = std::chrono::hours(24);
    const Clock::time_point deadline =
        Clock::now() + (timeout_ms < 0 ? kForEver : std::chrono::milliseconds(timeout_ms));
    std::unique_lock lock(mutex_);
    ++calls_.poll;
    int result = 0;
    if (port_open_ && (TakeFault(poll_faults_, &result) || SprinklePoll(&result))) return result;
    while (true) {
        if (!port_open_) return -1;
        if (Available() != 0) return 1;
        const Clock::time_point now = Clock::now();
        if (now >= deadline) {
            ++quiet_polls_;
            quiet_cond_.notify_all();
            return -2;
        }
        const bool ticks = rate_ != 0 && streaming_ && source_ && !exhausted_;
        port_cond_.wait_until(lock, ticks ? std::min(deadline, last_tick_ + kTick) : deadline);
    }
}

int Modem::ReadPort(void* buf, size_t len, int* err) {
    std::lock_guard lock(mutex_);
    ++calls_.read;
    int error = 0;
    if (!port_open_) {
        error = log_device_ ? EBADF : ENODEV;
    } else if (TakeFault(read_faults_, &error) || SprinkleRead(&error)) {
        if (error == 0) return 0;
    } else {
        size_t want = std::min({len, Available(), static_cast<size_t>(INT_MAX)});
        if (read_limit_ != 0) want = std::min(want, read_limit_);
        const size_t got = want == 0 ? 0 : source_->Read(static_cast<uint8_t*>(buf), want);
        if (got != 0) {
            delivered_ += got;
            SaveDelivered();
            if (rate_ != 0) {
                credit_ -= got * kTicksPerSecond;
                ready_ -= got;
                flush_left_ -= std::min<uint64_t>(flush_left_, got);
            }
            WriteTap(static_cast<const uint8_t*>(buf), got);
            return static_cast<int>(got);
        }
        if (want != 0) {
            exhausted_ = true;
            flush_left_ = 0;
        }
        error = EAGAIN;
    }
    if (err != nullptr) *err = error;
    return -1;
}

int Modem::WritePort(const void* buf, size_t len) {
    std::lock_guard lock(mutex_);
    ++calls_.write;
    if (!port_open_) return -1;
    if (write_faults_ > 0) {
        --write_faults_;
        return -1;
    }
    const size_t before = written_.size();
    written_.append(static_cast<const char*>(buf), len);
    for (size_t at = before - std::min(before, kSyncBlock.size() - 1);
         (at = written_.find(kSyncBlock, at)) != std::string::npos; at += kSyncBlock.size()) {
        ++sync_blocks_;
    }
    if (written_.size() > kWrittenKept) written_.erase(0, written_.size() - kWrittenKept);
    written_total_ += len;
    return static_cast<int>(len);
}

void Modem::RegisterCallback(mcl_ntfy_callback callback, void* user) {
    std::lock_guard lock(mutex_);
    callback_ = callback;
    callback_user_ = user;
}

// --- The stream ---

void Modem::SetSource(std::unique_ptr<LogSource> source) {
    {
        std::lock_guard lock(mutex_);
        source_.swap(source);
        exhausted_ = false;
        RestartRateClock();
    }
    port_cond_.notify_all();
}

void Modem::StartStream() {
    {
        std::lock_guard lock(mutex_);
        if (!streaming_) RestartRateClock();
        streaming_ = true;
    }
    port_cond_.notify_all();
}

void Modem::StopStream() {
    std::lock_guard lock(mutex_);
    streaming_ = false;
    RestartRateClock();
}

void Modem::EndStream(std::unique_lock<std::mutex>& lock) {
    constexpr auto kPatience = 2s;
    if (streaming_ && rate_ != 0) {
        Produce();
        Release();
    }
    streaming_ = false;
    port_cond_.notify_all();
    // Do not wait if nobody has read the stream so far: then nobody will read it now.
    if (delivered_ != delivered_before_) {
        const uint64_t before = quiet_polls_;
        quiet_cond_.wait_for(lock, kPatience,
                             [&] { return !port_open_ || quiet_polls_ != before; });
    }
    RestartRateClock();
}

void Modem::SetRate(uint64_t bytes_per_second) {
    {
        std::lock_guard lock(mutex_);
        rate_ = bytes_per_second;
        RestartRateClock();
    }
    port_cond_.notify_all();
}

void Modem::SetReadLimit(size_t bytes) {
    std::lock_guard lock(mutex_);
    read_limit_ = bytes;
}

void Modem::SetFlushInterval(int ms) {
    {
        std::lock_guard lock(mutex_);
        Available();  // release the bytes that are due by the old interval
        settings_.flush_interval = ms;
        SaveSettings();
    }
    port_cond_.notify_all();
}

void Modem::SetWatermark(size_t bytes) {
    {
        std::lock_guard lock(mutex_);
        watermark_ = bytes;
    }
    port_cond_.notify_all();
}

void Modem::RestartRateClock() {
    credit_ = ready_ = flush_left_ = 0;
    last_tick_ = last_release_ = Clock::now();
    delivered_before_ = delivered_;
}

size_t Modem::Available() {
    if (!source_ || exhausted_) return 0;
    if (rate_ == 0) return streaming_ ? SIZE_MAX : 0;
    if (streaming_) Produce();
    return ready_;
}

size_t Modem::HeldBack() const { return credit_ / kTicksPerSecond - ready_; }

void Modem::Produce() {
    const Clock::time_point now = Clock::now();
    const auto ticks = static_cast<uint64_t>((now - last_tick_) / kTick);
    last_tick_ += ticks * kTick;
    const std::chrono::milliseconds interval(settings_.flush_interval);
    const uint64_t most = (rate_ + (interval > 0ms ? watermark_ : 0)) * kTicksPerSecond;
    credit_ = std::min(most, credit_ + std::min(ticks, most / rate_ + 1) * rate_);
    if (now - last_release_ >= interval || HeldBack() >= watermark_) Release();
}

void Modem::Release() {
    ready_ = credit_ / kTicksPerSecond;
    last_release_ = Clock::now();
}

bool Modem::SetTap(const std::string& path) {
    int fd = -1;
    if (!path.empty()) fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const int error = errno;
    {
        std::lock_guard lock(mutex_);
        CloseTap();
        tap_ = {fd, fd != -1 ? path : ""};
    }
    errno = error;
    return path.empty() || fd != -1;
}

void Modem::CloseTap() {
    if (tap_.fd != -1) close(tap_.fd);
    tap_ = {};
}

void Modem::WriteTap(const uint8_t* bytes, size_t len) {
    while (tap_.fd != -1 && len > 0) {
        const ssize_t put = write(tap_.fd, bytes, len);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) {
            const std::string why = tap_.text + ": given up, " + strerror(errno);
            CloseTap();
            tap_.text = why;
            return;
        }
        bytes += put;
        len -= static_cast<size_t>(put);
    }
}

uint64_t Modem::bytes_delivered() const {
    std::lock_guard lock(mutex_);
    return delivered_;
}

bool Modem::source_exhausted() const {
    std::lock_guard lock(mutex_);
    return exhausted_;
}

// --- Faults ---

void Modem::FailInit(int count) {
    std::lock_guard lock(mutex_);
    init_faults_ = count;
}

void Modem::FailOpens(int count) {
    std::lock_guard lock(mutex_);
    open_faults_ = count;
}

void Modem::FailReads(int error, int count) {
    std::lock_guard lock(mutex_);
    AddFault(read_faults_, error, count);
}

void Modem::FailPolls(int result, int count) {
    std::lock_guard lock(mutex_);
    AddFault(poll_faults_, result, count);
}

void Modem::FailWrites(int count) {
    std::lock_guard lock(mutex_);
    write_faults_ = count;
}

void Modem::SprinkleFaults(uint64_t seed, int per_mille) {
    std::lock_guard lock(mutex_);
    sprinkle_random_.seed(seed);
    sprinkle_per_mille_ = per_mille;
    sprinkle_ebadf_left_ = 0;
}

void Modem::AddFault(std::deque<Fault>& faults, int value, int count) {
    if (count <= 0) {
        faults.clear();
    } else {
        faults.push_back({value, count});
        if (faults.size() > kMostQueued) faults.pop_front();
    }
}

bool Modem::TakeFault(std::deque<Fault>& faults, int* value) {
    if (faults.empty()) return false;
    *value = faults.front().value;
    if (--faults.front().count == 0) faults.pop_front();
    return true;
}

bool Modem::SprinkleHits() {
    return sprinkle_per_mille_ > 0 &&
           sprinkle_random_() % 1000 < static_cast<uint64_t>(sprinkle_per_mille_);
}

bool Modem::SprinkleRead(int* error) {
    if (sprinkle_ebadf_left_ > 0) {
        --sprinkle_ebadf_left_;
        *error = EBADF;
        return true;
    }
    if (!SprinkleHits()) return false;
    // The reader pauses for 300 ms or more after EIO and EBADF, so they are rare.
    const uint64_t dice = sprinkle_random_() % 100;
    if (dice < 40) {
        *error = EAGAIN;
    } else if (dice < 65) {
        *error = EINTR;
    } else if (dice < 90) {
        *error = 0;
    } else if (dice < 95) {
        *error = ENODEV;
    } else if (dice < 98) {
        *error = EIO;
    } else {
        *error = EBADF;
        sprinkle_ebadf_left_ = static_cast<int>(sprinkle_random_() % 12);
    }
    return true;
}

bool Modem::SprinklePoll(int* result) {
    if (!SprinkleHits()) return false;
    *result = sprinkle_random_() % 5 == 0 ? -1 : -2;
    return true;
}

// --- Notifications ---

uint64_t Modem::Queue(Notification notification) {
    uint64_t ticket = 0;
    {
        std::lock_guard lock(mutex_);
        notifications_.push_back(std::move(notification));
        ticket = ++raised_;
        if (notifications_.size() > kMostQueued) {
            notifications_.pop_front();
            ++settled_;
        }
    }
    notify_cond_.notify_one();
    return ticket;
}

void Modem::Notify(MCL_NTFY_CODE code, const void* payload, size_t payload_size) {
    const auto* bytes = static_cast<const uint8_t*>(payload);
    Notification notification{code, payload != nullptr, {}};
    if (payload != nullptr) notification.payload.assign(bytes, bytes + payload_size);
    // A handler gets no size and reads as many bytes as a modem sends with this code.
    if (payload != nullptr) notification.payload.resize(std::max(payload_size, kLargestPayload));
    Queue(std::move(notification));
}

void Modem::WaitForNotifications() {
    std::unique_lock lock(mutex_);
    idle_cond_.wait(lock, [this] { return !up_ || (notifications_.empty() && !notifying_); });
}

void Modem::NotifyThread() {
    pthread_setname_np(pthread_self(), "mcl_notify");
    std::unique_lock lock(mutex_);
    while (true) {
        notify_cond_.wait(lock, [this] { return !up_ || !notifications_.empty(); });
        if (!up_) return;
        Notification notification = std::move(notifications_.front());
        notifications_.pop_front();
        notifying_ = true;
        const mcl_ntfy_callback callback = callback_;
        void* const user = callback_user_;
        lock.unlock();
        if (callback != nullptr) {
            callback(user, notification.code,
                     notification.has_payload ? notification.payload.data() : nullptr);
        }
        lock.lock();
        uint32_t word = 0;
        if (notification.code == NTFY_QUERY_STORAGE_MODE &&
            notification.payload.size() >= sizeof(word)) {
            memcpy(&word, notification.payload.data(), sizeof(word));
            storage_answer_ = word;
        }
        notifying_ = false;
        ++notified_;
        ++settled_;
        idle_cond_.notify_all();
    }
}

void Modem::EndScenario() {
    std::lock_guard lock(mutex_);
    scenario_ended_ = true;
}

// --- Status ---

std::string Modem::written() const {
    std::lock_guard lock(mutex_);
    return written_;
}

Modem::Calls Modem::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

Modem::Status Modem::status() const {
    std::lock_guard lock(mutex_);
    Status status = {};
    status.up = up_;
    status.port_open = port_open_;
    status.log_device = log_device_;
    status.streaming = streaming_;
    status.exhausted = exhausted_;
    status.scenario_ended = scenario_ended_;
    if (source_) status.source = source_->Describe();
    status.rate = rate_;
    status.read_limit = read_limit_;
    status.tap = tap_.text;
    status.delivered = delivered_;
    status.written = written_total_;
    status.sync_blocks = sync_blocks_;
    status.storage_answer = storage_answer_;
    status.notified = notified_;
    status.notify_queue = notifications_.size() + (notifying_ ? 1 : 0);
    status.sprinkle_per_mille = sprinkle_per_mille_;
    status.calls = calls_;
    return status;
}

void Modem::Reset() {
    CloseIpc();
    Deinit();
    SetSource(nullptr);
    SetTap("");
    std::lock_guard lock(mutex_);
    streaming_ = scenario_ended_ = false;
    log_device_ = true;
    rate_ = 0;
    read_limit_ = 0;
    delivered_ = 0;
    watermark_ = kDefaultWatermark;
    RestartRateClock();
    init_faults_ = open_faults_ = write_faults_ = 0;
    read_faults_.clear();
    poll_faults_.clear();
    sprinkle_per_mille_ = sprinkle_ebadf_left_ = 0;
    calls_ = {};
    written_.clear();
    written_total_ = sync_blocks_ = 0;
    settled_ += notifications_.size();
    notifications_.clear();
    notified_ = 0;
    storage_answer_.reset();
    ipc_port_.clear();
    ipc_timeout_ms_ = 0;
    ipc_exchanges_ = ipc_misused_ = 0;
    ipc_requests_.clear();
    ipc_request_bytes_ = 0;
    ipc_faults_.clear();
    ipc_init_faults_.clear();
    at_answers_.clear();
    settings_ = {};
    settings_folder_.clear();
    if (delivered_fd_ != -1) close(delivered_fd_);
    delivered_fd_ = -1;
    clock_.clear();
    clock_sets_ = 0;
}

}  // namespace sim
