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
    if (!rate) return BadNumber("RATE", words[1], kMax);
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
        if (!error) return Refuse("no error number or name that is known here: " + words[2]);
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
        "what can go wrong is message, value, no_result, no_answer or no_length, and with a VALUE "
        "cause, silence, delay, result, answer or short");
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
        return Failed("nobody listens to the host, or the modem took nothing");
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
            "a host does connect, disconnect, error, message CODE, send TEXT or hex BYTES");
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
     "where the log stream comes from; a replay of the file that was replayed last goes on where "
     "it stopped, a restart of the process included, unless OFFSET says otherwise",
     Source},
    {"stream", 2, 2, Command::kEvent, "start | stop", "lets the log stream flow or stand still",
     Stream},
    {"rate", 2, 2, Command::kSetting, "BYTES",
     "bytes a second (4M, 512k, 1Gi, ...); 0: as fast as they are read", Rate},
    {"limit", 2, 2, Command::kSetting, "BYTES",
     "most bytes one read of the port gives; 0: what it asks for", Limit},
    {"tap", 2, 2, Command::kSetting, "FILE | off",
     "appends all that is handed over at the port to a file", Tap},
    {"fail", 3, 4, Command::kEvent,
     "init COUNT | open COUNT | write COUNT | read ERROR COUNT | poll timeout|failure COUNT",
     "makes the next COUNT calls fail; ERROR: EAGAIN, EBADF, EINTR, EIO, ENODEV, ENXIO, a number, "
     "or zero for reads of zero bytes; a COUNT of 0 takes it back",
     Fail},
    {"sprinkle", 2, 3, Command::kSetting, "PER_MILLE [SEED]",
     "makes so many of all reads and polls fail; 0: none", Sprinkle},
    {"ipc", 4, 5, Command::kEvent, "init CODE COUNT | MESSAGE|any FAULT [VALUE] COUNT",
     "makes modem IPC fail: its opening with a code, or what has to do with a message by number. "
     "FAULT: message (none can be made), value (none can be added), cause VALUE (not sent), "
     "silence VALUE (lost; so many ms, 0 for the whole time-out), delay VALUE (ms), result VALUE "
     "(refused), no_result, no_answer, answer VALUE (this number), short VALUE (so many bytes "
     "of the answer are missing), no_length (the library does not tell how long values are); a "
     "COUNT of 0 takes all back",
     Ipc},
    {"at", 3, 3, Command::kEvent, "TEXT COUNT",
     "answers the next COUNT AT commands with this text, with \\r and \\n in it", At},
    {"log_mode", 2, 2, Command::kEvent, "0 | 1 | 2",
     "sets the log mode (off, streaming, wrapping) as another client of the modem would, its "
     "notification included; ends once the daemon has handled that",
     LogMode},
    {"watermark", 2, 2, Command::kSetting, "BYTES",
     "held-back bytes at which the modem hands them over before the flush interval has passed",
     Watermark},
    {"exception", 1, 1, Command::kEvent, "",
     "the modem crashes: notification 6, and once it is handled, notification 3 and the stream "
     "again",
     Exception},
    {"notify", 2, 3, Command::kEvent, "CODE [PAYLOAD | null]",
     "raises a notification, with the payload a modem would send, or this one in hexadecimal",
     Notify},
    {"uevent", 3, kMaxWords, Command::kEvent,
     "ACTION SUBSYSTEM DEVNAME [KEY=VALUE...] | noise BYTES [SEED]",
     "sends a device event as the kernel would, or so many random bytes in its place. With remove "
     "vqmi wwanD0MDLog the log device goes: its port is closed until it is opened after the same "
     "with add, or until the process starts anew",
     Uevent},
    {"md_state", 2, 2, Command::kSetting, "STATE | none",
     "what the modem's state file shows, 6 when it is ready; or that there is none", MdState},
    {"host", 2, 3, Command::kEvent,
     "connect | disconnect | error | message CODE | send TEXT | hex BYTES",
     "a logging tool on a host computer connects, leaves, finds its port broken, or makes the tool "
     "library tell something else; or sends bytes to the modem, with \\r and \\n in the text",
     Host},
    {"property", 2, 3, Command::kSetting, "NAME [VALUE]", "sets a system property, or shows it",
     Property},
    {"log", 2, 2, Command::kSetting, "debug | info | warning | error",
     "lowest priority of the Android log that is shown", Log},
    {"after", 3, kMaxWords, Command::kEvent, "TIME COMMAND [ARGUMENT...]",
     "does this later: a line of a scenario so long (500ms, 5s, 2m) after the phone's start, which "
     "a restart of the daemon does not move; any other so long from now",
     AfterOrder},
    {"client", 2, kMaxWords, Command::kEvent, "REQUEST [ARGUMENT...]",
     "a program on the phone sends the daemon a request of the control protocol, with numbers for "
     "names, and gets \"ok\"; waits up to 10 s for a daemon that starts",
     ClientOrder},
    {"clock", 2, 2, Command::kEvent, "+TIME | -TIME",
     "steps the phone's clock, forward or back: +1d, -2h, +90s", ClockOrder},
    {"free_space", 2, 2, Command::kEvent, "BYTES | all",
     "another program fills /data until so many bytes are free; or gives all back. Only where "
     "/data has a size of its own (storage)",
     FreeSpaceOrder},
    {"storage", 2, 2, Command::kEvent, "BYTES",
     "in a scenario, for ./run: /data has this size, is in memory and empty at the start",
     StorageOrder},
    {"end", 1, 1, Command::kEvent, "",
     "in a scenario, for ./run: the run ends here, as with Ctrl-C", EndOrder},
    {"expect", 4, 5, Command::kEvent, "FIGURE OPERATOR NUMBER | log TEXT OPERATOR NUMBER",
     "in a scenario, for ./run: what must hold when the run has ended, or its status is 1. FIGURE: "
     "delivered (bytes that the modem handed over), decoded (bytes in the log files), missing or "
     "drops (bytes), files, captures, marked (captures with an exception), recycled (files), "
     "exceptions, restarts or stalls; or the number of lines of the Android log with this text in "
     "them. OPERATOR: = != < <= > >=",
     ExpectOrder},
    {"state", 1, 1, Command::kEvent, "", "shows how the modem stands, a value a line", State},
    {"get", 2, 2, Command::kEvent, "KEY", "shows one of these values alone", Get},
    {"help", 1, 2, Command::kEvent, "[COMMAND]", "shows this", Help},
};

std::string Usage(const Command& command) {
    std::string usage(command.name);
    if (!command.arguments.empty()) usage.append(" ").append(command.arguments);
    return usage;
}

Order Help(const Console&, Words words) {
    std::string text;
    for (const Command& command : kCommands) {
        if (words.size() > 1 && words[1] != command.name) continue;
        text += Usage(command) + "\n    " + std::string(command.help) + "\n";
    }
    if (text.empty()) return Refuse("no such command: " + words[1]);
    return Do([text] { return Ok(text); });
}

}  // namespace

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
