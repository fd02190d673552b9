#include "commands.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "control/protocol.h"

namespace quarnctl {

namespace protocol = quarn::protocol;
using std::chrono::seconds;

namespace {

constexpr seconds kForEver{0};
constexpr const char* kNoYes[] = {"no", "yes"};

constexpr seconds kPatience{30};  // the daemon may send a few messages to the modem, 5 s each
constexpr seconds kSwitchPatience{120};  // the daemon waits for its writer to end

constexpr Command kCommands[] = {
    {"log_mode", true, Argument::kNumber, "0 disable, 1 streaming, 2 wrapping",
     "the log mode of the modem; saved", kPatience, protocol::kLogModes},
    {"log_level", true, Argument::kNumber,
     "0 all_off, 1 moderate, 2 standard, 3 slim, 4 ultra slim, 5 pls_ps_only, 6 low_power; "
     "only while the modem logs",
     "how much the modem logs; saved, and replaces log_filter", kPatience, protocol::kLogLevels},
    {"log_filter", false, Argument::kPath,
     "the path of a filter file that the daemon can read; only while the modem logs",
     "sends your own log filter to the modem; saved, and replaces log_level", kPatience},
    {"flush_interval",
     true,
     Argument::kNumber,
     "milliseconds; the modem decides which values it accepts",
     "how long the modem may hold back log data; saved",
     kPatience,
     {},
     "ms"},
    {"flush_status", true, Argument::kNone, "", "the flush status of the modem", kPatience},
    {"trigger_flush", false, Argument::kNone, "", "the modem sends the log data that it holds back",
     kPatience},
    {"flush_ring_buf", false, Argument::kNone, "",
     "the daemon writes all compressed blocks in memory to the log file", kPatience},
    {"flush_log_buffer", false, Argument::kNone, "",
     "writes all log data that the modem and the daemon hold to the log file", kPatience},
    {"transfer_type", true, Argument::kNumber,
     "1 storage, 3 exit; the daemon refuses 0 usb and 2 socket",
     "where the log stream goes. exit ends the daemon; exit is not saved, storage is saved",
     kSwitchPatience, protocol::kTransferTypes},
    {"file_size",
     true,
     Argument::kNumber,
     "1 to 4095 MB",
     "the size of one log file; saved",
     kPatience,
     {},
     "MB"},
    {"recycle_size",
     true,
     Argument::kNumber,
     "1 to 4194303 MB",
     "the size limit of all log files together; saved",
     kPatience,
     {},
     "MB"},
    {"recycle_ee", true, Argument::kNumber, "0 no, 1 yes",
     "whether captures with a modem exception may be deleted, too; saved", kPatience, kNoYes},
    {"recycle_keep_ee_size",
     true,
     Argument::kNumber,
     "0 to 4194303 MB; 0 means that they are not trimmed",
     "how much of each capture with an exception is kept when captures are trimmed; saved",
     kPatience,
     {},
     "MB"},
    {"log_folder", true, Argument::kPath,
     "/data/vendor/radio/quarn/logs or a folder directly in it",
     "the folder of the captures, from the next capture on; saved", kPatience},
    {"copy_log_file", false, Argument::kCopy,
     "DIRECTORY MB FLUSH: an existing directory, at most 1 to 2047 MB, and 1 to flush first or 0",
     "copies the newest log files; the reply contains the number of bytes copied", kForEver},
};

}  // namespace

std::span<const Command> Commands() { return kCommands; }

const Command* FindCommand(std::string_view name) {
    const auto* const found =
        std::find_if(std::begin(kCommands), std::end(kCommands),
                     [&](const Command& command) { return command.name == name; });
    return found == std::end(kCommands) ? nullptr : found;
}

bool ToNumber(std::string_view text, int32_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

std::string NameOf(std::span<const char* const> names, std::string_view value) {
    int32_t number = -1;
    if (!ToNumber(value, number) || number < 0 || static_cast<size_t>(number) >= names.size()) {
        return "";
    }
    return names[static_cast<size_t>(number)];
}

std::string NameOf(const Command& command, std::string_view value) {
    // The daemon returns this value if a log filter has replaced the log level.
    if (command.name == std::string_view("log_level") &&
        value == std::to_string(protocol::kFilterInForce)) {
        return "a custom filter";
    }
    return NameOf(command.names, value);
}

namespace {

// Replaces a name in `argument` by its number, because the daemon reads anything that is not a
// number as 0. Returns false if `argument` is neither a number nor a name.
bool NumberArgument(const Command& command, std::string& argument) {
    int32_t number = 0;
    if (ToNumber(argument, number)) return true;
    const auto named = std::find(command.names.begin(), command.names.end(), argument);
    if (named == command.names.end()) return false;
    argument = std::to_string(named - command.names.begin());
    return true;
}

// Returns an empty string if the request can be sent, else the reason why not. Replaces a name in
// `argument` by its number.
std::string CheckArgument(const Command& command, bool has_argument, std::string& argument) {
    const std::string name = command.name;
    if (!has_argument) {
        const bool needed = !command.has_query && command.argument != Argument::kNone;
        return needed ? name + " needs an argument: " + command.range : "";
    }
    switch (command.argument) {
        case Argument::kNone:
            return name + " takes no argument";
        case Argument::kNumber:
            if (!NumberArgument(command, argument)) {
                return name + " does not know \"" + argument + "\"; it takes " + command.range;
            }
            break;
        case Argument::kPath:
        case Argument::kCopy:
            // The daemon's working directory differs from that of quarnctl.
            if (!argument.starts_with('/')) return name + " needs a path that begins with /";
            break;
    }
    const auto is_control = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
    if (std::any_of(argument.begin(), argument.end(), is_control)) {
        return "an argument must not contain a control character";
    }
    const size_t size = name.size() + 1 + argument.size() + 1;
    if (size <= protocol::kMaxRequest) return "";
    return "the request is too long by " + std::to_string(size - protocol::kMaxRequest) +
           " bytes: the argument of " + name + " may have at most " +
           std::to_string(protocol::kMaxRequest - name.size() - 2);
}

}  // namespace

bool MakeRequest(const Command& command, const std::vector<std::string>& words,
                 std::string& request, std::string& why) {
    std::string argument;
    for (const std::string& word : words) argument += (&word == words.data() ? "" : " ") + word;
    why = CheckArgument(command, !words.empty(), argument);
    request = command.name;
    if (!words.empty()) request += ' ' + argument;
    return why.empty();
}

}  // namespace quarnctl
