#include "tools/muxz/model.h"

#include <algorithm>
#include <bit>
#include <map>
#include <tuple>

namespace muxz {

namespace {

bool IsLess(const quarn::log_file::BlockHeader& a, const quarn::log_file::BlockHeader& b) {
    return std::tie(a.raw_length, a.packed_length) < std::tie(b.raw_length, b.packed_length);
}

}  // namespace

void BlockFacts::Add(const quarn::log_file::BlockHeader& lengths) {
    if (blocks == 0 || IsLess(lengths, smallest)) smallest = lengths;
    if (blocks == 0 || IsLess(largest, lengths)) largest = lengths;
    ++blocks;
    raw += lengths.raw_length;
    packed += lengths.packed_length;
    ++histogram[static_cast<size_t>(std::bit_width(lengths.raw_length))];
}

void BlockFacts::Add(const BlockFacts& others) {
    if (others.blocks == 0) return;
    if (blocks == 0 || IsLess(others.smallest, smallest)) smallest = others.smallest;
    if (blocks == 0 || IsLess(largest, others.largest)) largest = others.largest;
    blocks += others.blocks;
    raw += others.raw;
    packed += others.packed;
    for (size_t i = 0; i < histogram.size(); ++i) histogram[i] += others.histogram[i];
}

std::optional<double> CaptureFacts::Seconds() const {
    if (!start || !end || *end <= *start) return std::nullopt;
    return static_cast<double>(*end - *start);
}

std::optional<double> CaptureFacts::CoveredSeconds() const {
    if (files.empty()) return std::nullopt;
    // The daemon makes the folder when the stream begins. It opens the first file only when it has
    // bytes to write. So the time of file 0 begins with the folder.
    double seconds = 0;
    for (const FileFacts& file : files) {
        const bool first = &file == &files.front() && file.index == 0u && start.has_value();
        const std::optional<PhoneTime>& from = first ? start : file.opened;
        if (!from || !file.closed) return std::nullopt;
        seconds += static_cast<double>(*file.closed - *from);
    }
    return seconds > 0 ? std::optional(seconds) : std::nullopt;
}

const std::vector<CustomValue>& CaptureFacts::custom() const {
    static const std::vector<CustomValue> kNone;
    for (const FileFacts& file : files) {
        if (!file.header.custom.empty()) return file.header.custom;
    }
    return kNone;
}

std::string RawMissing(const Finding& finding) {
    if (!finding.raw_missing) return "the raw bytes in them are missing, how many is not known";
    return std::string(finding.raw_estimated ? "about " : "") +
           std::to_string(*finding.raw_missing) + " raw bytes are missing";
}

std::string RawMissing(const Totals& totals) {
    if (totals.raw_missing == 0) return "how many raw bytes are missing is not known";
    return std::string(totals.raw_estimated ? "about " : "") + std::to_string(totals.raw_missing) +
           " raw bytes missing";
}

std::string_view Text(CaptureFacts::State state) {
    switch (state) {
        case CaptureFacts::State::kFinished:
            return "finished";
        case CaptureFacts::State::kUnfinished:
            return "unfinished";
        case CaptureFacts::State::kNewest:
            return "newest";
        case CaptureFacts::State::kBeingWritten:
            return "being written";
    }
    return "";
}

std::vector<const FileFacts*> Model::Files() const {
    std::vector<const FileFacts*> files;
    for (const Phone& phone : phones) {
        for (const FileFacts& log : phone.power_on_logs) {
            if (log.given) files.push_back(&log);
        }
        for (const CaptureFacts& capture : phone.captures) {
            if (capture.copy) continue;
            for (const FileFacts& file : capture.files) files.push_back(&file);
        }
    }
    return files;
}

std::vector<CustomChange> Changes(const Phone& phone) {
    std::vector<CustomChange> changes;
    const CaptureFacts* before = nullptr;
    for (size_t i = 0; i < phone.captures.size(); ++i) {
        const CaptureFacts& capture = phone.captures[i];
        if (capture.copy || capture.custom().empty()) continue;
        std::map<uint8_t, std::pair<std::string, std::string>> values;
        if (before != nullptr) {
            for (const CustomValue& value : before->custom())
                values[value.type].first = value.value;
            for (const CustomValue& value : capture.custom()) {
                values[value.type].second = value.value;
            }
        }
        for (const auto& [type, change] : values) {
            if (change.first != change.second)
                changes.push_back({i, type, change.first, change.second});
        }
        before = &capture;
    }
    return changes;
}

std::string Model::Verdict() const {
    const auto count = [](size_t number, const char* one) {
        return std::to_string(number) + " " + one + (number == 1 ? "" : "s");
    };
    const int status = Status();
    std::string what = count(totals.captures, "capture") + ", " + count(totals.files, "file");
    if (status == 0 && totals.files == 0)
        return "NOTHING THERE: " + what + ", " + count(totals.power_on_logs, "power-on log");
    if (status == 0) {
        if (depth == Depth::kBlocks) return "GOOD: " + what + ", every block unpacks";
        return "GOOD as far as looked at: " + what + ", every block has its place";
    }
    std::string text = (status == 2 ? "NOT ALL COULD BE READ: " : "NOT WHOLE: ") + what;
    if (status == 1 || totals.faults != 0) text += ", " + count(totals.faults, "fault");
    if (totals.holes != 0) text += ", " + count(totals.holes, "hole") + " among them";
    if (totals.damaged_bytes != 0) {
        text += ", " + std::to_string(totals.damaged_bytes) + " bytes damaged (" +
                RawMissing(totals) + ")";
    }
    return text;
}

int Model::Status() const {
    int status = 0;
    for (const Finding& finding : findings) {
        if (finding.kind == Finding::Kind::kFault) status = std::max(status, 1);
        if (finding.kind == Finding::Kind::kUnreadable) status = 2;
    }
    return status;
}

}  // namespace muxz
