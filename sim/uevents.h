// Device events of the simulated phone. They are netlink datagrams like those of the kernel, and go
// to all listeners in this network namespace. Needs CAP_NET_ADMIN there. Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace sim {

// Returns the message of a virtual device: header, ACTION, DEVPATH, SUBSYSTEM, DEVNAME, MAJOR,
// MINOR, SEQNUM, then the texts of `more`. Each text ends with a NUL.
std::string DeviceEvent(const std::string& action, const std::string& subsystem,
                        const std::string& name, std::span<const std::string> more = {});
// Returns random bytes, which depend on the seed only.
std::string NoiseUevent(size_t length, uint64_t seed);

// Sends the bytes as one datagram. Returns false with errno set on failure. It is no failure if
// nobody listens.
bool SendUevent(std::string_view message);
// Sends a device event. An event of the modem's log device also adds or removes that device.
bool SendDeviceEvent(const std::string& action, const std::string& subsystem,
                     const std::string& name, std::span<const std::string> more = {});

}  // namespace sim
