// A log source that reads from memory.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "sim/modem.h"

namespace test {

class ByteSource : public sim::LogSource {
  public:
    explicit ByteSource(std::string text) : bytes(std::move(text)) {}
    size_t Read(uint8_t* out, size_t len) override {
        len = std::min(len, bytes.size() - at);
        memcpy(out, bytes.data() + at, len);
        at += len;
        return len;
    }

  private:
    const std::string bytes;
    size_t at = 0;
};

// Gives the bytes to the simulated modem and starts its stream.
inline void Feed(std::string bytes) {
    sim::Modem::Instance().SetSource(std::make_unique<ByteSource>(std::move(bytes)));
    sim::Modem::Instance().StartStream();
}

}  // namespace test
