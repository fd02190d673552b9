// The log-format library: the closed library that writes the header of every log file.
//
// The daemon and the library share these records. They have the natural layout of a 64-bit
// little-endian machine. The memory that their pointers point to must stay valid and unchanged
// during the call only.
#pragma once

#include <cstddef>
#include <cstdint>

// The block of device information that the daemon collects at start-up.
struct CUSTOM_HEADER_INFO {
    uint8_t present;     // 1 if there is a block, otherwise 0
    uint8_t reserved_1;  // not written
    uint16_t length;     // bytes at `data`
    uint32_t reserved_4;
    const void* data;  // null if there is no block
};
static_assert(sizeof(CUSTOM_HEADER_INFO) == 16);
static_assert(offsetof(CUSTOM_HEADER_INFO, length) == 2);
static_assert(offsetof(CUSTOM_HEADER_INFO, data) == 8);

// The modem's part of the header.
struct QRX_LOG_FORMAT_MODEM {
    const void* md_info;      // the 204-byte modem information record
    uint32_t md_info_word_b;  // the last four bytes of that record
    uint32_t md_info_word_a;
    uint32_t md_info_time;  // seconds since the epoch, low 32 bits
    uint32_t reserved_20;   // 0
};
static_assert(sizeof(QRX_LOG_FORMAT_MODEM) == 24);
static_assert(offsetof(QRX_LOG_FORMAT_MODEM, md_info_word_b) == 8);
static_assert(offsetof(QRX_LOG_FORMAT_MODEM, md_info_word_a) == 12);
static_assert(offsetof(QRX_LOG_FORMAT_MODEM, md_info_time) == 16);

// The phone's part of the header.
struct QRX_LOG_FORMAT_AP {
    uint32_t compress_buf_size;  // bytes
    // When the capture folder was created, in seconds since the epoch, low 32 bits.
    uint32_t folder_time;
    uint32_t file_idx;     // number of the file in its folder
    uint32_t reserved_12;  // not set
    CUSTOM_HEADER_INFO custom_header;
};
static_assert(sizeof(QRX_LOG_FORMAT_AP) == 32);
static_assert(offsetof(QRX_LOG_FORMAT_AP, folder_time) == 4);
static_assert(offsetof(QRX_LOG_FORMAT_AP, file_idx) == 8);
static_assert(offsetof(QRX_LOG_FORMAT_AP, custom_header) == 16);

// Bytes of the record at `QRX_LOG_FORMAT_MODEM::md_info`.
constexpr size_t kMdInfoRecordSize = 204;

// Writes the header at the start of the new file `fd`. Returns 0 on success.
extern "C" int qrx_log_format_writeHeader(int fd, QRX_LOG_FORMAT_MODEM modem, QRX_LOG_FORMAT_AP ap);
