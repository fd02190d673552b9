// Keeps bytes that can be read only once, so that they can be read a second time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/muxz/source.h"
#include "tools/muxz/tree.h"

namespace muxz {

// A temporary file without a name, in the folder that the environment variable TMPDIR names, or
// else in /tmp. The kernel removes the file when the process ends, also after a crash.
class Spool {
  public:
    // Returns false with errno set if the disk is full or the folder does not exist.
    bool Append(Bytes bytes);
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) const;
    uint64_t size() const { return used; }
    // Why Append failed, for people. Empty if it did not fail.
    const std::string& why() const { return text; }

  private:
    bool Fail();

    Fd fd;
    uint64_t used = 0;  // bytes
    std::string text;
};

// A part of a spool. All parts share the spool.
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

// A pipe that is read on demand. A copy of the bytes is kept, so that they can be read again.
class KeptPipe : public Source {
  public:
    // `first`: the bytes that the caller has already read from the pipe.
    KeptPipe(Fd pipe, std::vector<uint8_t> first) : fd(std::move(pipe)), front(std::move(first)) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;
    std::string Why(int error) const override;
    // Copies the bytes that were read before. Returns false with errno set if that fails.
    bool Begin() { return front.empty() || ReadOn(); }
    // Reads to the end of the pipe. Returns the number of all bytes, or -1 with errno set.
    int64_t ReadAll();

  private:
    // Reads a piece. Returns false with errno 0 at the end, and with errno set after an error.
    bool ReadOn();

    const Fd fd;
    std::vector<uint8_t> front;
    std::vector<uint8_t> piece;
    Spool spool;
    bool ended = false;
};

// A pipe that is read once, from the first byte to the last. No bytes are kept.
class Pipe : public Source {
  public:
    Pipe(Fd pipe, std::vector<uint8_t> first) : fd(std::move(pipe)), front(std::move(first)) {}
    // REQUIRES: `offset` is where the last call ended.
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;

  private:
    const Fd fd;
    const std::vector<uint8_t> front;
};

// A source that several readers use, one after the other. It shares the ownership of `whole`.
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

// As read(2), but repeats the call after EINTR, and blocks even if the descriptor is non-blocking.
ssize_t ReadSome(int fd, uint8_t* out, size_t size);

}  // namespace muxz
