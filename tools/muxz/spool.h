// Bytes that come only once, kept for a second reading.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/muxz/source.h"
#include "tools/muxz/tree.h"

namespace muxz {

// A file without a name in the folder that TMPDIR names, else in /tmp. It goes with its process,
// however that ends.
class Spool {
  public:
    // Returns false when there is no room, or no such folder.
    bool Append(Bytes bytes);
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) const;
    uint64_t size() const { return used; }
    const std::string& why() const { return text; }  // Append failed, for people

  private:
    bool Fail();

    Fd fd;
    uint64_t used = 0;  // bytes
    std::string text;
};

// A part of what is kept, shared with all its other parts.
class SpoolPart : public Source {
  public:
    SpoolPart(std::shared_ptr<const Spool> all, uint64_t from, uint64_t bytes)
        : spool(std::move(all)), start(from), length(bytes) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;
    uint64_t Size() const override { return length; }

  private:
    const std::shared_ptr<const Spool> spool;
    const uint64_t start;
    const uint64_t length;
};

// What comes through a pipe, read as it is wanted. Of what went by, a copy is kept.
class KeptPipe : public Source {
  public:
    // `first`: bytes that were read from it before.
    KeptPipe(Fd pipe, std::vector<uint8_t> first) : fd(std::move(pipe)), front(std::move(first)) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;
    std::string Why(int error) const override;
    // Keeps what was read before. Returns false when that is not possible, with errno.
    bool Begin() { return front.empty() || ReadOn(); }
    // Reads on to the end. Returns the number of bytes of all, or -1 with errno.
    int64_t ReadAll();

  private:
    bool ReadOn();  // false at the end, and on errors with errno

    const Fd fd;
    std::vector<uint8_t> front;
    std::vector<uint8_t> piece;
    Spool spool;
    bool ended = false;
};

// What comes through a pipe, from the first byte to the last; nothing is kept.
class Pipe : public Source {
  public:
    Pipe(Fd pipe, std::vector<uint8_t> first) : fd(std::move(pipe)), front(std::move(first)) {}
    // `offset` is where the last call ended.
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;

  private:
    const Fd fd;
    const std::vector<uint8_t> front;
};

// The same bytes for several readers, one after the other.
class SharedSource : public Source {
  public:
    explicit SharedSource(std::shared_ptr<Source> whole) : source(std::move(whole)) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override {
        return source->ReadAt(offset, out, size);
    }
    uint64_t Size() const override { return source->Size(); }
    std::string Why(int error) const override { return source->Why(error); }

  private:
    const std::shared_ptr<Source> source;
};

// As read, but over interruptions, and waiting where the descriptor does not.
ssize_t ReadSome(int fd, uint8_t* out, size_t size);

}  // namespace muxz
