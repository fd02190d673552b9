// The console's commands. Each is a row of one table.
#include <android/log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "platform/system_properties.h"
#include "sim/host_tool.h"
#include "sim/modem.h"
#include "sim/order.h"
#include "sim/replay_place.h"
#include "sim/state.h"
#include "sim/text.h"
#include "sim/uevents.h"

namespace sim {

namespace {

// Returns the errno number for a number or for one of the names below. "zero" is 0.
std::optional<int> ErrorNumber(std::string_view word) {
    static constexpr std::array<std::pair<std::string_view, int>, 7> kNames = {{{"zero", 0},
                                                                                {"EAGAIN", EAGAIN},
                                                                                {"EBADF", EBADF},
                                                                                {"EINTR", EINTR},
                                                                                {"EIO", EIO},
                                                                                {"ENODEV", ENODEV},
                                                                                {"ENXIO", ENXIO}}};
    for (const auto& [name, value] : kNames) {
        if (word == name) return value;
    }
    const auto value = Number(word, 4095);
    return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

// Replaces the escapes \r and \n, since a line cannot contain these characters.
std::string Unescaped(std::string_view word) {
    std::string text;
    for (size_t i = 0; i < word.size(); ++i) {
        const std::string_view pair = word.substr(i, 2);
        if (pair == "\\r" || pair == "\\n") {
            text += pair == "\\r" ? '\r' : '\n';
            ++i;
        } else {
            text += word[i];
        }
    }
    return text;
}

// The file that shows the state of a phone's modem.
constexpr const char* kMdStateFile = "/dev/wwan_fsm_state";

// --- Commands ---

Order Replay(const Console& console, Words words) {
    const std::string& path = words[2];
    if (!path.starts_with('/')) return NotAbsolute(path);
    std::optional<uint64_t> offset;
    if (words.size() > 3) {
        offset = Number(words[3], LLONG_MAX);
        if (!offset) return BadNumber("OFFSET", words[3], LLONG_MAX);
    }
    return Do([folder = console.folder(), path, offset] {
        const uint64_t kept = folder.empty() ? 0 : ReadReplayPlace(folder, path);
        const uint64_t from = offset.value_or(kept);
        auto source = folder.empty() ? MakeReplaySource(path, from)
                                     : MakeKeptReplaySource(folder, path, from);
        if (!source) return Failed("cannot replay " + path + ": " + strerror(errno));
        Modem::Instance().SetSource(std::move(source));
        return Ok();
    });
}

Order Source(const Console& console, Words words) {
    if (words[1] == "replay" && words.size() >= 3) return Replay(console, words);
    if (words[1] == "none" && words.size() == 2) {
        return Do([] {
            Modem::Instance().SetSource(nullptr);
            return Ok();
        });
    }
    if (words[1] != "generated" || words.size() != 3) {
        return Refuse("a source is generated SEED, replay FILE [OFFSET] or none");
    }
    const auto seed = Number(words[2], UINT64_MAX);
    if (!seed) return BadNumber("SEED", words[2], UINT64_MAX);
    return Do([seed] {
        Modem::Instance().SetSource(MakeGeneratedSource(*seed));
        return Ok();
    });
}

Order Stream(const Console&, Words words) {
    const bool start = words[1] == "start";
    if (!start && words[1] != "stop") return Refuse("neither start nor stop: " + words[1]);
    return Do([start] {
        Modem& modem = Modem::Instance();
        start ? modem.StartStream() : modem.StopStream();
        return Ok();
    });
}

Order Rate(const Console&, Words words) {
    constexpr uint64_t kMax = 1'000'000'000'000;
    const auto rate = Number(words[1], kMax);
    if (!rate) return BadNumber("BYTES", words[1], kMax);
    return Do([rate] {
        Modem::Instance().SetRate(*rate);
        return Ok();
    });
}

Order Limit(const Console&, Words words) {
    const auto limit = Number(words[1], INT_MAX);
    if (!limit) return BadNumber("BYTES", words[1], INT_MAX);
    return Do([limit] {
        Modem::Instance().SetReadLimit(*limit);
        return Ok();
    });
}

Order Tap(const Console&, Words words) {
    const std::string path = words[1] == "off" ? "" : words[1];
    if (!path.empty() && !path.starts_with('/')) return NotAbsolute(path);
    return Do([path] {
        if (Modem::Instance().SetTap(path)) return Ok();
        return Failed("cannot write to " + path + ": " + strerror(errno));
    });
}

Order Fail(const Console&, Words words) {
    const std::string& what = words[1];
    const auto count = Number(words.back(), INT_MAX);
    if (!count) return BadNumber("COUNT", words.back(), INT_MAX);
    const int times = static_cast<int>(*count);
    const auto tell = [](auto call) {
        return Do([call] {
            call(Modem::Instance());
            return Ok();
        });
    };
    if (words.size() == 3) {
        if (what == "init") return tell([times](Modem& modem) { modem.FailInit(times); });
        if (what == "open") return tell([times](Modem& modem) { modem.FailOpens(times); });
        if (what == "write") return tell([times](Modem& modem) { modem.FailWrites(times); });
    } else if (what == "read") {
        const auto error = ErrorNumber(words[2]);
        if (!error) return Refuse("not a known error name or number: " + words[2]);
        return tell([error, times](Modem& modem) { modem.FailReads(*error, times); });
    } else if (what == "poll") {
        if (words[2] != "timeout" && words[2] != "failure") {
            return Refuse("neither timeout nor failure: " + words[2]);
        }
        const int result = words[2] == "timeout" ? -2 : -1;
        return tell([result, times](Modem& modem) { modem.FailPolls(result, times); });
    }
    return Refuse(
        "what can fail is init COUNT, open COUNT, write COUNT, read ERROR COUNT and "
        "poll timeout|failure COUNT");
}

Order FailIpc(Words words) {
    static constexpr struct {
        std::string_view name;
        IpcFault kind;
        bool has_value;
    } kKinds[] = {
        {"message", IpcFault::kMessage, false},    {"value", IpcFault::kValue, false},
        {"cause", IpcFault::kCause, true},         {"silence", IpcFault::kSilence, true},
        {"delay", IpcFault::kDelay, true},         {"result", IpcFault::kResult, true},
        {"no_result", IpcFault::kNoResult, false}, {"no_answer", IpcFault::kNoAnswer, false},
        {"answer", IpcFault::kAnswer, true},       {"short", IpcFault::kShort, true},
        {"no_length", IpcFault::kNoLength, false},
    };
    const auto id = words[1] == "any" ? 0 : Number(words[1], INT_MAX);
    if (!id) return BadNumber("MESSAGE", words[1], INT_MAX);
    for (const auto& kind : kKinds) {
        if (words[2] != kind.name || words.size() != (kind.has_value ? 5u : 4u)) continue;
        const auto value = kind.has_value ? Integer(words[3]) : 0;
        if (!value) return Refuse("VALUE is not a whole number: " + words[3]);
        const auto count = Number(words.back(), INT_MAX);
        if (!count) return BadNumber("COUNT", words.back(), INT_MAX);
        return Do([id, kind = kind.kind, value, count] {
            Modem::Instance().FailIpc(static_cast<int>(*id), kind, *value,
                                      static_cast<int>(*count));
            return Ok();
        });
    }
    return Refuse(
        "FAULT is message, value, no_result, no_answer or no_length, or with a VALUE cause, "
        "silence, delay, result, answer or short");
}

Order Ipc(const Console&, Words words) {
    if (words[1] != "init") return words.size() >= 4 ? FailIpc(words) : Refuse("no COUNT");
    const auto code = Integer(words[2]);
    if (words.size() != 4 || !code) return Refuse("use: ipc init CODE COUNT");
    const auto count = Number(words[3], INT_MAX);
    if (!count) return BadNumber("COUNT", words[3], INT_MAX);
    return Do([code, count] {
        Modem::Instance().FailIpcInit(*code, static_cast<int>(*count));
        return Ok();
    });
}

Order At(const Console&, Words words) {
    const auto count = Number(words[2], INT_MAX);
    if (!count) return BadNumber("COUNT", words[2], INT_MAX);
    return Do([text = Unescaped(words[1]), count] {
        Modem::Instance().AnswerAt(text, static_cast<int>(*count));
        return Ok();
    });
}

Order LogMode(const Console&, Words words) {
    const auto mode = Number(words[1], 2);
    if (!mode) {
        return Refuse("neither 0 (off), 1 (streaming) nor 2 (wrapping): " + words[1]);
    }
    return Do([mode] {
        Modem::Instance().SetLogMode(static_cast<int>(*mode));
        return Ok();
    });
}

Order Watermark(const Console&, Words words) {
    const auto bytes = Number(words[1], INT_MAX);
    if (!bytes) return BadNumber("BYTES", words[1], INT_MAX);
    return Do([bytes] {
        Modem::Instance().SetWatermark(*bytes);
        return Ok();
    });
}

Order Exception(const Console&, Words) {
    return Do([] {
        Modem::Instance().Exception();
        return Ok();
    });
}

Order Sprinkle(const Console&, Words words) {
    const auto per_mille = Number(words[1], 1000);
    if (!per_mille) return BadNumber("PER_MILLE", words[1], 1000);
    const auto seed = words.size() > 2 ? Number(words[2], UINT64_MAX) : 1;
    if (!seed) return BadNumber("SEED", words[2], UINT64_MAX);
    return Do([seed, per_mille] {
        Modem::Instance().SprinkleFaults(*seed, static_cast<int>(*per_mille));
        return Ok();
    });
}

Order Notify(const Console&, Words words) {
    const auto code = Number(words[1], INT_MAX);
    if (!code) return BadNumber("CODE", words[1], INT_MAX);
    const auto ntfy_code = static_cast<MCL_NTFY_CODE>(*code);
    if (words.size() == 2) {
        return Do([ntfy_code] {
            Modem::Instance().Raise(ntfy_code);
            return Ok();
        });
    }
    std::vector<uint8_t> payload;
    if (words[2] != "null" && !HexBytes(words[2], &payload)) {
        return Refuse("PAYLOAD is not bytes in hexadecimal: " + words[2]);
    }
    return Do([ntfy_code, payload] {
        Modem::Instance().Notify(ntfy_code, payload.empty() ? nullptr : payload.data(),
                                 payload.size());
        return Ok();
    });
}

Order UeventNoise(Words words) {
    constexpr uint64_t kMax = 65536;
    const auto length = Number(words[2], kMax);
    if (!length) return BadNumber("BYTES", words[2], kMax);
    const auto seed = words.size() > 3 ? Number(words[3], UINT64_MAX) : 1;
    if (!seed) return BadNumber("SEED", words[3], UINT64_MAX);
    return Do([length, seed] {
        if (SendUevent(NoiseUevent(*length, *seed))) return Ok();
        return Failed(std::string("cannot send it: ") + strerror(errno));
    });
}

Order Uevent(const Console&, Words words) {
    if (words[1] == "noise" && words.size() <= 4) return UeventNoise(words);
    if (words.size() < 4) return Refuse("no DEVNAME");
    return Do([all = std::vector(words.begin(), words.end())] {
        const Words more = Words(all).subspan(4);
        if (SendDeviceEvent(all[1], all[2], all[3], more)) return Ok();
        return Failed(std::string("cannot send it: ") + strerror(errno));
    });
}

Reply RemoveMdState() {
    std::error_code error;
    std::filesystem::remove(kMdStateFile, error);
    return error ? Failed(std::string("cannot remove ") + kMdStateFile + ": " + error.message())
                 : Ok();
}

Reply WriteMdState(uint64_t number) {
    const std::string fresh = std::string(kMdStateFile) + ".new";
    std::ofstream(fresh) << "state=" << number << '\n';
    std::error_code error;
    std::filesystem::rename(fresh, kMdStateFile, error);
    return error ? Failed(std::string("cannot write ") + kMdStateFile + ": " + error.message())
                 : Ok();
}

Order MdState(const Console&, Words words) {
    if (words[1] == "none") return Do(RemoveMdState);
    const auto number = Number(words[1], INT_MAX);
    if (!number) return BadNumber("STATE", words[1], INT_MAX);
    return Do([number] { return WriteMdState(*number); });
}

Order HostSend(Words words) {
    std::string bytes = Unescaped(words[2]);
    if (words[1] == "hex") {
        std::vector<uint8_t> values;
        if (!HexBytes(words[2], &values)) {
            return Refuse("BYTES is not bytes in hexadecimal: " + words[2]);
        }
        bytes.assign(values.begin(), values.end());
    }
    return Do([bytes] {
        if (HostTool::Instance().Send(bytes)) return Ok();
        return Failed(
            "the daemon does not listen to the host, or the modem did not accept the bytes");
    });
}

Order Deliver(TCL_MSG message) {
    return Do([message] {
        HostTool::Instance().Deliver(message);
        return Ok();
    });
}

Order Host(const Console&, Words words) {
    static constexpr std::array<std::pair<std::string_view, TCL_MSG>, 3> kMessages = {
        {{"connect", TCL_MSG_HOST_CONNECTED},
         {"disconnect", TCL_MSG_HOST_DISCONNECTED},
         {"error", TCL_MSG_HOST_PORT_ERROR}}};
    for (const auto& [name, message] : kMessages) {
        if (words[1] == name && words.size() == 2) return Deliver(message);
    }
    if (words.size() == 3 && (words[1] == "send" || words[1] == "hex")) return HostSend(words);
    if (words.size() != 3 || words[1] != "message") {
        return Refuse(
            "a host can connect, disconnect, error, message CODE, send TEXT or hex BYTES");
    }
    const auto code = Number(words[2], INT_MAX);
    if (!code) return BadNumber("CODE", words[2], INT_MAX);
    return Deliver(static_cast<TCL_MSG>(*code));
}

Order Property(const Console&, Words words) {
    const std::string& name = words[1];
    if (words.size() == 2) {
        return Do([name] {
            char value[PROP_VALUE_MAX];
            __system_property_get(name.c_str(), value);
            return Ok(std::string(value) + "\n");
        });
    }
    const std::string& value = words[2];
    if (name.empty() || value.size() >= PROP_VALUE_MAX) {
        return Refuse("no name, or a value of more than " + std::to_string(PROP_VALUE_MAX - 1) +
                      " bytes");
    }
    return Do([name, value] {
        __system_property_set(name.c_str(), value.c_str());
        return Ok();
    });
}

Order Log(const Console&, Words words) {
    static constexpr std::array<std::pair<std::string_view, android_LogPriority>, 4> kPriorities = {
        {{"debug", ANDROID_LOG_DEBUG},
         {"info", ANDROID_LOG_INFO},
         {"warning", ANDROID_LOG_WARN},
         {"error", ANDROID_LOG_ERROR}}};
    for (const auto& [name, priority] : kPriorities) {
        if (words[1] != name) continue;
        return Do([priority = priority] {
            __android_log_set_minimum_priority(priority);
            return Ok();
        });
    }
    return Refuse("not debug, info, warning or error: " + words[1]);
}

Reply AllState() {
    std::string text;
    for (const StateValue& line : CurrentState()) {
        text.append(line.key).append(": ").append(line.value);
        if (!line.unit.empty()) text.append(" ").append(line.unit);
        text += '\n';
    }
    return Ok(std::move(text));
}

Order State(const Console&, Words) { return Do(AllState); }

Order Get(const Console&, Words words) {
    return Do([key = words[1]] {
        for (const StateValue& line : CurrentState()) {
            if (line.key == key) return Ok(line.value + '\n');
        }
        return Failed("the phone has no " + key + " (state shows what it has)");
    });
}

Order Help(const Console&, Words words);

constexpr Command kCommands[] = {
    {"source", 2, 4, Command::kSetting, "generated SEED | replay FILE [OFFSET] | none",
     "sets the source of the log stream. A replay continues where the last replay of the same file "
     "stopped, also after a restart of the process, unless OFFSET is given",
     Source},
    {"stream", 2, 2, Command::kEvent, "start | stop", "starts or stops the log stream", Stream},
    {"rate", 2, 2, Command::kSetting, "BYTES",
     "sets the rate in bytes per second (4M, 512k, 1Gi, ...); 0 means as fast as the daemon reads",
     Rate},
    {"limit", 2, 2, Command::kSetting, "BYTES",
     "sets the most bytes that one read of the port returns; 0 means no limit", Limit},
    {"tap", 2, 2, Command::kSetting, "FILE | off",
     "appends everything that the daemon reads from the port to a file", Tap},
    {"fail", 3, 4, Command::kEvent,
     "init COUNT | open COUNT | write COUNT | read ERROR COUNT | poll timeout|failure COUNT",
     "makes the next COUNT calls fail; a COUNT of 0 cancels this. ERROR is EAGAIN, EBADF, EINTR, "
     "EIO, ENODEV, ENXIO, a number, or zero for reads of zero bytes",
     Fail},
    {"sprinkle", 2, 3, Command::kSetting, "PER_MILLE [SEED]",
     "makes PER_MILLE of 1000 reads and polls fail, chosen at random; 0 means none", Sprinkle},
    {"ipc", 4, 5, Command::kEvent, "init CODE COUNT | MESSAGE|any FAULT [VALUE] COUNT",
     "makes modem IPC fail COUNT times: opening the channel, with the result CODE, or the messages "
     "with the number MESSAGE. A COUNT of 0 cancels all faults. FAULT is message (the message "
     "cannot be created), value (no value can be added), cause VALUE (it is not sent, for this "
     "cause), silence VALUE (it is lost, and its call fails after VALUE ms; 0 means the whole "
     "time-out), delay VALUE (the reply comes VALUE ms later), result VALUE (the modem refuses "
     "with this result), no_result (the reply has no result), no_answer (the reply has no value), "
     "answer VALUE (the reply has this number), short VALUE (VALUE bytes of the reply's last value "
     "are missing) or no_length (the library does not report the length of values)",
     Ipc},
    {"at", 3, 3, Command::kEvent, "TEXT COUNT",
     "answers the next COUNT AT commands with TEXT, in which \\r and \\n are line ends", At},
    {"log_mode", 2, 2, Command::kEvent, "0 | 1 | 2",
     "sets the log mode (0 off, 1 streaming, 2 wrapping) as another client of the modem would, "
     "with the notification; returns when the daemon has handled the notification",
     LogMode},
    {"watermark", 2, 2, Command::kSetting, "BYTES",
     "sets how many bytes the modem holds back before it sends them without waiting for the flush "
     "interval",
     Watermark},
    {"exception", 1, 1, Command::kEvent, "",
     "crashes the modem: notification 6; when the daemon has handled it, notification 3 and the "
     "stream starts again",
     Exception},
    {"notify", 2, 3, Command::kEvent, "CODE [PAYLOAD | null]",
     "sends a notification to the daemon, with the payload that a modem would send, or with "
     "PAYLOAD in hexadecimal, or with none",
     Notify},
    {"uevent", 3, kMaxWords, Command::kEvent,
     "ACTION SUBSYSTEM DEVNAME [KEY=VALUE...] | noise BYTES [SEED]",
     "sends a device event as the kernel would, or BYTES random bytes. \"uevent remove vqmi "
     "wwanD0MDLog\" removes the log device: its port stays closed until it is opened after the "
     "same event with add, or until the process restarts",
     Uevent},
    {"md_state", 2, 2, Command::kSetting, "STATE | none",
     "sets the number in the state file of the modem (6 means ready), or removes the file",
     MdState},
    {"host", 2, 3, Command::kEvent,
     "connect | disconnect | error | message CODE | send TEXT | hex BYTES",
     "plays a logging tool on a host computer: it connects, disconnects, reports a port error or "
     "another message, or sends bytes to the modem, as TEXT in which \\r and \\n are line ends or "
     "in hexadecimal",
     Host},
    {"property", 2, 3, Command::kSetting, "NAME [VALUE]", "prints or sets a system property",
     Property},
    {"log", 2, 2, Command::kSetting, "debug | info | warning | error",
     "sets the lowest priority that is written to the Android log", Log},
    {"after", 3, kMaxWords, Command::kEvent, "TIME COMMAND [ARGUMENT...]",
     "executes COMMAND later: in a scenario, TIME (500ms, 5s, 2m) after the start of the phone, "
     "which a restart of the daemon does not change; otherwise TIME from now",
     AfterOrder},
    {"client", 2, kMaxWords, Command::kEvent, "REQUEST [ARGUMENT...]",
     "sends the daemon a request of the control protocol, with numbers and not names as values; "
     "fails if the reply is not \"ok\". Waits up to 10 s for a daemon that is starting",
     ClientOrder},
    {"clock", 2, 2, Command::kEvent, "+TIME | -TIME",
     "moves the clock of the phone forward or back: +1d, -2h, +90s", ClockOrder},
    {"free_space", 2, 2, Command::kEvent, "BYTES | all",
     "fills /data until only BYTES are free, or frees everything again. Works only where /data has "
     "a size of its own (see storage)",
     FreeSpaceOrder},
    {"storage", 2, 2, Command::kEvent, "BYTES",
     "in a scenario, for ./run: /data has this size, is in memory, and is empty at the start",
     StorageOrder},
    {"end", 1, 1, Command::kEvent, "",
     "in a scenario, for ./run: ends the run here, as Ctrl-C does", EndOrder},
    {"expect", 4, 5, Command::kEvent, "FIGURE OPERATOR NUMBER | log TEXT OPERATOR NUMBER",
     "in a scenario, for ./run: the run ends with status 1 if this is not true at its end. FIGURE "
     "is delivered (bytes sent by the modem), decoded (bytes in the log files), missing (bytes), "
     "drops (bytes), files, captures, marked (captures with an exception), recycled (files), "
     "exceptions, restarts or stalls. \"log TEXT\" is the number of lines of the Android log that "
     "contain TEXT. OPERATOR is = != < <= > or >=",
     ExpectOrder},
    {"state", 1, 1, Command::kEvent, "", "prints the state of the phone, one value per line",
     State},
    {"get", 2, 2, Command::kEvent, "KEY", "prints one of these values alone", Get},
    {"help", 1, 2, Command::kEvent, "[COMMAND]", "prints this help, or the help of one command",
     Help},
};

std::string Usage(const Command& command) {
    std::string usage(command.name);
    if (!command.arguments.empty()) usage.append(" ").append(command.arguments);
    return usage;
}

// With line ends that keep lines short enough for a terminal, each line indented.
std::string Wrapped(std::string_view text) {
    constexpr std::string_view kIndent = "    ";
    constexpr size_t kWidth = 100;
    std::string wrapped;
    while (!text.empty()) {
        const size_t most = kWidth - kIndent.size();
        const size_t end = text.size() <= most ? text.size() : text.rfind(' ', most);
        wrapped.append(kIndent).append(text.substr(0, end)).append("\n");
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return wrapped;
}

Order Help(const Console&, Words words) {
    std::string text;
    for (const Command& command : kCommands) {
        if (words.size() > 1 && words[1] != command.name) continue;
        text += Usage(command) + "\n" + Wrapped(command.help);
    }
    if (text.empty()) return Refuse("no such command: " + words[1]);
    return Do([text] { return Ok(text); });
}

}  // namespace

std::span<const Command> Commands() { return kCommands; }

const Command* FindCommand(std::string_view name) {
    const auto* const found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                           [&](const Command& c) { return c.name == name; });
    return found != std::end(kCommands) ? found : nullptr;
}

Order MakeOrder(const Console& console, Words words) {
    const Command* const command = FindCommand(words[0]);
    if (command == nullptr) {
        return Refuse("no such command: " + words[0] + " (help lists them)");
    }
    if (words.size() < command->min_words || words.size() > command->max_words) {
        return Refuse("use: " + Usage(*command));
    }
    Order order = command->order(console, words);
    const std::string prefix = words[0] + ": ";
    if (!order.ok()) return Refuse(prefix + order.refusal);
    return Do([act = std::move(order.act), prefix] {
        Reply reply = act();
        if (!reply.ok) reply.text.insert(0, prefix);
        return reply;
    });
}

}  // namespace sim
