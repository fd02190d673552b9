// The header that the simulated phone's log-format library writes at the start of a log file.
//
// All numbers are little-endian. Magic, version and length have the same offsets in every version,
// so that a reader can skip a header of an unknown version. docs/log-file-format.md describes the
// format.
//
//   header = magic 8 + version 2 + reserved 2 + length 4
//          + phone record 24 + modem record 16 + modem information 204 + custom block
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/qrx_log_format.h"

namespace sim::log_header {

constexpr std::array<uint8_t, 8> kMagic = {'Q', 'R', 'X', 'L', 'O', 'G', '\r', '\n'};
constexpr uint16_t kVersion = 1;

// Offsets of the fields.
constexpr size_t kVersionAt = kMagic.size();
constexpr size_t kReservedAt = kVersionAt + 2;
constexpr size_t kLengthAt = kReservedAt + 2;  // bytes of the whole header with the custom block
constexpr size_t kFixedSize = kLengthAt + 4;   // the part that is the same in every version

constexpr size_t kCompressBufSizeAt = kFixedSize;
constexpr size_t kFolderTimeAt = kCompressBufSizeAt + 4;
constexpr size_t kFileIdxAt = kFolderTimeAt + 4;
constexpr size_t kApReservedAt = kFileIdxAt + 4;
constexpr size_t kCustomPresentAt = kApReservedAt + 4;    // 1 byte
constexpr size_t kCustomLengthAt = kCustomPresentAt + 2;  // 2 bytes, after 1 reserved
constexpr size_t kCustomReservedAt = kCustomLengthAt + 2;
constexpr size_t kMdInfoWordBAt = kCustomReservedAt + 4;
constexpr size_t kMdInfoWordAAt = kMdInfoWordBAt + 4;
constexpr size_t kMdInfoTimeAt = kMdInfoWordAAt + 4;
constexpr size_t kModemReservedAt = kMdInfoTimeAt + 4;
constexpr size_t kMdInfoAt = kModemReservedAt + 4;
constexpr size_t kCustomBlockAt = kMdInfoAt + kMdInfoRecordSize;
static_assert(kCustomBlockAt == 260);

constexpr size_t kMaxSize = kCustomBlockAt + UINT16_MAX;

}  // namespace sim::log_header
