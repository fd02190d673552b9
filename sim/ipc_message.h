// A message of modem IPC, which is a request or a confirmation. It has an id and typed values
// (TLVs).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

namespace sim {

class IpcMessage {
  public:
    explicit IpcMessage(int id) : id_(id) {}

    int id() const { return id_; }

    void Add(int type, const void* value, size_t length) {
        values_.push_back({type, bytes_.size(), length});
        if (length == 0) return;
        const auto* const from = static_cast<const uint8_t*>(value);
        bytes_.insert(bytes_.end(), from, from + length);
    }
    void AddNumber(int type, int32_t number) { Add(type, &number, sizeof(number)); }

    // Removes up to `count` bytes from the end of the last value.
    void Shorten(size_t count) {
        if (values_.empty()) return;
        count = std::min(count, values_.back().length);
        values_.back().length -= count;
        bytes_.resize(bytes_.size() - count);
        bytes_.shrink_to_fit();  // a sanitizer then detects reads beyond the end
    }

    // False if the library leaves the length unset when the daemon reads a value.
    bool has_lengths() const { return has_lengths_; }
    void OmitLengths() { has_lengths_ = false; }

    bool Has(int type) const { return Find(type) != nullptr; }
    // Returns the bytes of the first value of that type, or none. Valid until the next change of
    // the message. Numbers among the bytes are not aligned.
    std::span<const uint8_t> Bytes(int type) const {
        const Value* const value = Find(type);
        if (value == nullptr) return {};
        return {bytes_.data() + value->at, value->length};
    }
    // Returns the first value of that type as a number, if it has four bytes.
    std::optional<int32_t> Number(int type) const {
        const std::span<const uint8_t> bytes = Bytes(type);
        int32_t number = 0;
        if (bytes.size() != sizeof(number)) return std::nullopt;
        memcpy(&number, bytes.data(), sizeof(number));
        return number;
    }
    size_t size() const { return bytes_.size(); }
    size_t count() const { return values_.size(); }

  private:
    struct Value {
        int type;
        size_t at;
        size_t length;
    };
    const Value* Find(int type) const {
        for (const Value& value : values_) {
            if (value.type == type) return &value;
        }
        return nullptr;
    }

    int id_;
    bool has_lengths_ = true;
    std::vector<Value> values_;
    // The first byte is unused; it puts the numbers at odd addresses.
    std::vector<uint8_t> bytes_ = {0};
};

}  // namespace sim
