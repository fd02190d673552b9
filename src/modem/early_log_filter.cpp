#include "modem/early_log_filter.h"

#include <charconv>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>

#include "modem/quarn_mipc_cmd.h"
#include "platform/quarn_log.h"

namespace quarn::zorvex {

namespace {

constexpr std::string_view kFilterSetting = "AT+ZORVEARLYLOGFILTER";
constexpr std::string_view kLineEnds = "\r\n";

}  // namespace

bool GetPowerOnLogFilterEnableNvramCfg(int& value) {
    value = -1;
    std::string response;
    if (!SendAtCommandByMipc(std::string(kFilterSetting) + "?", response)) return false;
    if (!GetAtCommandExecStatus(response)) return false;

    const size_t start = response.find_first_not_of(kLineEnds);
    if (start == std::string::npos) {
        QUARN_LOGE(
            "Power-on log: Cannot find power-on log filter enable value in AT command result");
        return false;
    }
    const std::string line =
        response.substr(start, response.find_first_of(kLineEnds, start) - start);
    int number = -1;
    const char* const line_end = line.data() + line.size();
    auto [end, error] = std::from_chars(line.data(), line_end, number);
    if (error == std::errc() && end != line_end) error = std::errc::invalid_argument;
    if (error != std::errc()) {
        QUARN_LOGE("Power-on log: Convert power-on log filter enable %s to int failed: %s",
                   line.c_str(), strerror(static_cast<int>(error)));
        return false;
    }
    value = number;
    QUARN_LOGI("Power-on log: Get power-on log filter enable=%d by AT command", value);
    return true;
}

bool SetPowerOnLogFilterEnableNvramCfg(int value) {
    std::string response;
    if (!SendAtCommandByMipc(std::string(kFilterSetting) + "=" + std::to_string(value), response) ||
        !GetAtCommandExecStatus(response)) {
        return false;
    }
    QUARN_LOGI("Power-on log: Set power-on log filter enable=%d by AT command", value);
    return true;
}

}  // namespace quarn::zorvex
