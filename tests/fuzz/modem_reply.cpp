// Fuzz target: answers of the modem over modem IPC, that is texts of AT commands, numbers and
// result codes. Each of them may be missing, and the library may or may not return the lengths of
// values.
//
//   input = faults 1 byte + number 4 bytes + text of an AT reply
#include <algorithm>
#include <cstring>

#include "fuzz.h"
#include "modem/early_log_filter.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"
#include "sim/modem.h"
#include "storage/power_on_log.h"

using sim::IpcFault;

namespace {

constexpr int kAnyMessage = 0;

// Returns true if the last line that is not empty is OK. Finds this in another way than the daemon.
bool EndsInOk(std::string text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
    if (text.size() < 2 || text.substr(text.size() - 2) != "OK") return false;
    return text.size() == 2 || text[text.size() - 3] == '\r' || text[text.size() - 3] == '\n';
}

void AskForText(const std::string& text) {
    fuzz::Check(quarn::zorvex::GetAtCommandExecStatus(text) == EndsInOk(text),
                "the status is that of the last line");
    sim::Modem::Instance().AnswerAt(text, 4);
    std::string answer;
    if (quarn::zorvex::SendAtCommandByMipc("AT", answer)) {
        fuzz::Check(text.starts_with(answer), "the answer is what the modem said");
    }
    int value = 0;
    quarn::zorvex::GetPowerOnLogFilterEnableNvramCfg(value);
    quarn::zorvex::SetPowerOnLogFilterEnableNvramCfg(value);
}

void AskForNumbers(int number, bool expected) {
    for (const auto get : {quarn_mipcGetLogMode, quarn_mipcGetLogLevel, quarn_mipcGetFlushInterval,
                           quarn_mipcTriggerFlush, quarn_mipcGetFlushStatus}) {
        int answer = ~number;
        const bool answered = get(&answer) == 0;
        fuzz::Check(answer == (answered ? number : ~number), "an answer is stored only on success");
        fuzz::Check(answered == expected, "success is what the modem says");
    }
    quarn_mipcSetLogMode(number);
    quarn_mipcSetLogLevel(number);
    quarn_mipcSetFlushInterval(number);
    long seconds = int64_t{number} * 1'000'000'000;  // may be far from any valid date
    quarn_mipcSetTime(&seconds);
    int result = 0;
    std::array<char, 3> filter = {'a', 'b', 'c'};
    quarn_mipcSetCustomFilter(filter.size(), filter.data(), &result);
}

}  // namespace

void fuzz::SetUp() {
    StartPhone();
    mcl_closeLogPort();  // no thread reads it here; a modem that stops logging would wait for a
                         // reader
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int32_t number = 0;
    if (size < 1 + sizeof(number)) return -1;
    memcpy(&number, data + 1, sizeof(number));
    sim::Modem& modem = sim::Modem::Instance();
    constexpr int kMany = 1000;
    constexpr std::array<IpcFault, 6> kFaults = {IpcFault::kNoResult, IpcFault::kNoAnswer,
                                                 IpcFault::kResult,   IpcFault::kCause,
                                                 IpcFault::kShort,    IpcFault::kNoLength};
    for (size_t i = 0; i < kFaults.size(); ++i) {
        if ((data[0] >> i & 1) != 0) modem.FailIpc(kAnyMessage, kFaults[i], number, kMany);
    }
    modem.FailIpc(kAnyMessage, IpcFault::kAnswer, number, kMany);

    // A request that is not sent gets no confirmation, whatever cause the library returns.
    const bool refused = (data[0] & 0b00100) != 0 && number != 0;
    const bool is_short =
        (data[0] & 0b110000) == 0b010000 && number > 0;  // according to the length
    AskForNumbers(number, (data[0] & 0b01011) == 0 && !is_short && !refused);
    AskForText(std::string(fuzz::Text(data, size).substr(1 + sizeof(number))));
    modem.FailIpc(kAnyMessage, IpcFault::kAnswer, 0, 0);  // removes all faults
    modem.AnswerAt("", 0);
    return 0;
}
