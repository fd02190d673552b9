// Conversions between bytes and hexadecimal text, and a checksum.
#pragma once

#include <charconv>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// Appends the bytes that `word` contains in hexadecimal. Returns false if `word` is malformed.
inline bool HexBytes(std::string_view word, std::vector<uint8_t>* bytes) {
    if (word.size() % 2 != 0) return false;
    for (size_t i = 0; i < word.size(); i += 2) {
        uint8_t byte = 0;
        const char* const end = word.data() + i + 2;
        const auto [stop, error] = std::from_chars(word.data() + i, end, byte, 16);
        if (error != std::errc() || stop != end) return false;
        bytes->push_back(byte);
    }
    return true;
}

// Returns the CRC-32 that zlib and Ethernet use.
inline uint32_t Crc32(std::span<const uint8_t> bytes) {
    constexpr uint32_t kPolynomial = 0xEDB88320;
    uint32_t crc = ~0u;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
    }
    return ~crc;
}

inline std::string HexText(std::span<const uint8_t> bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

}  // namespace sim
