#include "sim/console.h"

#include <android/log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <span>
#include <utility>

#include "platform/system_properties.h"
#include "sim/host_tool.h"
#include "sim/modem.h"
#include "sim/replay_place.h"
#include "sim/state.h"
#include "sim/text.h"
#include "sim/uevents.h"

namespace sim {

namespace {

using Words = std::span<const std::string>;

Reply Ok(std::string text = "") { return {true, std::move(text)}; }
Reply Refuse(std::string why) { return {false, std::move(why)}; }

// --- values ---

// A whole number, with k, M or G for powers of a thousand and Ki, Mi or Gi for powers of 1,024.
std::optional<uint64_t> Number(std::string_view word, uint64_t max) {
    static constexpr std::array<std::pair<std::string_view, uint64_t>, 7> kUnits = {
        {{"", 1},
         {"k", 1000},
         {"M", 1000'000},
         {"G", 1000'000'000},
         {"Ki", 1 << 10},
         {"Mi", 1 << 20},
         {"Gi", 1 << 30}}};
    uint64_t value = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc()) return std::nullopt;
    const std::string_view unit(stop, static_cast<size_t>(end - stop));
    for (const auto& [name, factor] : kUnits) {
        if (unit == name && value <= max / factor) return value * factor;
    }
    return std::nullopt;
}

Reply BadNumber(std::string_view what, const std::string& word, uint64_t max) {
    return Refuse(std::string(what) + " is not a number from 0 to " + std::to_string(max) + ": " +
                  word);
}

// An errno number, by number or by one of the names that a port knows; 0 for "zero".
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

std::optional<int> Integer(std::string_view word) {
    int value = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

// With \r and \n for the ends of lines, which a line cannot hold.
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

// Where a phone shows the state of its modem.
constexpr const char* kMdStateFile = "/dev/wwan_fsm_state";

Reply NotAbsolute(const std::string& path) {
    return Refuse("not an absolute path (as it is inside the box): " + path);
}

// --- commands ---

Reply Replay(const Console& console, Words words) {
    const std::string& path = words[2];
    if (!path.starts_with('/')) return NotAbsolute(path);
    uint64_t offset = 0;
    if (words.size() > 3) {
        const auto value = Number(words[3], LLONG_MAX);
        if (!value) return BadNumber("OFFSET", words[3], LLONG_MAX);
        offset = *value;
    } else if (!console.folder().empty()) {
        offset = ReadReplayPlace(console.folder(), path);
    }
    auto source = console.folder().empty() ? MakeReplaySource(path, offset)
                                           : MakeKeptReplaySource(console.folder(), path, offset);
    if (!source) return Refuse("cannot replay " + path + ": " + strerror(errno));
    Modem::Instance().SetSource(std::move(source));
    return Ok();
}

Reply Source(const Console& console, Words words) {
    if (words[1] == "replay" && words.size() >= 3) return Replay(console, words);
    if (words[1] == "none" && words.size() == 2) {
        Modem::Instance().SetSource(nullptr);
        return Ok();
    }
    if (words[1] != "generated" || words.size() != 3) {
        return Refuse("a source is generated SEED, replay FILE [OFFSET] or none");
    }
    const auto seed = Number(words[2], UINT64_MAX);
    if (!seed) return BadNumber("SEED", words[2], UINT64_MAX);
    Modem::Instance().SetSource(MakeGeneratedSource(*seed));
    return Ok();
}

Reply Stream(const Console&, Words words) {
    if (words[1] == "start") {
        Modem::Instance().StartStream();
    } else if (words[1] == "stop") {
        Modem::Instance().StopStream();
    } else {
        return Refuse("neither start nor stop: " + words[1]);
    }
    return Ok();
}

Reply Rate(const Console&, Words words) {
    constexpr uint64_t kMax = 1'000'000'000'000;
    const auto rate = Number(words[1], kMax);
    if (!rate) return BadNumber("RATE", words[1], kMax);
    Modem::Instance().SetRate(*rate);
    return Ok();
}

Reply Limit(const Console&, Words words) {
    const auto limit = Number(words[1], INT_MAX);
    if (!limit) return BadNumber("BYTES", words[1], INT_MAX);
    Modem::Instance().SetReadLimit(*limit);
    return Ok();
}

Reply Tap(const Console&, Words words) {
    if (words[1] == "off") {
        Modem::Instance().SetTap("");
        return Ok();
    }
    if (!words[1].starts_with('/')) return NotAbsolute(words[1]);
    if (!Modem::Instance().SetTap(words[1])) {
        return Refuse("cannot write to " + words[1] + ": " + strerror(errno));
    }
    return Ok();
}

Reply Fail(const Console&, Words words) {
    const std::string& what = words[1];
    const auto count = Number(words.back(), INT_MAX);
    if (!count) return BadNumber("COUNT", words.back(), INT_MAX);
    const int times = static_cast<int>(*count);
    Modem& modem = Modem::Instance();
    if (words.size() == 3 && what == "init") {
        modem.FailInit(times);
    } else if (words.size() == 3 && what == "open") {
        modem.FailOpens(times);
    } else if (words.size() == 3 && what == "write") {
        modem.FailWrites(times);
    } else if (words.size() == 4 && what == "read") {
        const auto error = ErrorNumber(words[2]);
        if (!error) return Refuse("no error number or name that is known here: " + words[2]);
        modem.FailReads(*error, times);
    } else if (words.size() == 4 && what == "poll") {
        if (words[2] != "timeout" && words[2] != "failure") {
            return Refuse("neither timeout nor failure: " + words[2]);
        }
        modem.FailPolls(words[2] == "timeout" ? -2 : -1, times);
    } else {
        return Refuse(
            "what can fail is init COUNT, open COUNT, write COUNT, read ERROR COUNT and "
            "poll timeout|failure COUNT");
    }
    return Ok();
}

Reply FailIpc(Words words) {
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
        Modem::Instance().FailIpc(static_cast<int>(*id), kind.kind, *value,
                                  static_cast<int>(*count));
        return Ok();
    }
    return Refuse(
        "what can go wrong is message, value, no_result, no_answer or no_length, and with a VALUE "
        "cause, silence, delay, result, answer or short");
}

Reply Ipc(const Console&, Words words) {
    if (words[1] != "init") return words.size() >= 4 ? FailIpc(words) : Refuse("no COUNT");
    const auto code = Integer(words[2]);
    if (words.size() != 4 || !code) return Refuse("use: ipc init CODE COUNT");
    const auto count = Number(words[3], INT_MAX);
    if (!count) return BadNumber("COUNT", words[3], INT_MAX);
    Modem::Instance().FailIpcInit(*code, static_cast<int>(*count));
    return Ok();
}

Reply At(const Console&, Words words) {
    const auto count = Number(words[2], INT_MAX);
    if (!count) return BadNumber("COUNT", words[2], INT_MAX);
    Modem::Instance().AnswerAt(Unescaped(words[1]), static_cast<int>(*count));
    return Ok();
}

Reply LogMode(const Console&, Words words) {
    const auto mode = Number(words[1], INT_MAX);
    if (!mode || !Modem::Instance().SetLogMode(static_cast<int>(*mode))) {
        return Refuse("neither 0 (off), 1 (streaming) nor 2 (wrapping): " + words[1]);
    }
    return Ok();
}

Reply Watermark(const Console&, Words words) {
    const auto bytes = Number(words[1], INT_MAX);
    if (!bytes) return BadNumber("BYTES", words[1], INT_MAX);
    Modem::Instance().SetWatermark(*bytes);
    return Ok();
}

Reply Exception(const Console&, Words) {
    Modem::Instance().Exception();
    return Ok();
}

Reply Sprinkle(const Console&, Words words) {
    const auto per_mille = Number(words[1], 1000);
    if (!per_mille) return BadNumber("PER_MILLE", words[1], 1000);
    const auto seed = words.size() > 2 ? Number(words[2], UINT64_MAX) : 1;
    if (!seed) return BadNumber("SEED", words[2], UINT64_MAX);
    Modem::Instance().SprinkleFaults(*seed, static_cast<int>(*per_mille));
    return Ok();
}

Reply Notify(const Console&, Words words) {
    const auto code = Number(words[1], INT_MAX);
    if (!code) return BadNumber("CODE", words[1], INT_MAX);
    const auto ntfy_code = static_cast<MCL_NTFY_CODE>(*code);
    if (words.size() == 2) {
        Modem::Instance().Raise(ntfy_code);
        return Ok();
    }
    std::vector<uint8_t> payload;
    if (words[2] != "null" && !HexBytes(words[2], &payload)) {
        return Refuse("PAYLOAD is not bytes in hexadecimal: " + words[2]);
    }
    Modem::Instance().Notify(ntfy_code, payload.empty() ? nullptr : payload.data(), payload.size());
    return Ok();
}

Reply UeventNoise(Words words) {
    constexpr uint64_t kMax = 65536;
    const auto length = Number(words[2], kMax);
    if (!length) return BadNumber("BYTES", words[2], kMax);
    const auto seed = words.size() > 3 ? Number(words[3], UINT64_MAX) : 1;
    if (!seed) return BadNumber("SEED", words[3], UINT64_MAX);
    if (SendUevent(NoiseUevent(*length, *seed))) return Ok();
    return Refuse(std::string("cannot send it: ") + strerror(errno));
}

Reply Uevent(const Console&, Words words) {
    if (words[1] == "noise" && words.size() <= 4) return UeventNoise(words);
    if (words.size() < 4) return Refuse("no DEVNAME");
    if (SendDeviceEvent(words[1], words[2], words[3], words.subspan(4))) return Ok();
    return Refuse(std::string("cannot send it: ") + strerror(errno));
}

Reply MdState(const Console&, Words words) {
    const auto number = words[1] == "none" ? 0 : Number(words[1], INT_MAX);
    if (!number) return BadNumber("STATE", words[1], INT_MAX);
    const std::string path = kMdStateFile;
    std::error_code error;
    if (words[1] == "none") {
        std::filesystem::remove(path, error);
        return error ? Refuse("cannot remove " + path + ": " + error.message()) : Ok();
    }
    const std::string fresh = path + ".new";
    std::ofstream(fresh) << "state=" << *number << '\n';
    std::filesystem::rename(fresh, path, error);
    return error ? Refuse("cannot write " + path + ": " + error.message()) : Ok();
}

Reply HostSend(Words words) {
    std::string bytes = Unescaped(words[2]);
    if (words[1] == "hex") {
        std::vector<uint8_t> values;
        if (!HexBytes(words[2], &values)) {
            return Refuse("BYTES is not bytes in hexadecimal: " + words[2]);
        }
        bytes.assign(values.begin(), values.end());
    }
    if (HostTool::Instance().Send(bytes)) return Ok();
    return Refuse("nobody listens to the host, or the modem took nothing");
}

Reply Host(const Console&, Words words) {
    static constexpr std::array<std::pair<std::string_view, TCL_MSG>, 3> kMessages = {
        {{"connect", TCL_MSG_HOST_CONNECTED},
         {"disconnect", TCL_MSG_HOST_DISCONNECTED},
         {"error", TCL_MSG_HOST_PORT_ERROR}}};
    for (const auto& [name, message] : kMessages) {
        if (words[1] != name || words.size() != 2) continue;
        HostTool::Instance().Deliver(message);
        return Ok();
    }
    if (words.size() == 3 && (words[1] == "send" || words[1] == "hex")) return HostSend(words);
    if (words.size() != 3 || words[1] != "message") {
        return Refuse(
            "a host does connect, disconnect, error, message CODE, send TEXT or hex BYTES");
    }
    const auto code = Number(words[2], INT_MAX);
    if (!code) return BadNumber("CODE", words[2], INT_MAX);
    HostTool::Instance().Deliver(static_cast<TCL_MSG>(*code));
    return Ok();
}

Reply Property(const Console&, Words words) {
    if (words.size() == 2) {
        char value[PROP_VALUE_MAX];
        __system_property_get(words[1].c_str(), value);
        return Ok(std::string(value) + "\n");
    }
    if (__system_property_set(words[1].c_str(), words[2].c_str()) != 0) {
        return Refuse("no name, or a value of more than " + std::to_string(PROP_VALUE_MAX - 1) +
                      " bytes");
    }
    return Ok();
}

Reply Log(const Console&, Words words) {
    static constexpr std::array<std::pair<std::string_view, android_LogPriority>, 4> kPriorities = {
        {{"debug", ANDROID_LOG_DEBUG},
         {"info", ANDROID_LOG_INFO},
         {"warning", ANDROID_LOG_WARN},
         {"error", ANDROID_LOG_ERROR}}};
    for (const auto& [name, priority] : kPriorities) {
        if (words[1] != name) continue;
        __android_log_set_minimum_priority(priority);
        return Ok();
    }
    return Refuse("not debug, info, warning or error: " + words[1]);
}

Reply State(const Console&, Words) {
    std::string text;
    for (const StateValue& line : CurrentState()) {
        text.append(line.key).append(": ").append(line.value);
        if (!line.unit.empty()) text.append(" ").append(line.unit);
        text += '\n';
    }
    return Ok(std::move(text));
}

Reply Get(const Console&, Words words) {
    for (const StateValue& line : CurrentState()) {
        if (line.key == words[1]) return Ok(line.value + '\n');
    }
    return Refuse("the phone has no " + words[1] + " (state shows what it has)");
}

Reply Help(const Console&, Words words);

struct Command {
    std::string_view name;
    size_t min_words;  // the name counts
    size_t max_words;
    std::string_view arguments;
    std::string_view help;
    Reply (*run)(const Console&, Words);
};

constexpr Command kCommands[] = {
    {"source", 2, 4, "generated SEED | replay FILE [OFFSET] | none",
     "where the log stream comes from; a replay of the file that was replayed last goes on where "
     "it stopped, a restart of the process included, unless OFFSET says otherwise",
     Source},
    {"stream", 2, 2, "start | stop", "lets the log stream flow or stand still", Stream},
    {"rate", 2, 2, "BYTES", "bytes a second (4M, 512k, 1Gi, ...); 0: as fast as they are read",
     Rate},
    {"limit", 2, 2, "BYTES", "most bytes one read of the port gives; 0: what it asks for", Limit},
    {"tap", 2, 2, "FILE | off", "appends all that is handed over at the port to a file", Tap},
    {"fail", 3, 4,
     "init COUNT | open COUNT | write COUNT | read ERROR COUNT | poll timeout|failure COUNT",
     "makes the next COUNT calls fail; ERROR: EAGAIN, EBADF, EINTR, EIO, ENODEV, ENXIO, a number, "
     "or zero for reads of zero bytes; a COUNT of 0 takes it back",
     Fail},
    {"sprinkle", 2, 3, "PER_MILLE [SEED]", "makes so many of all reads and polls fail; 0: none",
     Sprinkle},
    {"ipc", 4, 5, "init CODE COUNT | MESSAGE|any FAULT [VALUE] COUNT",
     "makes modem IPC fail: its opening with a code, or what has to do with a message by number. "
     "FAULT: message (none can be made), value (none can be added), cause VALUE (not sent), "
     "silence VALUE (lost; so many ms, 0 for the whole time-out), delay VALUE (ms), result VALUE "
     "(refused), no_result, no_answer, answer VALUE (this number), short VALUE (so many bytes "
     "of the answer are missing), no_length (the library does not tell how long values are); a "
     "COUNT of 0 takes all back",
     Ipc},
    {"at", 3, 3, "TEXT COUNT",
     "answers the next COUNT AT commands with this text, with \\r and \\n in it", At},
    {"log_mode", 2, 2, "0 | 1 | 2",
     "sets the log mode (off, streaming, wrapping) as another client of the modem would, its "
     "notification included; ends once the daemon has handled that",
     LogMode},
    {"watermark", 2, 2, "BYTES",
     "held-back bytes at which the modem hands them over before the flush interval has passed",
     Watermark},
    {"exception", 1, 1, "",
     "the modem crashes: notification 6, and once it is handled, notification 3 and the stream "
     "again",
     Exception},
    {"notify", 2, 3, "CODE [PAYLOAD | null]",
     "raises a notification, with the payload a modem would send, or this one in hexadecimal",
     Notify},
    {"uevent", 3, kMaxWords, "ACTION SUBSYSTEM DEVNAME [KEY=VALUE...] | noise BYTES [SEED]",
     "sends a device event as the kernel would, or so many random bytes in its place. With remove "
     "vqmi wwanD0MDLog the log device goes: its port is closed until it is opened after the same "
     "with add, or until the process starts anew",
     Uevent},
    {"md_state", 2, 2, "STATE | none",
     "what the modem's state file shows, 6 when it is ready; or that there is none", MdState},
    {"host", 2, 3, "connect | disconnect | error | message CODE | send TEXT | hex BYTES",
     "a logging tool on a host computer connects, leaves, finds its port broken, or makes the tool "
     "library tell something else; or sends bytes to the modem, with \\r and \\n in the text",
     Host},
    {"property", 2, 3, "NAME [VALUE]", "sets a system property, or shows it", Property},
    {"log", 2, 2, "debug | info | warning | error",
     "lowest priority of the Android log that is shown", Log},
    {"state", 1, 1, "", "shows how the modem stands, a value a line", State},
    {"get", 2, 2, "KEY", "shows one of these values alone", Get},
    {"help", 1, 2, "[COMMAND]", "shows this", Help},
};

const Command* Find(std::string_view name) {
    const auto* const found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                           [&](const Command& c) { return c.name == name; });
    return found != std::end(kCommands) ? found : nullptr;
}

std::string Usage(const Command& command) {
    std::string usage(command.name);
    if (!command.arguments.empty()) usage.append(" ").append(command.arguments);
    return usage;
}

Reply Help(const Console&, Words words) {
    std::string text;
    for (const Command& command : kCommands) {
        if (words.size() > 1 && words[1] != command.name) continue;
        text += Usage(command) + "\n    " + std::string(command.help) + "\n";
    }
    return text.empty() ? Refuse("no such command: " + words[1]) : Ok(std::move(text));
}

}  // namespace

