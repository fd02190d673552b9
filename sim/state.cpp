#include "sim/state.h"

#include <unistd.h>

#include <cstdio>
#include <span>

#include "sim/host_tool.h"
#include "sim/modem.h"
#include "sim/text.h"

namespace sim {

namespace {

std::string YesNo(bool value) { return value ? "yes" : "no"; }
std::string OrNone(std::string text) { return text.empty() ? "none" : text; }

template <typename T>
std::string Number(T value) {
    return std::to_string(value);
}

std::string Filter(std::span<const uint8_t> filter) {
    if (filter.empty()) return "none";
    char text[64];
    snprintf(text, sizeof(text), "%zu bytes, crc32 %08x", filter.size(), Crc32(filter));
    return text;
}

void AddPort(const Modem::Status& s, std::vector<StateValue>& out) {
    out.insert(out.end(), {
                              {"layer_up", YesNo(s.up)},
                              {"port_open", YesNo(s.port_open)},
                              {"log_device", s.log_device ? "there" : "removed"},
                              {"stream", s.streaming ? "started" : "stopped"},
                              {"source", OrNone(s.source)},
                              {"at_its_end", YesNo(s.exhausted)},
                              {"scenario_ended", YesNo(s.scenario_ended)},
                              {"rate", Number(s.rate), "bytes/s (0: as read)"},
                              {"read_limit", Number(s.read_limit), "bytes (0: none)"},
                              {"tap", s.tap.empty() ? "off" : s.tap},
                              {"delivered", Number(s.delivered), "bytes"},
                              {"written_to_port", Number(s.written), "bytes"},
                              {"sync_blocks", Number(s.sync_blocks)},
                              {"notifications_handled", Number(s.notified)},
                              {"notifications_waiting", Number(s.notify_queue)},
                              {"storage_answer",
                               s.storage_answer ? Number(*s.storage_answer) : std::string("none")},
                              {"sprinkled_faults", Number(s.sprinkle_per_mille), "per mille"},
                              {"calls_init", Number(s.calls.init)},
                              {"calls_open", Number(s.calls.open)},
                              {"calls_close", Number(s.calls.close)},
                              {"calls_read", Number(s.calls.read)},
                              {"calls_poll", Number(s.calls.poll)},
                              {"calls_write", Number(s.calls.write)},
                          });
}

std::string_view ModeName(size_t mode) {
    constexpr std::string_view kModes[] = {"(off)", "(streaming)", "(wrapping)"};
    return mode < std::size(kModes) ? kModes[mode] : std::string_view();
}

void AddSettings(const Modem::Settings& settings, const Modem::IpcStatus& ipc,
                 std::vector<StateValue>& out) {
    const auto mode = static_cast<size_t>(settings.log_mode);
    out.insert(out.end(), {
                              {"log_mode", Number(mode), ModeName(mode)},
                              {"log_level", Number(settings.log_level)},
                              {"log_filter", Filter(settings.filter)},
                              {"flush_interval", Number(settings.flush_interval), "ms"},
                              {"held_back", Number(ipc.held_back), "bytes"},
                              {"flush_status", Number(ipc.flush_status)},
                              {"early_log_filter", Number(settings.early_log_filter)},
                              {"clock", ipc.clock.empty() ? "never set" : ipc.clock},
                              {"clock_sets", Number(ipc.clock_sets)},
                              {"ipc_port", ipc.open ? ipc.port : std::string("closed")},
                              {"ipc_exchanges", Number(ipc.exchanges)},
                              {"ipc_under_way", Number(ipc.under_way)},
                              {"ipc_calls_while_closed", Number(ipc.misused)},
                          });
}

void AddHostTool(const HostTool::Status& host, std::vector<StateValue>& out) {
    out.insert(out.end(),
               {
                   {"host_fd", host.listening ? Number(host.fd) : std::string("not listened to")},
                   {"host_messages_handled", Number(host.handled)},
                   {"host_messages_waiting", Number(host.waiting)},
                   {"host_sent", Number(host.sent), "bytes"},
               });
}

}  // namespace

std::vector<StateValue> CurrentState() {
    Modem& modem = Modem::Instance();
    std::vector<StateValue> values = {{"pid", Number(getpid())}};
    AddPort(modem.status(), values);
    AddSettings(modem.settings(), modem.ipc_status(), values);
    AddHostTool(HostTool::Instance().status(), values);
    return values;
}

}  // namespace sim
