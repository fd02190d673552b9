#include "tools/muxz/json.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/version.h"
#include "tools/muxz/messages.h"

namespace muxz {

namespace {

// Keeps the order in which fields are added, so that people find the important ones first.
using Value = nlohmann::ordered_json;

constexpr int kSchema = 1;

template <typename T>
Value Maybe(const std::optional<T>& value) {
    return value ? Value(*value) : Value(nullptr);
}

template <typename Items, typename Make>
Value List(const Items& items, Make make) {
    Value list = Value::array();
    for (const auto& item : items) list.push_back(make(item));
    return list;
}

std::string Hex(Bytes bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        std::array<char, 3> hex{};
        snprintf(hex.data(), hex.size(), "%02x", byte);
        text += hex.data();
    }
    return text;
}

const char* Name(Finding::Kind kind) {
    switch (kind) {
        case Finding::Kind::kNote:
            return "note";
        case Finding::Kind::kFault:
            return "fault";
        case Finding::Kind::kUnreadable:
            return "unreadable";
    }
    return "";
}

const char* Name(Finding::What what) {
    switch (what) {
        case Finding::What::kDamage:
            return "damage";
        case Finding::What::kCutEnd:
            return "cut_end";
        case Finding::What::kHeader:
            return "header";
        case Finding::What::kHole:
            return "hole";
        case Finding::What::kFrontGone:
            return "front_gone";
        case Finding::What::kCaptureGone:
            return "capture_gone";
        case Finding::What::kWrongName:
            return "wrong_name";
        case Finding::What::kTwice:
            return "twice";
        case Finding::What::kLeftOut:
            return "left_out";
        case Finding::What::kRecycled:
            return "recycled";
        case Finding::What::kUnreadable:
            return "unreadable";
        case Finding::What::kPhones:
            return "phones";
    }
    return "";
}

const char* Name(HeaderFacts::Kind kind) {
    switch (kind) {
        case HeaderFacts::Kind::kOwn:
            return "own";
        case HeaderFacts::Kind::kForeign:
            return "foreign";
        case HeaderFacts::Kind::kNone:
            return "none";
        case HeaderFacts::Kind::kEmpty:
            return "empty";
        case HeaderFacts::Kind::kCut:
            return "cut";
        case HeaderFacts::Kind::kDamaged:
            return "damaged";
        case HeaderFacts::Kind::kNoBlock:
            return "no_block";
    }
    return "";
}

const char* Name(End end) {
    switch (end) {
        case End::kWhole:
            return "whole";
        case End::kStrayByte:
            return "stray_byte";
        case End::kCutLengths:
            return "cut_lengths";
        case End::kCutBlock:
            return "cut_block";
        case End::kDamaged:
            return "damaged";
        case End::kReadError:
            return "read_error";
    }
    return "";
}

const char* Name(CaptureFacts::State state) {
    switch (state) {
        case CaptureFacts::State::kFinished:
            return "finished";
        case CaptureFacts::State::kUnfinished:
            return "unfinished";
        case CaptureFacts::State::kNewest:
            return "newest";
        case CaptureFacts::State::kBeingWritten:
            return "being_written";
    }
    return "";
}

const char* Name(Depth depth) {
    switch (depth) {
        case Depth::kHeaders:
            return "headers";
        case Depth::kLengths:
            return "lengths";
        case Depth::kBlocks:
            return "blocks";
    }
    return "";
}

class Writer {
  public:
    explicit Writer(const Model& shown) : model(shown) {}

    Value Whole(const std::string& command) const {
        return {{"schema", kSchema},
                {"version", quarn::kVersion},
                {"command", command},
                {"status", model.Status()},
                {"verdict", model.Verdict()},
                {"depth", Name(model.depth)},
                {"totals", TotalsOf(model.totals)},
                {"findings", Findings(model.findings)},
                {"reordered", model.reordered},
                {"phones_why", model.phones_why},
                {"phones", List(model.phones, [this](const Phone& p) { return Of(p); })},
                {"budget", Maybe(model.budget)},
                {"android_log", model.android_log ? Of(*model.android_log) : Value(nullptr)},
                {"history", List(model.history, [](const HistoryEntry& entry) {
                     return Value{{"name", entry.name}, {"path", entry.path}};
                 })}};
    }

