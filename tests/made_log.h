// Makes log files, with the header of the simulated phone's library or with another one.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <snappy-c.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include "sim/qrx_log_header.h"
#include "storage/log_file_format.h"
#include "support.h"
#include "tools/muxz/header.h"

namespace test {

using quarn::log_file::kBlockHeaderSize;

// The contents of a header.
struct Told {
    uint32_t folder_time = 1706745500;
    uint32_t file_index = 5;
    uint32_t modem_time = 1706745599;  // 0: no information from the modem yet
    uint32_t opened = 1706745599;      // when the file was opened
    std::string radio = "v1";
    std::string hardware = "hw";
};

inline std::string Word(uint32_t value) {
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

inline std::string CustomBlock(const Told& told) {
    std::string block("\0\x10\0ZORVEXHEADERINFO", 19);
    for (const auto& [type, value] : {std::pair{'\1', told.radio}, {'\2', told.hardware}}) {
        block += type + std::string(1, static_cast<char>(value.size())) + '\0' + value;
    }
    return block + std::string("\x09\x01\0\xff", 4);
}

inline std::string ModemRecord(const Told& told) {
    std::string record(kMdInfoRecordSize, '\0');
    for (size_t i = 0; told.modem_time != 0 && i < record.size(); ++i)
        record[i] = static_cast<char>(i);
    return record;
}

// A header as the simulated phone's library writes it.
inline std::string OwnHeader(const Told& told) {
    const std::string custom = CustomBlock(told), record = ModemRecord(told);
    const bool any = told.modem_time != 0;
    const QRX_LOG_FORMAT_MODEM modem{record.data(), any ? 0xcbcac9c8 : 0, any ? 0x11223344u : 0,
                                     any ? told.modem_time : told.opened, 0};
    QRX_LOG_FORMAT_AP phone{1048576, told.folder_time, told.file_index, 0, {}};
    phone.custom_header = {1, 0, static_cast<uint16_t>(custom.size()), 0, custom.data()};
    const char* path = "/box/header";
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_EQ(qrx_log_format_writeHeader(fd, modem, phone), 0);
    close(fd);
    return ReadFile(path);
}

// Lengths of headers from another writer. A header of at least 512 bytes contains the known parts.
inline constexpr size_t kOwn = SIZE_MAX;
inline constexpr size_t kHeaders[] = {kOwn, 0, 24, 512, 65536};

inline std::string RandomBytes(size_t size, uint64_t seed) {
    std::string bytes(size, '\0');
    uint64_t state = seed;
    for (char& c : bytes) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        c = static_cast<char>(state >> 56);
    }
    return bytes;
}

inline std::string HeaderBytes(size_t length = kOwn, const Told& told = {}) {
    if (length == kOwn) return OwnHeader(told);
    std::string bytes = RandomBytes(length, length + told.file_index);
    if (length < 512) return bytes;
    std::string parts = Word(1048576) + Word(told.folder_time) + Word(told.file_index) +
                        CustomBlock(told) + std::string(8, '\0');
    if (told.modem_time != 0)
        parts += ModemRecord(told) + Word(0xcbcac9c8) + Word(7) + Word(told.modem_time) + Word(0);
    return bytes.replace(bytes.size() / 4, parts.size(), parts);
}

inline std::string Framed(uint32_t raw_length, const std::string& packed) {
    uint8_t front[kBlockHeaderSize];
    quarn::log_file::PutBlockHeader(front, {raw_length, static_cast<uint32_t>(packed.size())});
    return std::string(reinterpret_cast<char*>(front), sizeof(front)) + packed;
}

inline std::string BlockBytes(const std::string& raw) {
    std::string packed(snappy_max_compressed_length(raw.size()), '\0');
    size_t length = packed.size();
    EXPECT_EQ(snappy_compress(raw.data(), raw.size(), packed.data(), &length), SNAPPY_OK);
    packed.resize(length);
    return Framed(static_cast<uint32_t>(raw.size()), packed);
}

inline std::string NameOf(const testing::TestParamInfo<size_t>& header) {
    return header.param == kOwn ? "OwnHeader" : "HeaderOf" + std::to_string(header.param);
}

}  // namespace test
