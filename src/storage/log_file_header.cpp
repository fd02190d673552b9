#include "storage/log_file_header.h"

#include <mutex>

#include "storage/custom_header.h"
#include "storage/log_file_format.h"

namespace quarn::zorvex {

LogFileHeader::LogFileHeader(time_t folder_time, uint32_t file_idx) {
    phone.compress_buf_size = log_file::kCompressBufSize;
    phone.folder_time = static_cast<uint32_t>(folder_time);
    phone.file_idx = file_idx;
    GetCustomHeaderInfo(phone.custom_header);

    std::lock_guard lock(g_quarn.md_info_mutex);
    md_info = g_quarn.md_info;
    modem_info_known = g_quarn.md_info_time != 0;
    modem.md_info = &md_info;
    modem.md_info_word_b = md_info.md_info_word_b;
    modem.md_info_word_a = g_quarn.md_info_word_a;
    modem.md_info_time =
        static_cast<uint32_t>(modem_info_known ? g_quarn.md_info_time : time(nullptr));
}

}  // namespace quarn::zorvex
