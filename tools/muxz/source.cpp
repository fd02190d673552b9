#include "tools/muxz/source.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "storage/log_file_format.h"

namespace muxz {

using quarn::log_file::kMaxLength;

static_assert(sizeof(off_t) == 8, "files may be larger than 2 GiB");

std::string Source::Why(int error) const { return strerror(error); }

ssize_t MemorySource::ReadAt(uint64_t offset, uint8_t* out, size_t size) {
    if (offset >= bytes.size()) return 0;
    const Bytes piece = bytes.subspan(static_cast<size_t>(offset));
    size = std::min(size, piece.size());
    memcpy(out, piece.data(), size);
    return static_cast<ssize_t>(size);
}

ssize_t FileSource::ReadAt(uint64_t offset, uint8_t* out, size_t size) {
    ssize_t got;
    do {
        got = pread(fd, out, size, static_cast<off_t>(offset));
    } while (got == -1 && errno == EINTR);
    return got;
}

uint64_t FileSource::Size() const {
    struct stat info;
    return fstat(fd, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

bool Window::Reaches(uint64_t size) {
    if (size > known) known = source.Size();
    return size <= known || !At(size - 1, 1).empty();
}

Bytes Window::At(uint64_t offset, size_t size) {
    const bool inside = offset >= start && offset - start <= used;
    if (!inside || used - (offset - start) < size) {
        MakeRoom(offset, size);
        while (used < size) {
            const size_t wanted = std::min(capacity - used, std::max(size - used, piece));
            const ssize_t got = source.ReadAt(start + used, buffer.get() + used, wanted);
            if (got < 0) read_error = errno;
            if (got <= 0) break;
            used += static_cast<size_t>(got);
        }
    }
    const auto skip = static_cast<size_t>(offset - start);
    return {buffer.get() + skip, used - skip};
}

// Moves the start of the buffer to `offset` and keeps the bytes from there on. The buffer then has
// room for `size` bytes and one more piece.
void Window::MakeRoom(uint64_t offset, size_t size) {
    size_t kept = 0;
    const uint8_t* from = nullptr;
    if (offset >= start && offset - start < used) {
        from = buffer.get() + (offset - start);
        kept = used - static_cast<size_t>(offset - start);
    }
    if (capacity < size + piece) {
        const size_t larger = std::max(size + piece, std::min<size_t>(2 * capacity, kMaxLength));
        std::unique_ptr<uint8_t[]> moved(new uint8_t[larger]);
        if (kept != 0) memcpy(moved.get(), from, kept);
        buffer = std::move(moved);
        capacity = larger;
    } else if (kept != 0) {
        memmove(buffer.get(), from, kept);
    }
    start = offset;
    used = kept;
}

}  // namespace muxz
