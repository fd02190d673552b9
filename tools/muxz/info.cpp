// muxz info: shows the header, the block statistics and the end of each file.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "sim/qrx_log_header.h"
#include "tools/muxz/commands.h"
#include "tools/muxz/json.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reading.h"

namespace muxz {

namespace {

constexpr size_t kShortHex = 32;  // bytes

void Line(const char* name, const std::string& value) {
    printf("  %-18s%s\n", name, value.c_str());
}

std::string Hex(Bytes bytes, bool all) {
    std::string text;
    const size_t shown = all ? bytes.size() : std::min(bytes.size(), kShortHex);
    for (const uint8_t byte : bytes.first(shown)) {
        char hex[3];
        snprintf(hex, sizeof(hex), "%02x", byte);
        text += hex;
    }
    return shown < bytes.size() ? text + "... (" + std::to_string(bytes.size()) + " bytes)" : text;
}

std::string Number(uint32_t value) {
    char text[32];
    snprintf(text, sizeof(text), "%" PRIu32 " (0x%08" PRIx32 ")", value, value);
    return text;
}

std::string Time(UtcTime seconds) {
    return std::to_string(seconds) + " (" + ShowUtc(seconds) + ")";
}

Bytes AsBytes(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

void ShowCustom(const std::vector<CustomValue>& custom, bool all) {
    for (const auto& [type, value] : custom) {
        switch (type) {
            case 0:
                Line("  tag", Printable(value));
                break;
            case 1:
                Line("  radio version", Printable(value));
                break;
            case 2:
                Line("  hardware id", Printable(value));
                break;
            default:
                Line(("  type " + std::to_string(type)).c_str(), Hex(AsBytes(value), all));
        }
    }
}

void ShowModem(const ModemInfo& modem, bool all) {
    Line("modem info word a", Number(modem.word_a));
    Line("modem info word b", Number(modem.word_b));
    Line("modem info time", modem.time ? Time(*modem.time) : "none yet");
    Line("modem record", Hex(modem.record, all));
}

void ShowOwnHeader(const Header& header, const HeaderFacts& facts, bool all) {
    const auto& magic = sim::log_header::kMagic;
    Line("magic", Printable({reinterpret_cast<const char*>(magic.data()), magic.size()}));
    Line("version", std::to_string(header.version) + (header.known_version ? "" : ", unknown"));
    Line("reserved", std::to_string(header.reserved));
    Line("header length", std::to_string(header.length) + " bytes");
    if (!header.known_version) return;
    Line("compress buffer", std::to_string(header.phone.compress_buf_size) + " bytes");
    Line("folder time", Time(header.phone.folder_time));
    Line("file index", std::to_string(header.phone.file_idx));
    Line("phone reserved", Number(header.phone.reserved_12));
    ShowModem(*facts.modem, all);
    Line("modem reserved", Number(header.modem.reserved_20));
    const CUSTOM_HEADER_INFO& custom = header.phone.custom_header;
    Line("custom header", std::string(custom.present == 1 ? "present" : "not present") + ", " +
                              std::to_string(custom.length) + " bytes, reserved " +
                              std::to_string(custom.reserved_1) + " and " +
                              std::to_string(custom.reserved_4));
    ShowCustom(facts.custom, all);
    Bytes rest;
    ParseCustomBlock(header.custom, rest);
    if (!rest.empty()) Line("  no entry", Hex(rest, all));
}

void ShowForeignHeader(const HeaderFacts& header, bool all) {
    Line("header", "header of another writer, " + std::to_string(header.length) + " bytes");
    if (header.folder_time) Line("folder time", Time(*header.folder_time));
    if (header.file_index) Line("file index", std::to_string(*header.file_index));
    if (header.modem) ShowModem(*header.modem, all);
    if (!header.custom.empty()) Line("custom header", "recognised by its tag");
    ShowCustom(header.custom, all);
}

// Returns true if blocks follow.
bool ShowHeader(const FileFacts& file, bool all) {
    const HeaderFacts& header = file.header;
    switch (header.kind) {
        case HeaderFacts::Kind::kOwn:
            ShowOwnHeader(*header.own, header, all);
            return true;
        case HeaderFacts::Kind::kForeign:
            ShowForeignHeader(header, all);
            return true;
        case HeaderFacts::Kind::kNone:
            Line("header", "none, the blocks begin at once");
            return true;
        case HeaderFacts::Kind::kDamaged:
            Line("header", "damaged");
            return header.length < file.size;
        case HeaderFacts::Kind::kNoBlock:
            Line("header", "none that is known, and no block near it");
            return false;
        case HeaderFacts::Kind::kEmpty:
        case HeaderFacts::Kind::kCut:
            Line("header", "none that is whole");
            return false;
    }
    return false;
}

std::string HowItEnds(const FileFacts& file) {
    const std::string open = file.may_be_open ? ", which is normal in a file still open" : "";
    switch (file.end) {
        case End::kWhole:
            return "with its last block";
        case End::kStrayByte:
            return "with the byte more that a flushed close leaves" +
                   std::string(file.may_be_open ? ", or that begins a block" : "");
        case End::kCutLengths:
        case End::kCutBlock:
            return file.end_reason + open;
        case End::kDamaged:
            return "damaged at offset " + std::to_string(file.end_offset) + ": " + file.end_reason;
        case End::kReadError:
            return "unreadable at offset " + std::to_string(file.end_offset);
    }
    return "";
}

void ShowBlocks(const FileFacts& file) {
    const BlockFacts& blocks = file.blocks;
    const auto pair = [](const quarn::log_file::BlockHeader& lengths) {
        return std::to_string(lengths.raw_length) + " raw, " +
               std::to_string(lengths.packed_length) + " packed bytes";
    };
    Line("blocks", std::to_string(blocks.blocks));
    Line("raw bytes", std::to_string(blocks.raw));
    Line("packed bytes", std::to_string(blocks.packed));
    if (blocks.blocks != 0) {
        char ratio[32];
        snprintf(ratio, sizeof(ratio), "%.3f",
                 static_cast<double>(blocks.raw) / static_cast<double>(blocks.packed));
        Line("ratio", ratio);
        Line("smallest block", pair(blocks.smallest));
        Line("largest block", pair(blocks.largest));
    }
    if (file.damaged_bytes != 0) Line("damaged bytes", std::to_string(file.damaged_bytes));
    Line("trailing bytes", std::to_string(std::max(file.size, file.end_offset) - file.end_offset));
    Line("ends", HowItEnds(file));
}

}  // namespace

int Info(const Selection& selection, bool all, bool json) {
    Messages messages(true);
    const Model model = Read(selection, {.depth = Depth::kLengths}, messages);
    if (json) return PrintJson(model, "info");
    for (const FileFacts* file : model.Files()) {
        if (!file->readable) continue;
        printf("%s\n", PrintablePath(file->path).c_str());
        if (ShowHeader(*file, all)) ShowBlocks(*file);
    }
    messages.Tell(model.findings);
    return messages.status;
}

}  // namespace muxz
