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

// Binds the socket to a port id that is not a process id. A socket without a port id would get the
// process id, like the daemon's socket, and the kernel does not deliver a message to the port id of
// its sender.
int OpenSocket() {
    static std::atomic<uint32_t> sockets{0};
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd == -1) return -1;
    sockaddr_nl own_port = {};
    own_port.nl_family = AF_NETLINK;
    own_port.nl_pid = 0x80000000u | ++sockets;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&own_port), sizeof(own_port)) == 0) return fd;
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
    // ECONNREFUSED: the listeners have got the message, but the kernel has not taken it itself.
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