  private:
    static Value Of(const Finding& finding) {
        return {{"kind", Name(finding.kind)},
                {"what", Name(finding.what)},
                {"path", finding.path},
                {"offset", Maybe(finding.offset)},
                {"length", finding.length},
                {"raw_missing", Maybe(finding.raw_missing)},
                {"raw_estimated", finding.raw_estimated},
                {"first_number", Maybe(finding.first_number)},
                {"last_number", Maybe(finding.last_number)},
                {"from", Maybe(finding.from)},
                {"to", Maybe(finding.to)},
                {"text", finding.text}};
    }
    static Value Findings(const std::vector<Finding>& findings) {
        return List(findings, [](const Finding& finding) { return Of(finding); });
    }

    static Value Of(const quarn::log_file::BlockHeader& lengths) {
        return {{"raw", lengths.raw_length}, {"packed", lengths.packed_length}};
    }
    // Returns null if the blocks were not read.
    Value Of(const BlockFacts& facts) const {
        if (model.depth == Depth::kHeaders) return nullptr;
        const bool any = facts.blocks != 0;
        return {{"blocks", facts.blocks},
                {"raw", facts.raw},
                {"packed", facts.packed},
                {"smallest", any ? Of(facts.smallest) : Value(nullptr)},
                {"largest", any ? Of(facts.largest) : Value(nullptr)},
                {"histogram", facts.histogram}};
    }

    static Value Custom(const std::vector<CustomValue>& values) {
        return List(values, [](const CustomValue& value) {
            return Value{{"type", value.type}, {"value", Printable(value.value)}};
        });
    }
    static Value Of(const HeaderFacts& header) {
        Value modem = nullptr;
        if (header.modem) {
            modem = {{"time", Maybe(header.modem->time)},
                     {"word_a", header.modem->word_a},
                     {"word_b", header.modem->word_b},
                     {"record", Hex(header.modem->record)}};
        }
        return {{"kind", Name(header.kind)},
                {"length", header.length},
                {"version", header.own ? Value(header.own->version) : Value(nullptr)},
                {"folder_time", Maybe(header.folder_time)},
                {"file_index", Maybe(header.file_index)},
                {"modem", std::move(modem)},
                {"custom", Custom(header.custom)}};
    }

    Value Of(const FileFacts& file) const {
        const bool walked = model.depth != Depth::kHeaders;
        return {{"path", file.path},
                {"name", file.name},
                {"index", Maybe(file.index)},
                {"opened", Maybe(file.opened)},
                {"closed", Maybe(file.closed)},
                {"exception", file.exception},
                {"may_be_open", file.may_be_open},
                {"size", file.size},
                {"last_change", Maybe(file.last_change)},
                {"readable", file.readable},
                {"header", Of(file.header)},
                {"blocks", Of(file.blocks)},
                {"end", walked ? Value(Name(file.end)) : Value(nullptr)},
                {"end_reason", file.end_reason},
                {"end_offset", walked ? Value(file.end_offset) : Value(nullptr)},
                {"damaged_bytes", file.damaged_bytes},
                {"findings", Findings(file.findings)}};
    }
    Value Files(const std::vector<FileFacts>& files) const {
        return List(files, [this](const FileFacts& file) { return Of(file); });
    }

