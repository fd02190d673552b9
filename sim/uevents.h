// Device events of the simulated phone: datagrams of the kind that the kernel sends, to everyone in
// this network namespace who listens for them. Needs CAP_NET_ADMIN there. Any thread may send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace sim {

// The message of a virtual device: header, ACTION, DEVPATH, SUBSYSTEM, DEVNAME, MAJOR, MINOR,
// SEQNUM, then what `more` has; each text with its NUL.
std::string DeviceEvent(const std::string& action, const std::string& subsystem,
                        const std::string& name, std::span<const std::string> more = {});
// Random bytes, the same for the same seed.
std::string NoiseUevent(size_t length, uint64_t seed);

// Sends the bytes as one datagram; false, with errno set, when that fails. Nobody listening is no
// failure.
bool SendUevent(std::string_view message);
// Sends a device event. If it is about the modem's log device, that comes or goes with it.
bool SendDeviceEvent(const std::string& action, const std::string& subsystem,
                     const std::string& name, std::span<const std::string> more = {});

}  // namespace sim
