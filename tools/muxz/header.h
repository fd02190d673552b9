// The header in front of a log file's blocks, of the layout in docs/log-file-format.md.
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
    kEmpty,    // no bytes at all
    kCut,      // the file ends within it
    kUnknown,  // begins with something else
    kDamaged,  // its lengths contradict each other
    kReadError,
};
std::string_view Text(HeaderState state);

struct Header {
    uint16_t version;
    uint16_t reserved;
    uint32_t length;             // bytes; the first block follows
    bool known_version;          // false: the fields below are zero
    QRX_LOG_FORMAT_AP phone;     // its address is null, the block is in `custom`
    QRX_LOG_FORMAT_MODEM modem;  // its address is null, the record is in `modem_record`
    std::array<uint8_t, kMdInfoRecordSize> modem_record;
    std::vector<uint8_t> custom;
};

// Parses the header at the front of a file, of which `front` holds the first 65,795 bytes or all.
HeaderState ParseHeader(Bytes front, Header& header);
HeaderState ReadHeader(Source& source, Header& header);

inline uint32_t Get32(const uint8_t* in) {
    return in[0] | static_cast<uint32_t>(in[1]) << 8 | static_cast<uint32_t>(in[2]) << 16 |
           static_cast<uint32_t>(in[3]) << 24;
}

struct CustomEntry {
    uint8_t type;
    Bytes value;
};
// The entries of a custom block up to the first that does not fit; `rest` is what follows the last.
std::vector<CustomEntry> ParseCustomBlock(Bytes block, Bytes& rest);

}  // namespace muxz
