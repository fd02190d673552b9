// Takes back an append that failed after a part of it went out, so that a file of whole blocks or
// lines stays one.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace quarn::zorvex {

class AppendUndo {
  public:
    // Notes the end of `fd`, and sets its offset there. REQUIRES: nobody else writes to the file.
    explicit AppendUndo(int file) : fd(file), end(lseek(file, 0, SEEK_END)) {}

    // Cuts the file back to that end. Returns true if it did.
    bool Undo() const { return end >= 0 && ftruncate(fd, end) == 0; }
    // Returns by how many bytes the file has grown since.
    size_t Stayed() const {
        const off_t now = lseek(fd, 0, SEEK_END);
        return end >= 0 && now > end ? static_cast<size_t>(now - end) : 0;
    }

  private:
    const int fd;
    const off_t end;  // below 0: unknown
};

}  // namespace quarn::zorvex
