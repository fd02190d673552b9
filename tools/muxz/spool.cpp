#include "tools/muxz/spool.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace muxz {

namespace {

constexpr size_t kPiece = size_t{64} * 1024;  // bytes; the default capacity of a pipe

std::string TemporaryFolder() {
    const char* const chosen = getenv("TMPDIR");
    return chosen != nullptr && *chosen != '\0' ? chosen : "/tmp";
}

Fd OpenTemporary() {
    const std::string folder = TemporaryFolder();
    Fd fd(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (fd || errno != EOPNOTSUPP) return fd;
    std::string name = folder + "/muxz.XXXXXX";
    fd = Fd(mkostemp(name.data(), O_CLOEXEC));
    if (fd) unlink(name.c_str());
    return fd;
}

}  // namespace

bool Spool::Fail() {
    const int error = errno;
    text = TemporaryFolder() +
           " does not take what must be kept for a second reading: " + strerror(error) +
           " (TMPDIR names another folder)";
    errno = error;
    return false;
}

bool Spool::Append(Bytes bytes) {
    if (!fd && !(fd = OpenTemporary())) return Fail();
    while (!bytes.empty()) {
        const ssize_t put = pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(used));
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return Fail();
        used += static_cast<uint64_t>(put);
        bytes = bytes.subspan(static_cast<size_t>(put));
    }
    return true;
}

ssize_t Spool::ReadAt(uint64_t offset, uint8_t* out, size_t size) const {
    if (offset >= used) return 0;
    return FileSource(fd.get()).ReadAt(offset, out, std::min<uint64_t>(size, used - offset));
}

ssize_t SpoolPart::ReadAt(uint64_t offset, uint8_t* out, size_t size) {
    if (offset >= length) return 0;
    return spool->ReadAt(start + offset, out, std::min<uint64_t>(size, length - offset));
}

ssize_t ReadSome(int fd, uint8_t* out, size_t size) {
    while (true) {
        const ssize_t got = read(fd, out, size);
        if (got >= 0 || (errno != EINTR && errno != EAGAIN)) return got;
        pollfd ready{fd, POLLIN, 0};
        if (errno == EAGAIN) poll(&ready, 1, -1);
    }
}

ssize_t Pipe::ReadAt(uint64_t offset, uint8_t* out, size_t size) {
    if (offset >= front.size()) return ReadSome(fd.get(), out, size);
    size = std::min<size_t>(size, front.size() - offset);
    memcpy(out, front.data() + offset, size);
    return static_cast<ssize_t>(size);
}

bool KeptPipe::ReadOn() {
    if (!front.empty()) {
        const bool kept = spool.Append(front);
        front.clear();
        return kept;
    }
    errno = 0;
    if (ended) return false;
    piece.resize(kPiece);
    const ssize_t got = ReadSome(fd.get(), piece.data(), piece.size());
    if (got < 0) return false;
    ended = got == 0;
    return !ended && spool.Append({piece.data(), static_cast<size_t>(got)});
}

ssize_t KeptPipe::ReadAt(uint64_t offset, uint8_t* out, size_t size) {
    while (spool.size() <= offset) {
        if (!ReadOn()) return errno == 0 ? 0 : -1;
    }
    return spool.ReadAt(offset, out, size);
}

std::string KeptPipe::Why(int error) const {
    return spool.why().empty() ? Source::Why(error) : spool.why();
}

int64_t KeptPipe::ReadAll() {
    while (ReadOn()) {
    }
    return errno == 0 ? static_cast<int64_t>(spool.size()) : -1;
}

}  // namespace muxz
