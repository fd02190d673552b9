// The log-format library of the simulated phone.
#include "platform/qrx_log_format.h"

#include <unistd.h>

#include <bit>
#include <cstring>
#include <vector>

#include "sim/qrx_log_header.h"

static_assert(std::endian::native == std::endian::little,
              "fields are copied as they lie in memory");

namespace {

template <typename T>
void Put(std::vector<uint8_t>& header, size_t at, const T& value) {
    memcpy(header.data() + at, &value, sizeof(value));
}

}  // namespace

extern "C" int qrx_log_format_writeHeader(int fd, QRX_LOG_FORMAT_MODEM modem,
                                          QRX_LOG_FORMAT_AP ap) {
    using namespace sim::log_header;
    const CUSTOM_HEADER_INFO& custom = ap.custom_header;
    const size_t custom_size = custom.data != nullptr ? custom.length : 0;
    std::vector<uint8_t> header(kCustomBlockAt + custom_size);

    memcpy(header.data(), kMagic.data(), kMagic.size());
    Put(header, kVersionAt, kVersion);
    Put(header, kLengthAt, static_cast<uint32_t>(header.size()));

    Put(header, kCompressBufSizeAt, ap.compress_buf_size);
    Put(header, kFolderTimeAt, ap.folder_time);
    Put(header, kFileIdxAt, ap.file_idx);
    Put(header, kCustomPresentAt, custom.present);
    Put(header, kCustomLengthAt, static_cast<uint16_t>(custom_size));

    Put(header, kMdInfoWordBAt, modem.md_info_word_b);
    Put(header, kMdInfoWordAAt, modem.md_info_word_a);
    Put(header, kMdInfoTimeAt, modem.md_info_time);
    Put(header, kModemReservedAt, modem.reserved_20);
    memcpy(header.data() + kMdInfoAt, modem.md_info, kMdInfoRecordSize);
    if (custom_size != 0) memcpy(header.data() + kCustomBlockAt, custom.data, custom_size);

    // One write, so that a partly written header counts as a failure.
    const ssize_t written = write(fd, header.data(), header.size());
    return written == static_cast<ssize_t>(header.size()) ? 0 : -1;
}
