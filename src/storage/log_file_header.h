// The header in front of every log file: what the modem and the phone tell about themselves.
#pragma once

#include <cstdint>
#include <ctime>

#include "core/quarn_global.h"
#include "platform/qrx_log_format.h"

namespace quarn::zorvex {

class LogFileHeader {
  public:
    // Takes what the modem told so far, under `md_info_mutex`. `folder_time`: creation of the
    // capture folder; `file_idx`: number of the file in it.
    LogFileHeader(time_t folder_time, uint32_t file_idx);
    LogFileHeader(const LogFileHeader&) = delete;
    LogFileHeader& operator=(const LogFileHeader&) = delete;

    // Without, the time of the modem information is that of the construction.
    bool has_modem_info() const { return modem_told; }
    // 0 on success, else the library's own code. `fd`: a new file.
    int Write(int fd) const { return qrx_log_format_writeHeader(fd, modem, phone); }

  private:
    QUARN_MD_INFO md_info;  // which `modem` points at
    bool modem_told;
    QRX_LOG_FORMAT_MODEM modem = {};
    QRX_LOG_FORMAT_AP phone = {};
};

}  // namespace quarn::zorvex
