// Undoes an append that wrote only a part of its bytes, so that a file ends with a whole block or
// line.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace quarn::zorvex {

class AppendUndo {
  public:
    // Remembers where the file ends, and moves the file offset to the end. The descriptor is not
    // owned. REQUIRES: no other thread or process writes to the file.
    explicit AppendUndo(int file) : fd(file), end(lseek(file, 0, SEEK_END)) {}

    // Cuts the file back to the remembered end. Returns true on success.
    bool Undo() const { return end >= 0 && ftruncate(fd, end) == 0; }
    // Returns the number of bytes by which the file has grown.
    size_t Stayed() const {
        const off_t now = lseek(fd, 0, SEEK_END);
        return end >= 0 && now > end ? static_cast<size_t>(now - end) : 0;
    }

  private:
    const int fd;
    const off_t end;  // negative if unknown
};

}  // namespace quarn::zorvex