bool SplitLine(std::string_view line, std::vector<std::string>* words, std::string* error) {
    if (line.size() > kMaxLine) {
        *error = "line of more than " + std::to_string(kMaxLine) + " bytes";
        return false;
    }
    bool in_word = false;
    bool in_quotes = false;
    for (const char c : line) {
        if (static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\r') {
            *error = "control character in the line";
            return false;
        }
        if (!in_quotes && (c == ' ' || c == '\t' || c == '\r')) {
            in_word = false;
            continue;
        }
        if (!in_word) words->emplace_back();
        in_word = true;
        if (c == '"') {
            in_quotes = !in_quotes;
        } else {
            words->back() += c;
        }
    }
    if (in_quotes) *error = "quotes are not closed";
    if (words->size() > kMaxWords) *error = "more than " + std::to_string(kMaxWords) + " words";
    return error->empty();
}

Reply Console::Execute(std::string_view line) const {
    std::vector<std::string> words;
    std::string error;
    if (!SplitLine(line, &words, &error)) return Refuse(error);
    if (words.empty() || words[0].starts_with('#')) return Ok();
    const Command* const command = Find(words[0]);
    if (command == nullptr) {
        return Refuse("no such command: " + words[0] + " (help lists them)");
    }
    if (words.size() < command->min_words || words.size() > command->max_words) {
        return Refuse("use: " + Usage(*command));
    }
    Reply reply = command->run(*this, words);
    if (!reply.ok) reply.text.insert(0, words[0] + ": ");
    return reply;
}

void Console::RunScenario(const std::string& path) const {
    std::ifstream in(path, std::ios::binary);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const Reply reply = Execute(line);
        if (reply.ok) continue;
        __android_log_print(ANDROID_LOG_ERROR, "SIM", "%s, line %d: %s", path.c_str(), number,
                            reply.text.c_str());
    }
}

}  // namespace sim
