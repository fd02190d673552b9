#include "sim/replay_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <utility>

namespace sim {

namespace {

constexpr size_t kDigits = 20;

std::string PlaceFile(const std::string& folder) { return folder + "/replay_place"; }

std::string Digits(uint64_t place) {
    std::string digits = std::to_string(place);
    return digits.insert(0, kDigits - digits.size(), '0');
}

class KeptReplaySource : public LogSource {
  public:
    KeptReplaySource(std::unique_ptr<LogSource> replay, int place_fd, uint64_t place)
        : replay_(std::move(replay)), place_fd_(place_fd), place_(place) {}
    ~KeptReplaySource() override { close(place_fd_); }

    size_t Read(uint8_t* out, size_t len) override {
        const size_t got = replay_->Read(out, len);
        place_ += got;
        // One write over the old number, so that the file always holds the old or the new number.
        const std::string digits = Digits(place_);
        if (got != 0 && pwrite(place_fd_, digits.data(), kDigits, 0) < 0) perror("replay_place");
        return got;
    }

    std::string Describe() const override {
        return replay_->Describe() + " at " + std::to_string(place_);
    }

  private:
    const std::unique_ptr<LogSource> replay_;
    const int place_fd_;
    uint64_t place_;
};

}  // namespace

uint64_t ReadReplayPlace(const std::string& folder, const std::string& path) {
    std::ifstream in(PlaceFile(folder), std::ios::binary);
    std::string line;
    if (!std::getline(in, line) || line.size() <= kDigits || line.substr(kDigits + 1) != path) {
        return 0;
    }
    uint64_t place = 0;
    const char* const end = line.data() + kDigits;
    const auto [stop, error] = std::from_chars(line.data(), end, place);
    if (error != std::errc() || stop != end) return 0;
    struct stat info = {};
    const bool within =
        stat(path.c_str(), &info) != 0 || place <= static_cast<uint64_t>(info.st_size);
    return within ? place : 0;
}

std::unique_ptr<LogSource> MakeKeptReplaySource(const std::string& folder, const std::string& path,
                                                uint64_t offset) {
    std::unique_ptr<LogSource> replay = MakeReplaySource(path, offset);
    if (!replay) return nullptr;
    const std::string name = PlaceFile(folder);
    const std::string fresh = name + ".new";
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd == -1) return nullptr;
    const std::string line = Digits(offset) + ' ' + path + '\n';
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
        rename(fresh.c_str(), name.c_str()) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return nullptr;
    }
    return std::make_unique<KeptReplaySource>(std::move(replay), fd, offset);
}

}  // namespace sim
