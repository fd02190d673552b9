#include "picture.h"

#include <algorithm>

#include "commands.h"

namespace quarnctl {

namespace {

std::string Losses(const Pace& pace) {
    std::string text;
    if (const uint64_t stalls = pace.RecentStalls(); stalls != 0) {
        text = std::to_string(stalls) + (stalls == 1 ? " stall" : " stalls");
    }
    if (const uint64_t bytes = pace.RecentDrops(); bytes != 0) {
        text += (text.empty() ? "" : ", ") + std::to_string(bytes) + " bytes dropped";
    }
    return text;
}

}  // namespace

std::optional<int64_t> Age(const Picture& picture, std::optional<int64_t> time) {
    if (!time || *time > picture.now) return std::nullopt;
    return picture.now - *time;
}

std::optional<int64_t> ReportAge(const Picture& picture) {
    const tools::RateReport* const report = picture.pace.Report();
    return report == nullptr ? std::nullopt : Age(picture, report->time);
}

std::string Verdict(const Picture& picture) {
    const Pace& pace = picture.pace;
    if (pace.FallsBehind()) return "falls behind: " + Losses(pace);
    if (picture.daemon.asked && picture.daemon.answers.empty())
        return "the daemon cannot be reached";
    if (pace.Report() == nullptr)
        return pace.has_ended() ? "the daemon has ended" : "no report yet";
    if (ReportAge(picture).value_or(0) > kLateReport) return "reports no more";
    return "keeps up";
}

std::optional<int32_t> Setting(const Picture& picture, std::string_view name) {
    for (const Answer& answer : picture.daemon.answers) {
        int32_t number = 0;
        if (answer.command->name == name && answer.value && ToNumber(*answer.value, number)) {
            return number;
        }
    }
    return std::nullopt;
}

bool TreeShowsFile(const LogTree& tree) {
    return tree.readable && (tree.why.empty() || !tree.file.empty());
}

const std::string& CurrentFile(const Picture& picture) {
    return TreeShowsFile(picture.tree) ? picture.tree.file : picture.pace.file();
}
std::string CurrentCapture(const Picture& picture) {
    const std::string& file = CurrentFile(picture);
    return file.substr(0, std::min(file.rfind('/'), file.size()));
}

}  // namespace quarnctl
