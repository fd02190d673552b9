#include "json.h"
#include "now.h"
#include "picture.h"
#include "status.h"

namespace quarnctl {

namespace {

std::string Number(uint64_t value) { return std::to_string(value); }
std::string NumberOrNull(std::optional<int64_t> value) {
    return value ? std::to_string(*value) : "null";
}

std::string FaultsAsJson(const Faults& faults) {
    JsonObject object;
    for (size_t i = 0; i < faults.size(); ++i) object.Add(tools::kFaultNames[i], Number(faults[i]));
    return object.Text();
}

std::string ReportAsJson(const Picture& picture) {
    const tools::RateReport* const report = picture.pace.Report();
    if (report == nullptr) return "null";
    return JsonObject()
        .Add("age", NumberOrNull(ReportAge(picture)))
        .Add("read_rate", Number(report->read))
        .Add("write_rate", Number(report->written))
        .Add("read_faults", FaultsAsJson(report->faults))
        .Add("poll_faults", Number(report->poll_faults))
        .Text();
}

std::string LogAsJson(const Picture& picture) {
    const Pace& pace = picture.pace;
    const Pace::Sums all = pace.WholeLog();
    const auto average = [&](uint64_t sum) {
        return all.reports == 0 ? "null" : Number(sum / all.reports);
    };
    return JsonObject()
        .Add("error", picture.log_trouble.empty() ? "null" : JsonString(picture.log_trouble))
        .Add("age", NumberOrNull(Age(picture, pace.since())))
        .Add("starts", Number(pace.starts()))
        .Add("started", NumberOrNull(Age(picture, pace.started())))
        .Add("reports", Number(all.reports))
        .Add("read_rate", average(all.read))
        .Add("write_rate", average(all.written))
        .Add("stalls", Number(all.stalls))
        .Add("dropped", Number(all.dropped))
        .Add("read_faults", FaultsAsJson(all.faults))
        .Add("poll_faults", Number(all.poll_faults))
        .Text();
}

std::string FileAsJson(const Picture& picture) {
    const std::string& path = CurrentFile(picture);
    if (path.empty()) return "null";
    const LogTree& tree = picture.tree;
    return JsonObject()
        .Add("path", JsonString(path))
        .Add("bytes", TreeShowsFile(tree) ? Number(tree.file_bytes) : "null")
        .Add("age", TreeShowsFile(tree) ? NumberOrNull(Age(picture, tree.file_changed)) : "null")
        .Text();
}

std::string TreeAsJson(const Picture& picture) {
    const LogTree& tree = picture.tree;
    const auto limit = Setting(picture, "recycle_size");
    return JsonObject()
        .Add("path", JsonString(kLogTree))
        .Add("error", tree.why.empty() ? "null" : JsonString(tree.why))
        .Add("bytes", tree.readable ? Number(tree.bytes) : "null")
        .Add("files", tree.readable ? Number(tree.files) : "null")
        .Add("limit", limit ? Number(static_cast<uint64_t>(*limit) * kMb) : "null")
        .Text();
}

}  // namespace

std::string AsJson(const Picture& picture) {
    const Pace& pace = picture.pace;
    const Asker::View& daemon = picture.daemon;
    const bool reached = !daemon.answers.empty();
    const std::string capture = CurrentCapture(picture);
    JsonObject storage;
    storage.Add("free", Number(picture.storage.free_bytes))
        .Add("bytes", Number(picture.storage.bytes));
    return JsonObject()
        .Add("time", JsonString(Now(true)))
        .Add("verdict", JsonString(Verdict(picture)))
        .Add("falls_behind", pace.FallsBehind() ? "true" : "false")
        .Add("stalls", Number(pace.RecentStalls()))
        .Add("dropped", Number(pace.RecentDrops()))
        .Add("report", ReportAsJson(picture))
        .Add("log", LogAsJson(picture))
        .Add("capture", capture.empty() ? "null" : JsonString(capture))
        .Add("file", FileAsJson(picture))
        .Add("tree", TreeAsJson(picture))
        .Add("storage", picture.storage.known ? storage.Text() : "null")
        .Add("error", reached || !daemon.asked ? "null" : JsonString(daemon.why))
        .Add("settings", reached ? AnswersAsJson(daemon.answers) : "null")
        .Add("warnings", ConflictsAsJson(daemon.answers))
        .Text();
}

}  // namespace quarnctl
