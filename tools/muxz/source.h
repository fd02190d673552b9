// Sources of the bytes of a log file, and a window that keeps a part of them in memory.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace muxz {

using Bytes = std::span<const uint8_t>;

// The bytes of a file. The file may grow or shrink while it is read.
class Source {
  public:
    virtual ~Source() = default;
    // Reads up to `size` bytes at `offset`. Returns the number of bytes read, 0 only at the end of
    // the file, or -1 with errno set.
    virtual ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) = 0;
    // Returns a lower bound of the file's size, or 0 if it is unknown. Does not block.
    virtual uint64_t Size() const { return 0; }
    // Describes an errno of `ReadAt` for people.
    virtual std::string Why(int error) const;
};

// The bytes are not owned.
class MemorySource : public Source {
  public:
    explicit MemorySource(Bytes file) : bytes(file) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;
    uint64_t Size() const override { return bytes.size(); }

  private:
    const Bytes bytes;
};

// A regular file. The descriptor is not owned.
class FileSource : public Source {
  public:
    explicit FileSource(int open_fd) : fd(open_fd) {}
    ssize_t ReadAt(uint64_t offset, uint8_t* out, size_t size) override;
    uint64_t Size() const override;

  private:
    const int fd;
};

// A part of a file in memory. It moves with the reader.
class Window {
  public:
    // Reads about `read_size` bytes at a time, or more if the caller needs more. `from` is not
    // owned.
    Window(Source& from, size_t read_size) : source(from), piece(read_size) {}

    // Returns at least `size` bytes from `offset` on. Returns fewer only if the file ends there or
    // cannot be read. The result is valid until the next call.
    Bytes At(uint64_t offset, size_t size);
    // Returns the errno of a failed read, or 0 if no read failed.
    int error() const { return read_error; }
    // Returns true if the file has at least `size` bytes. Reads at most the last of them.
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
    uint64_t known = 0;  // lower bound of the file's size
    int read_error = 0;
};

}  // namespace muxz
