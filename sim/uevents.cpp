#include "sim/uevents.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <random>

#include "sim/modem.h"

namespace sim {

namespace {

constexpr uint32_t kKernelGroup = 1;

// The kernel skips the port that a message comes from, so this one is not the daemon's own.
int OpenSocket() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd == -1) return -1;
    sockaddr_nl any_port = {};
    any_port.nl_family = AF_NETLINK;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&any_port), sizeof(any_port)) == 0) return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

void ApplyToLogDevice(const std::string& action, const std::string& subsystem,
                      const std::string& name) {
    if (subsystem != "vqmi" || name != "wwanD0MDLog") return;
    if (action == "remove") Modem::Instance().RemoveLogDevice();
    if (action == "add") Modem::Instance().AddLogDevice();
}

}  // namespace

std::string DeviceEvent(const std::string& action, const std::string& subsystem,
                        const std::string& name, std::span<const std::string> more) {
    static std::atomic<uint64_t> sequence{1000};
    const std::string path = "/devices/virtual/" + subsystem + "/" + name;
    const std::string fixed[] = {
        action + "@" + path, "ACTION=" + action,
        "DEVPATH=" + path,   "SUBSYSTEM=" + subsystem,
        "DEVNAME=" + name,   "MAJOR=511",
        "MINOR=7",           "SEQNUM=" + std::to_string(++sequence),
    };
    std::string message;
    for (const std::string& text : fixed) message += text + '\0';
    for (const std::string& text : more) message += text + '\0';
    return message;
}

std::string NoiseUevent(size_t length, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

bool SendUevent(std::string_view message) {
    const int fd = OpenSocket();
    if (fd == -1) return false;
    sockaddr_nl listeners = {};
    listeners.nl_family = AF_NETLINK;
    listeners.nl_groups = kKernelGroup;
    // A kernel that takes no such message itself says ECONNREFUSED once the listeners have it.
    const ssize_t sent = sendto(fd, message.data(), message.size(), 0,
                                reinterpret_cast<const sockaddr*>(&listeners), sizeof(listeners));
    const int error = errno;
    close(fd);
    errno = error;
    return sent == static_cast<ssize_t>(message.size()) || error == ECONNREFUSED;
}

bool SendDeviceEvent(const std::string& action, const std::string& subsystem,
                     const std::string& name, std::span<const std::string> more) {
    if (!SendUevent(DeviceEvent(action, subsystem, name, more))) return false;
    ApplyToLogDevice(action, subsystem, name);
    return true;
}

}  // namespace sim
