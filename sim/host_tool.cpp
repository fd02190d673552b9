#include "sim/host_tool.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace sim {

HostTool& HostTool::Instance() {
    static HostTool& tool = *new HostTool;
    return tool;
}

void HostTool::RegisterCallback(tcl_msg_callback callback, void* user) {
    std::lock_guard lock(mutex_);
    callback_ = callback;
    callback_user_ = user;
}

// --- Listening ---

int HostTool::ListenStart(int fd, tcl_host_data_callback to_modem) {
    if (to_modem == nullptr) return -1;
    std::lock_guard lifecycle(lifecycle_mutex_);
    {
        std::lock_guard lock(mutex_);
        if (fd < 0 || fd_ >= 0) ++misused_;
    }
    EndListening();
    end_fd_ = eventfd(0, EFD_CLOEXEC);
    if (end_fd_ < 0) return -1;
    {
        std::scoped_lock lock(data_mutex_, mutex_);
        to_modem_ = to_modem;
        fd_ = fd;
        ++listen_calls_;
    }
    listener_ = std::thread(&HostTool::ListenThread, this, fd, end_fd_);
    return 0;
}

int HostTool::ListenStop() {
    std::lock_guard lifecycle(lifecycle_mutex_);
    EndListening();
    std::lock_guard lock(mutex_);
    ++stop_calls_;
    return 0;
}

void HostTool::EndListening() {
    {
        std::scoped_lock lock(data_mutex_, mutex_);
        to_modem_ = nullptr;
        fd_ = -1;
    }
    if (!listener_.joinable()) return;
    eventfd_write(end_fd_, 1);
    listener_.join();
    close(end_fd_);
}

void HostTool::ListenThread(int fd, int end_fd) {
    pthread_setname_np(pthread_self(), "tcl_listen");
    std::array<pollfd, 2> sources = {{{end_fd, POLLIN, 0}, {fd, POLLIN, 0}}};
    std::array<char, 4096> bytes;
    while (true) {
        if (poll(sources.data(), sources.size(), -1) < 0) continue;
        if (sources[0].revents != 0) return;
        if (sources[1].revents == 0) continue;
        const ssize_t got = read(fd, bytes.data(), bytes.size());
        if (got > 0) {
            HandOver({bytes.data(), static_cast<size_t>(got)});
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            sources[1].fd = -1;  // the host has disconnected; a message reports that to the daemon
        }
    }
}

bool HostTool::HandOver(std::string_view bytes) {
    std::lock_guard data_lock(data_mutex_);
    if (to_modem_ == nullptr) return false;
    if (to_modem_(bytes.data(), static_cast<unsigned int>(bytes.size())) < 0) return false;
    std::lock_guard lock(mutex_);
    sent_ += bytes.size();
    return true;
}

bool HostTool::Send(std::string_view bytes) { return HandOver(bytes); }

// --- Messages ---

void HostTool::Deliver(TCL_MSG msg) {
    std::lock_guard lock(mutex_);
    messages_.push_back(msg);
    if (!has_message_thread_) {
        std::thread(&HostTool::MessageThread, this).detach();  // runs until the process ends
        has_message_thread_ = true;
    }
    cond_.notify_all();
}

void HostTool::WaitForMessages() {
    std::unique_lock lock(mutex_);
    cond_.wait(lock, [this] { return messages_.empty(); });
}

void HostTool::MessageThread() {
    pthread_setname_np(pthread_self(), "tcl_message");
    std::unique_lock lock(mutex_);
    while (true) {
        cond_.wait(lock, [this] { return !messages_.empty(); });
        const TCL_MSG msg = messages_.front();
        const tcl_msg_callback callback = callback_;
        void* const user = callback_user_;
        lock.unlock();
        if (callback != nullptr) callback(user, msg);
        lock.lock();
        messages_.pop_front();
        ++handled_;
        cond_.notify_all();
    }
}

// --- Status ---

HostTool::Status HostTool::status() const {
    std::lock_guard lock(mutex_);
    return {.listening = to_modem_ != nullptr,
            .fd = fd_,
            .handled = handled_,
            .waiting = messages_.size(),
            .sent = sent_,
            .listen_calls = listen_calls_,
            .stop_calls = stop_calls_,
            .misused = misused_};
}

void HostTool::Reset() {
    ListenStop();
    WaitForMessages();
    std::lock_guard lock(mutex_);
    handled_ = sent_ = listen_calls_ = stop_calls_ = misused_ = 0;
}

}  // namespace sim
