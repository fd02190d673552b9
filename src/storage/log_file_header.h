// The header of a log file: information about the modem and the phone.
#pragma once

#include <cstdint>
#include <ctime>

#include "core/quarn_global.h"
#include "platform/qrx_log_format.h"

namespace quarn::zorvex {

class LogFileHeader {
  public:
    // Copies the latest modem information. `folder_time` is the creation time of the capture
    // folder, `file_idx` the index of the file in the folder. Takes `md_info_mutex`.
    LogFileHeader(time_t folder_time, uint32_t file_idx);
    LogFileHeader(const LogFileHeader&) = delete;
    LogFileHeader& operator=(const LogFileHeader&) = delete;

    // Returns true if the modem has reported its information. Otherwise the header has an empty
    // record, and the current time as the time of the modem information.
    bool has_modem_info() const { return modem_info_known; }
    // Writes the header to the new file `fd`. Returns 0 on success, else an error code of the
    // log-format library.
    int Write(int fd) const { return qrx_log_format_writeHeader(fd, modem, phone); }

  private:
    QUARN_MD_INFO md_info;  // `modem` points to it
    bool modem_info_known;
    QRX_LOG_FORMAT_MODEM modem = {};
    QRX_LOG_FORMAT_AP phone = {};
};

}  // namespace quarn::zorvex
