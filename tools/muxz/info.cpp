// muxz info: the header of a file, what its blocks amount to and how it ends.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "sim/qrx_log_header.h"
#include "tools/muxz/commands.h"
#include "tools/muxz/header.h"
#include "tools/muxz/input.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/tree.h"

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

std::string Time(uint32_t seconds) {
    const time_t time = seconds;
    tm utc{};
    char text[64];
    gmtime_r(&time, &utc);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc);
    return std::to_string(seconds) + " (" + text + ")";
}

void ShowCustomBlock(const Header& header, bool all) {
    Bytes rest;
    for (const CustomEntry& entry : ParseCustomBlock(header.custom, rest)) {
        const std::string_view value(reinterpret_cast<const char*>(entry.value.data()),
                                     entry.value.size());
        switch (entry.type) {
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
                Line(("  type " + std::to_string(entry.type)).c_str(), Hex(entry.value, all));
        }
    }
    if (!rest.empty()) Line("  no entry", Hex(rest, all));
}

void ShowHeader(const Header& header, bool all) {
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
    Line("modem info word a", Number(header.modem.md_info_word_a));
    Line("modem info word b", Number(header.modem.md_info_word_b));
    Line("modem info time", Time(header.modem.md_info_time));
    Line("modem reserved", Number(header.modem.reserved_20));
    Line("modem record", Hex(header.modem_record, all));
    const CUSTOM_HEADER_INFO& custom = header.phone.custom_header;
    Line("custom header", std::string(custom.present == 1 ? "present" : "not present") + ", " +
                              std::to_string(custom.length) + " bytes, reserved " +
                              std::to_string(custom.reserved_1) + " and " +
                              std::to_string(custom.reserved_4));
    ShowCustomBlock(header, all);
}

std::string HowItEnds(const BlockReader& reader, bool may_be_open) {
    const std::string open = may_be_open ? ", which is normal in a file still open" : "";
    switch (reader.end()) {
        case End::kWhole:
            return "with its last block";
        case End::kStrayByte:
            return "with the byte more that a flushed close leaves" +
                   std::string(may_be_open ? ", or that begins a block" : "");
        case End::kCutLengths:
        case End::kCutBlock:
            return reader.reason() + open;
        case End::kDamaged:
            return "damaged at offset " + std::to_string(reader.offset()) + ": " + reader.reason();
        case End::kReadError:
            return "unreadable at offset " + std::to_string(reader.offset());
    }
    return "";
}

void ShowBlocks(BlockReader& reader, const OpenLog& log, Progress& progress) {
    const BlockCounts counts = Count(reader, progress);
    progress.Clear();
    const auto pair = [](const quarn::log_file::BlockHeader& lengths) {
        return std::to_string(lengths.raw_length) + " raw, " +
               std::to_string(lengths.packed_length) + " packed bytes";
    };
    Line("blocks", std::to_string(counts.blocks));
    Line("raw bytes", std::to_string(counts.raw));
    Line("packed bytes", std::to_string(counts.packed));
    if (counts.blocks != 0) {
        char ratio[32];
        snprintf(ratio, sizeof(ratio), "%.3f",
                 static_cast<double>(counts.raw) / static_cast<double>(counts.packed));
        Line("ratio", ratio);
        Line("smallest block", pair(counts.smallest));
        Line("largest block", pair(counts.largest));
    }
    struct stat info;
    const bool sized = fstat(log.fd, &info) == 0;
    const uint64_t size = sized ? static_cast<uint64_t>(info.st_size) : reader.offset();
    Line("trailing bytes", std::to_string(std::max(size, reader.offset()) - reader.offset()));
    Line("ends", HowItEnds(reader, log.may_be_open));
}

}  // namespace

int Info(const std::vector<std::string>& paths, bool all) {
    Messages messages(isatty(STDOUT_FILENO) == 0);
    for (const std::string& path : paths) {
        std::string why;
        const Fd fd = OpenRegular(AT_FDCWD, path, why);
        if (!fd) {
            messages.IoError(path, why);
            continue;
        }
        const OpenLog log{fd.get(), path, MayBeOpen(path)};
        struct stat info;
        if (fstat(fd.get(), &info) == 0)
            messages.progress.Expect(static_cast<uint64_t>(info.st_size));
        FileSource source(fd.get());
        Header header;
        printf("%s\n", PrintablePath(path).c_str());
        if (!TakeHeader(source, log, header, messages)) {
            Line("header", "none that is whole");
            continue;
        }
        ShowHeader(header, all);
        BlockReader reader(source, header.length, BlockReader::Mode::kLengths);
        ShowBlocks(reader, log, messages.progress);
        TellEnd(reader, log, messages, "");
    }
    return messages.status;
}

}  // namespace muxz
