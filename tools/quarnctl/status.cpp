#include "status.h"

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string_view>

#include "control/protocol.h"
#include "json.h"

namespace quarnctl {

namespace {

// Returns true if the answers to all of `names` are numbers. Sets `numbers` in the order of
// `names`.
bool Numbers(const std::vector<Answer>& answers, std::initializer_list<std::string_view> names,
             std::vector<int32_t>& numbers) {
    numbers.clear();
    for (const std::string_view name : names) {
        for (const Answer& answer : answers) {
            int32_t number = 0;
            if (answer.command->name == name && answer.value && ToNumber(*answer.value, number)) {
                numbers.push_back(number);
            }
        }
    }
    return numbers.size() == names.size();
}

// "0 (disable)"
std::string Named(std::span<const char* const> names, int32_t value) {
    const std::string number = std::to_string(value);
    return number + " (" + NameOf(names, number) + ")";
}

std::string Mb(int32_t value) { return "(" + std::to_string(value) + " MB)"; }

void PrintText(const std::vector<Answer>& answers) {
    for (const auto& [command, value] : answers) {
        if (!value) {
            printf("%-22s error\n", command->name);
            continue;
        }
        const std::string name = NameOf(*command, *value);
        printf("%-22s %s%s%s%s%s\n", command->name, value->c_str(),
               *command->unit != '\0' ? " " : "", command->unit, name.empty() ? "" : "  ",
               name.c_str());
    }
    for (const std::string& conflict : Conflicts(answers))
        printf("warning: %s\n", conflict.c_str());
}

void PrintJson(const std::vector<Answer>& answers) {
    puts(JsonObject()
             .Add("settings", AnswersAsJson(answers))
             .Add("warnings", ConflictsAsJson(answers))
             .Text()
             .c_str());
}

}  // namespace

ExitStatus AskAll(Client& client, std::vector<Answer>& answers, std::string& why) {
    for (const Command& command : Commands()) {
        if (!command.has_query) continue;
        std::string reply;
        if (const ExitStatus status = client.Ask(command, command.name, reply, why);
            status != kOk) {
            return status;
        }
        std::string value;
        answers.push_back({&command, std::nullopt});
        if (HasValue(reply, value)) answers.back().value = value;
    }
    return kOk;
}

std::vector<std::string> Conflicts(const std::vector<Answer>& answers) {
    namespace protocol = quarn::protocol;
    std::vector<std::string> conflicts;
    std::vector<int32_t> n;
    if (Numbers(answers, {"recycle_size", "file_size"}, n) && n[0] < n[1]) {
        conflicts.push_back("recycle_size " + Mb(n[0]) + " is below one file " + Mb(n[1]) +
                            ": all files except the one being written are deleted");
    }
    if (Numbers(answers, {"recycle_keep_ee_size", "recycle_size"}, n) && n[0] >= n[1]) {
        conflicts.push_back("recycle_keep_ee_size " + Mb(n[0]) + " is not below recycle_size " +
                            Mb(n[1]) + ": trimming exception folders never makes room");
    }
    if (!Numbers(answers, {"log_mode", "log_level"}, n)) return conflicts;
    if (n[0] == 0 && n[1] > 0) {
        conflicts.push_back("log_level is " + Named(protocol::kLogLevels, n[1]) +
                            ", but log_mode is 0 (disable): nothing is logged");
    }
    if (n[0] != 0 && n[1] == 0) {
        conflicts.push_back("log_mode is " + Named(protocol::kLogModes, n[0]) +
                            ", but log_level is 0 (all_off): nothing is logged");
    }
    return conflicts;
}

std::string AnswersAsJson(const std::vector<Answer>& answers) {
    JsonObject settings;
    for (const auto& [command, value] : answers) {
        JsonObject setting;
        setting.Add("value", value ? JsonValue(*value) : "null");
        const std::string name = value ? NameOf(*command, *value) : "";
        if (!name.empty()) setting.Add("name", JsonString(name));
        if (*command->unit != '\0') setting.Add("unit", JsonString(command->unit));
        settings.Add(command->name, setting.Text());
    }
    return settings.Text();
}

std::string ConflictsAsJson(const std::vector<Answer>& answers) {
    std::string texts;
    for (const std::string& conflict : Conflicts(answers)) {
        texts += (texts.empty() ? "" : ", ") + JsonString(conflict);
    }
    return '[' + texts + ']';
}

int PrintStatus(Client& client, bool json) {
    std::vector<Answer> answers;
    std::string why;
    if (const ExitStatus status = AskAll(client, answers, why); status != kOk) {
        return Complain(status, why);
    }
    (json ? PrintJson : PrintText)(answers);
    for (const Answer& answer : answers) {
        if (answer.value) continue;
        return Complain(kRefused, "not everything could be asked: the modem may be away");
    }
    return kOk;
}

}  // namespace quarnctl
