#include "tools/muxz/header.h"

#include <algorithm>
#include <cstring>

#include "sim/qrx_log_header.h"

namespace muxz {

namespace {

uint16_t Get16(const uint8_t* in) { return static_cast<uint16_t>(in[0] | in[1] << 8); }

// Fills the fields of version 1 from a complete header.
void TakeRecords(const uint8_t* in, Header& header) {
    using namespace sim::log_header;
    header.phone.compress_buf_size = Get32(in + kCompressBufSizeAt);
    header.phone.folder_time = Get32(in + kFolderTimeAt);
    header.phone.file_idx = Get32(in + kFileIdxAt);
    header.phone.reserved_12 = Get32(in + kApReservedAt);
    header.phone.custom_header.present = in[kCustomPresentAt];
    header.phone.custom_header.reserved_1 = in[kCustomPresentAt + 1];
    header.phone.custom_header.length = Get16(in + kCustomLengthAt);
    header.phone.custom_header.reserved_4 = Get32(in + kCustomReservedAt);
    header.modem.md_info_word_b = Get32(in + kMdInfoWordBAt);
    header.modem.md_info_word_a = Get32(in + kMdInfoWordAAt);
    header.modem.md_info_time = Get32(in + kMdInfoTimeAt);
    header.modem.reserved_20 = Get32(in + kModemReservedAt);
    std::copy_n(in + kMdInfoAt, kMdInfoRecordSize, header.modem_record.begin());
    header.custom.assign(in + kCustomBlockAt, in + header.length);
}

}  // namespace

std::string_view Text(HeaderState state) {
    switch (state) {
        case HeaderState::kWhole:
            return "whole header";
        case HeaderState::kEmpty:
            return "empty file, no header";
        case HeaderState::kCut:
            return "the file ends within its header";
        case HeaderState::kUnknown:
            return "unknown header";
        case HeaderState::kDamaged:
            return "damaged header";
        case HeaderState::kReadError:
            return "the header cannot be read";
    }
    return "";
}

HeaderState ParseHeader(Bytes front, Header& header) {
    using namespace sim::log_header;
    header = {};
    if (front.empty()) return HeaderState::kEmpty;
    const size_t magic_size = std::min(front.size(), kMagic.size());
    if (memcmp(front.data(), kMagic.data(), magic_size) != 0) return HeaderState::kUnknown;
    if (front.size() < kFixedSize) return HeaderState::kCut;

    header.version = Get16(front.data() + kVersionAt);
    header.reserved = Get16(front.data() + kReservedAt);
    header.length = Get32(front.data() + kLengthAt);
    header.known_version = header.version == kVersion;
    if (!header.known_version)
        return header.length < kFixedSize ? HeaderState::kDamaged : HeaderState::kWhole;

    if (header.length < kCustomBlockAt || header.length > kMaxSize) return HeaderState::kDamaged;
    if (front.size() < kCustomBlockAt) return HeaderState::kCut;
    if (kCustomBlockAt + Get16(front.data() + kCustomLengthAt) != header.length)
        return HeaderState::kDamaged;
    if (front.size() < header.length) return HeaderState::kCut;
    TakeRecords(front.data(), header);
    return HeaderState::kWhole;
}

HeaderState ReadHeader(Source& source, Header& header) {
    Window window(source, 4096);
    HeaderState state = ParseHeader(window.At(0, 1), header);
    if (state == HeaderState::kCut)
        state = ParseHeader(window.At(0, sim::log_header::kMaxSize), header);
    // ParseHeader does not need the bytes of an unknown version, so their number is checked here.
    if (state == HeaderState::kWhole && window.At(header.length - 1, 1).empty())
        state = HeaderState::kCut;
    return window.error() != 0 ? HeaderState::kReadError : state;
}

std::vector<CustomEntry> ParseCustomBlock(Bytes block, Bytes& rest) {
    constexpr size_t kEntryHeaderSize = 3;
    std::vector<CustomEntry> entries;
    while (block.size() >= kEntryHeaderSize) {
        const size_t length = Get16(block.data() + 1);
        if (block.size() - kEntryHeaderSize < length) break;
        entries.push_back({block[0], block.subspan(kEntryHeaderSize, length)});
        block = block.subspan(kEntryHeaderSize + length);
    }
    rest = block;
    return entries;
}

}  // namespace muxz
