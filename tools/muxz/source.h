// Where the bytes of a log file come from, and the part of them that is in memory.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace muxz {

using Bytes = std::span<const uint8_t>;

// Where the bytes of a file come from. It may grow or shrink meanwhile.
class Source {
  public:
    virtual ~Source() = default;
    // Up to `size` bytes from `offset`; 0 only at the end, -1 with errno.
    virtual ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) = 0;
    // Bytes that there are at least, when that can be told at once; else 0.
    virtual uint64_t Size() const { return 0; }
    // What an errno of `ReadAt` means, for people.
    virtual std::string Why(int error) const;
};

class MemorySource : public Source {
  public:
    explicit MemorySource(Bytes file) : bytes(file) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;
    uint64_t Size() const override { return bytes.size(); }

  private:
    const Bytes bytes;
};

// A regular file; the descriptor stays the caller's.
class FileSource : public Source {
  public:
    explicit FileSource(int open_fd) : fd(open_fd) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;
    uint64_t Size() const override;

  private:
    const int fd;
};

// A part of a file in memory that moves on with the reader.
class Window {
  public:
    // Reads about `read_size` bytes at a time, more when more is wanted.
    Window(Source& from, size_t read_size) : source(from), piece(read_size) {}

    // The bytes from `offset` on: `size` of them or more, fewer only where the file ends or cannot
    // be read. Valid until the next call.
    Bytes At(uint64_t offset, size_t size);
    // errno of a failed read, 0 when all went well.
    int error() const { return read_error; }
    // Returns true if the file has that many bytes. Reads at most the last of them.
    bool Reaches(uint64_t size);
    std::string why() const { return source.Why(read_error); }

  private:
    void MakeRoom(uint64_t offset, size_t size);

    Source& source;
    const size_t piece;
    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    uint64_t start = 0;  // offset of the first byte in the buffer
    size_t used = 0;
    uint64_t known = 0;  // bytes that the file has at least
    int read_error = 0;
};

}  // namespace muxz
