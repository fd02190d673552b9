// Parses the header of a log file, in the layout of docs/log-file-format.md.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/qrx_log_format.h"
#include "tools/muxz/source.h"

namespace muxz {

enum class HeaderState {
    kWhole,
    kEmpty,    // the file has no bytes
    kCut,      // the file ends within the header
    kUnknown,  // the file does not begin with the magic
    kDamaged,  // the lengths in the header contradict each other
    kReadError,
};
std::string_view Text(HeaderState state);

struct Header {
    uint16_t version;
    uint16_t reserved;
    uint32_t length;             // bytes; the first block follows
    bool known_version;          // if false, the fields below are zero
    QRX_LOG_FORMAT_AP phone;     // its pointer is null; the custom block is in `custom`
    QRX_LOG_FORMAT_MODEM modem;  // its pointer is null; the record is in `modem_record`
    std::array<uint8_t, kMdInfoRecordSize> modem_record;
    std::vector<uint8_t> custom;
};

// Parses the header of a file that begins with `front`. REQUIRES: `front` has the first 65,795
// bytes of the file, or all if it is shorter. `header` is valid if the result is kWhole.
HeaderState ParseHeader(Bytes front, Header& header);
// As ParseHeader, but reads the bytes from `source`.
HeaderState ReadHeader(Source& source, Header& header);

inline uint32_t Get32(const uint8_t* in) {
    return in[0] | static_cast<uint32_t>(in[1]) << 8 | static_cast<uint32_t>(in[2]) << 16 |
           static_cast<uint32_t>(in[3]) << 24;
}

struct CustomEntry {
    uint8_t type;
    Bytes value;
};
// Returns the entries of a custom block, up to the first entry that does not fit into the block.
// Sets `rest` to the bytes behind the last returned entry.
std::vector<CustomEntry> ParseCustomBlock(Bytes block, Bytes& rest);

}  // namespace muxz
