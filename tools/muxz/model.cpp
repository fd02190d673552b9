#include "tools/muxz/model.h"

#include <algorithm>
#include <bit>
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

const std::vector<CustomValue>& CaptureFacts::custom() const {
    static const std::vector<CustomValue> kNone;
    for (const FileFacts& file : files) {
        if (!file.header.custom.empty()) return file.header.custom;
    }
    return kNone;
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
