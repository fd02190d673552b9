#include "tools/muxz/foreign.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "tools/muxz/header.h"

namespace muxz {

namespace {

constexpr std::string_view kTag("\0\x10\0ZORVEXHEADERINFO", 19);  // the custom block's first entry
// More than the existing types. A small limit keeps random bytes from looking like entries.
constexpr uint8_t kMostCustomType = 15;
constexpr uint32_t kCompressBuffer = 1048576;
constexpr int64_t kDay = 86400;  // s
constexpr int64_t kLongestCapture = 400 * kDay;
constexpr uint32_t kFirstTime = 946684800;  // 2000-01-01; no modem information is older
constexpr size_t kWords = 16;               // bytes of word b, word a, time and zero together
// Bytes of the pointer that may stand between a modem information record and the words.
constexpr size_t kPointer = 8;

void RecogniseCustom(Bytes bytes, HeaderFacts& header) {
    const auto tag = std::search(bytes.begin(), bytes.end(), kTag.begin(), kTag.end(),
                                 [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); });
    if (tag == bytes.end()) return;
    Bytes rest;
    for (const CustomEntry& entry :
         ParseCustomBlock(bytes.subspan(static_cast<size_t>(tag - bytes.begin())), rest)) {
        // Any bytes may follow the last entry. Zeros would look like empty tags.
        const bool first = header.custom.empty();
        if (!first && (entry.type == 0 || entry.type > kMostCustomType || entry.value.empty()))
            break;
        header.custom.push_back({entry.type, {entry.value.begin(), entry.value.end()}});
    }
}

void RecognisePhone(Bytes bytes, uint32_t index, PhoneTime opened, HeaderFacts& header) {
    for (size_t at = 0; at + 12 <= bytes.size(); ++at) {
        if (Get32(&bytes[at]) != kCompressBuffer || Get32(&bytes[at + 8]) != index) continue;
        const UtcTime time = Get32(&bytes[at + 4]);
        if (time > opened + kDay || time < opened - kLongestCapture) continue;
        header.folder_time = time;
        header.file_index = index;
        return;
    }
}

// Returns the offset of the modem information record beside the words at `at`. The record lies
// behind them, in front of them, or in front of them with a pointer in between.
std::optional<size_t> RecordBeside(Bytes bytes, size_t at) {
    const auto ends_with_word_b = [&](size_t record) {
        return record + kMdInfoRecordSize <= bytes.size() &&
               memcmp(&bytes[record + kMdInfoRecordSize - 4], &bytes[at], 4) == 0;
    };
    if (ends_with_word_b(at + kWords)) return at + kWords;
    for (const size_t between : {size_t{0}, kPointer}) {
        if (at < kMdInfoRecordSize + between) continue;
        const size_t record = at - between - kMdInfoRecordSize;
        if (ends_with_word_b(record)) return record;
    }
    return std::nullopt;
}

void RecogniseModem(Bytes bytes, std::optional<PhoneTime> opened, HeaderFacts& header) {
    for (size_t at = 0; at + kWords <= bytes.size(); ++at) {
        const uint32_t time = Get32(&bytes[at + 8]);
        if (time < kFirstTime || Get32(&bytes[at + 12]) != 0 || Get32(&bytes[at]) == 0) continue;
        if (opened && time > *opened + kDay) continue;
        const std::optional<size_t> record = RecordBeside(bytes, at);
        if (!record) continue;
        header.modem.emplace();
        std::copy_n(&bytes[*record], kMdInfoRecordSize, header.modem->record.begin());
        header.modem->word_b = Get32(&bytes[at]);
        header.modem->word_a = Get32(&bytes[at + 4]);
        header.modem->time = time;
        return;
    }
}

}  // namespace

void Recognise(Bytes bytes, std::optional<uint32_t> index, std::optional<PhoneTime> opened,
               HeaderFacts& header) {
    RecogniseCustom(bytes, header);
    if (index && opened) RecognisePhone(bytes, *index, *opened, header);
    RecogniseModem(bytes, opened, header);
}

}  // namespace muxz
