// The files in which the modem keeps its state over a restart of the daemon's process.
//
//   settings  = (key + blank + value + newline)*, the filter's bytes in hexadecimal
//   delivered = number of bytes read from the log port, 20 decimal digits
#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

#include "sim/modem.h"
#include "sim/text.h"

namespace sim {

namespace {

std::string File(const std::string& folder) { return folder + "/settings"; }

constexpr std::pair<const char*, int Modem::Settings::*> kNumbers[] = {
    {"log_mode", &Modem::Settings::log_mode},
    {"log_level", &Modem::Settings::log_level},
    {"flush_interval", &Modem::Settings::flush_interval},
    {"early_log_filter", &Modem::Settings::early_log_filter},
};

Modem::Settings Read(const std::string& path) {
    Modem::Settings settings;
    std::ifstream in(path);
    for (std::string key, value; in >> key >> value;) {
        if (key == "log_filter") HexBytes(value, &settings.filter);
        for (const auto& [name, member] : kNumbers) {
            if (key == name) settings.*member = atoi(value.c_str());
        }
    }
    return settings;
}

}  // namespace

void Modem::KeepSettings(const std::string& folder) {
    std::lock_guard lock(mutex_);
    settings_folder_ = folder;
    settings_ = Read(File(folder));
    KeepDelivered(folder + "/delivered");
    if (settings_.log_mode == 1 && !streaming_) {
        RestartRateClock();
        streaming_ = true;
    }
}

void Modem::KeepDelivered(const std::string& path) {
    std::ifstream(path) >> delivered_;
    if (delivered_fd_ != -1) close(delivered_fd_);
    delivered_fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    SaveDelivered();
}

// Overwrites the number with one write, so that the file always holds the old or the new number.
void Modem::SaveDelivered() {
    if (delivered_fd_ == -1) return;
    char digits[24];
    const int length =
        snprintf(digits, sizeof(digits), "%020llu", static_cast<unsigned long long>(delivered_));
    if (pwrite(delivered_fd_, digits, static_cast<size_t>(length), 0) < 0) perror("delivered");
}

void Modem::SaveSettings() {
    if (settings_folder_.empty()) return;
    const std::string path = File(settings_folder_);
    const std::string fresh = path + ".new";
    std::ofstream out(fresh);
    for (const auto& [name, member] : kNumbers) out << name << ' ' << settings_.*member << '\n';
    if (!settings_.filter.empty()) out << "log_filter " << HexText(settings_.filter) << '\n';
    out.close();
    if (!out || rename(fresh.c_str(), path.c_str()) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "SIM", "cannot keep the settings in %s: %s",
                            path.c_str(), strerror(errno));
    }
}

}  // namespace sim