    Value Of(const CaptureFacts& capture) const {
        Value exception = nullptr;
        if (capture.exception) {
            exception = {
                {"exact", capture.exception->exact},      {"utc", Maybe(capture.exception->utc)},
                {"from", Maybe(capture.exception->from)}, {"to", Maybe(capture.exception->to)},
                {"told_by", capture.exception->told_by},  {"later", capture.exception->later},
                {"marked", capture.exception->marked}};
        }
        return {{"path", capture.path},
                {"name", capture.name},
                {"log_folder", capture.log_folder},
                {"index", Maybe(capture.index)},
                {"state", Name(capture.state)},
                {"copy", capture.copy},
                {"whole", capture.whole},
                {"start", Maybe(capture.start)},
                {"folder_time", Maybe(capture.folder_time)},
                {"utc_offset", Maybe(capture.utc_offset)},
                {"end", Maybe(capture.end)},
                {"seconds", Maybe(capture.Seconds())},
                {"covered_seconds", Maybe(capture.CoveredSeconds())},
                {"exception", std::move(exception)},
                {"custom", Custom(capture.custom())},
                {"size", capture.size},
                {"blocks", Of(capture.blocks)},
                {"damaged_bytes", capture.damaged_bytes},
                {"raw_missing", capture.raw_missing},
                {"raw_estimated", capture.raw_estimated},
                {"findings", Findings(capture.findings)},
                {"files", Files(capture.files)}};
    }

    Value Of(const Phone& phone) const {
        return {{"hardware_id", Printable(phone.hardware_id)},
                {"utc_offset", Maybe(phone.utc_offset)},
                {"utc_offset_estimated", phone.utc_offset_estimated},
                {"last_changes_kept", phone.last_changes_kept},
                {"changes", List(Changes(phone),
                                 [](const CustomChange& change) {
                                     return Value{{"capture", change.capture},
                                                  {"type", change.type},
                                                  {"before", Printable(change.before)},
                                                  {"after", Printable(change.after)}};
                                 })},
                {"captures", List(phone.captures, [this](const CaptureFacts& c) { return Of(c); })},
                {"power_on_logs", Files(phone.power_on_logs)}};
    }

    Value TotalsOf(const Totals& totals) const {
        return {{"captures", totals.captures},
                {"copies", totals.copies},
                {"files", totals.files},
                {"size", totals.size},
                {"blocks", Of(totals.blocks)},
                {"exceptions", totals.exceptions},
                {"faults", totals.faults},
                {"holes", totals.holes},
                {"damaged_bytes", totals.damaged_bytes},
                {"raw_missing", totals.raw_missing},
                {"raw_estimated", totals.raw_estimated},
                {"power_on_logs", totals.power_on_logs},
                {"power_on_blocks", Of(totals.power_on_blocks)}};
    }

    static Value Of(const AndroidLog& log) {
        return {{"lines", log.lines},
                {"untimed", log.untimed},
                {"warnings", log.warnings},
                {"errors", log.errors},
                {"from", Maybe(log.from)},
                {"to", Maybe(log.to)},
                {"reports", List(log.reports, [](const RateReport& r) { return Of(r); })},
                {"events", List(log.events, [](const LogEvent& event) {
                     return Value{{"kind", Text(event.kind)},
                                  {"time", Maybe(event.time)},
                                  {"number", event.number},
                                  {"text", Printable(event.text)}};
                 })}};
    }
    static Value Of(const RateReport& report) {
        Value faults = Value::object();
        for (size_t i = 0; i < report.faults.size(); ++i)
            faults[kFaultNames.at(i)] = report.faults.at(i);
        return {{"time", Maybe(report.time)},
                {"read", report.read},
                {"written", report.written},
                {"stalls", report.stalls},
                {"reads", report.reads},
                {"faults", std::move(faults)},
                {"poll_faults", report.poll_faults}};
    }

    const Model& model;
};

}  // namespace

std::string Json(const Model& model, const std::string& command) {
    // JSON must be UTF-8, but names on disk may have any bytes: invalid ones are replaced.
    return Writer(model).Whole(command).dump(1, ' ', false, Value::error_handler_t::replace) + "\n";
}

int PrintJson(const Model& model, const std::string& command) {
    fputs(Json(model, command).c_str(), stdout);
    return model.Status();
}

}  // namespace muxz
