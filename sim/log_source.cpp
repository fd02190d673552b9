// The two log sources of the simulated modem.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <random>
#include <string_view>

#include "sim/modem.h"

namespace sim {

namespace {

// The header of a generated record. All numbers are little-endian.
//
//   record = magic 2 + length of the whole record 2 + type 4 + sequence number 4 + cell 4
//          + time in us 8 + body
struct RecordHeader {
    uint16_t magic;
    uint16_t length;
    uint32_t type;
    uint32_t sequence;
    uint32_t cell;
    uint64_t time_us;
};
static_assert(sizeof(RecordHeader) == 24);

constexpr uint16_t kRecordMagic = 0xa55a;
constexpr size_t kBodies = 1024;  // a power of two
constexpr size_t kMinBody = 32;
constexpr size_t kMaxBody = 992;
// The offset in each body of a measurement, which differs from record to record.
constexpr size_t kMeasurementAt = 16;
static_assert(kMeasurementAt + sizeof(uint32_t) <= kMinBody);

// Builds records from bodies that are generated once, so that generating the stream costs about as
// much as copying it. There are so many bodies that the same one seldom comes twice within the
// compressor's window. So the stream compresses because of repetitions within each body.
class GeneratedSource : public LogSource {
  public:
    explicit GeneratedSource(uint64_t seed) : seed_(seed), state_(seed * 2 + 1) {
        std::mt19937_64 random(seed);
        for (Body& body : bodies_) {
            body.length = kMinBody + 8 * (random() % ((kMaxBody - kMinBody) / 8 + 1));
            body.type = static_cast<uint32_t>(0x1000 + random() % 96);
            body.at = pool_.size();
            AppendBody(random, body.length);
        }
    }

    size_t Read(uint8_t* out, size_t len) override {
        size_t done = TakeTail(out, len);
        while (len - done >= kMaxRecord) done += MakeRecord(out + done);
        while (done < len) {
            tail_size_ = MakeRecord(tail_.data());
            tail_at_ = 0;
            done += TakeTail(out + done, len - done);
        }
        return len;
    }

    std::string Describe() const override { return "generated " + std::to_string(seed_); }

  private:
    struct Body {
        size_t at;
        size_t length;
        uint32_t type;
    };
    static constexpr size_t kMaxRecord = sizeof(RecordHeader) + kMaxBody;

    void AppendBody(std::mt19937_64& random, size_t length) {
        static constexpr std::array<std::string_view, 12> kPhrases = {
            "RRC connection reconfiguration",
            "serving cell measurement",
            "PDCP SN status",
            "RLC AM window",
            "MAC CE timing advance",
            "PHY DL-SCH decode",
            "NAS service request",
            "cell reselect",
            "beam failure recovery",
            "IMS registration",
            "UL grant",
            "DRX on"};
        const size_t end = pool_.size() + length;
        while (pool_.size() < end) {
            switch (random() % 4) {
                case 0: {
                    const std::string_view phrase = kPhrases[random() % kPhrases.size()];
                    pool_.insert(pool_.end(), phrase.begin(), phrase.end());
                    break;
                }
                case 1:  // a small number in a wide field
                    pool_.push_back(static_cast<uint8_t>(random()));
                    pool_.insert(pool_.end(), 7, 0);
                    break;
                case 2:  // unused fields
                    pool_.insert(pool_.end(), 4 + random() % 12, random() % 3 == 0 ? 0xff : 0);
                    break;
                default:  // samples
                    for (size_t i = 4 + random() % 8; i > 0; --i) {
                        pool_.push_back(static_cast<uint8_t>(random()));
                    }
            }
        }
        pool_.resize(end);
    }

    size_t MakeRecord(uint8_t* out) {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        const Body& body = bodies_[state_ % kBodies];
        const size_t length = sizeof(RecordHeader) + body.length;
        time_us_ += 20 + (state_ >> 20) % 256;
        const RecordHeader header = {
            kRecordMagic, static_cast<uint16_t>(length), body.type, sequence_++, cell_, time_us_};
        if (sequence_ % 4096 == 0) cell_ = static_cast<uint32_t>((state_ >> 32) % 504);
        memcpy(out, &header, sizeof(header));
        memcpy(out + sizeof(header), pool_.data() + body.at, body.length);
        const auto measurement = static_cast<uint32_t>((state_ >> 40) & 0xffff);
        memcpy(out + sizeof(header) + kMeasurementAt, &measurement, sizeof(measurement));
        return length;
    }

    // Copies the rest of a record that did not fit into the previous read.
    size_t TakeTail(uint8_t* out, size_t len) {
        const size_t n = std::min(len, tail_size_ - tail_at_);
        if (n != 0) memcpy(out, tail_.data() + tail_at_, n);
        tail_at_ += n;
        return n;
    }

    const uint64_t seed_;
    uint64_t state_;  // never 0
    uint32_t sequence_ = 0;
    uint32_t cell_ = 0;
    uint64_t time_us_ = 0;
    std::array<Body, kBodies> bodies_ = {};
    std::vector<uint8_t> pool_;
    std::array<uint8_t, kMaxRecord> tail_ = {};
    size_t tail_at_ = 0;
    size_t tail_size_ = 0;
};

class ReplaySource : public LogSource {
  public:
    ReplaySource(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~ReplaySource() override { close(fd_); }

    size_t Read(uint8_t* out, size_t len) override {
        constexpr size_t kPiece = 1 << 20;
        while (true) {
            const ssize_t n = read(fd_, out, std::min(len, kPiece));
            if (n >= 0) return static_cast<size_t>(n);
            if (errno != EINTR) return 0;
        }
    }

    std::string Describe() const override { return "replay " + path_; }

  private:
    const int fd_;
    const std::string path_;
};

}  // namespace

std::unique_ptr<LogSource> MakeGeneratedSource(uint64_t seed) {
    return std::make_unique<GeneratedSource>(seed);
}

std::unique_ptr<LogSource> MakeReplaySource(const std::string& path, uint64_t offset) {
    // O_NONBLOCK: do not wait for the writer of a pipe, which is refused below.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == -1) return nullptr;
    struct stat info = {};
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
        lseek(fd, static_cast<off_t>(offset), SEEK_SET) != -1) {
        return std::make_unique<ReplaySource>(fd, path);
    }
    const int error = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    close(fd);
    errno = error;
    return nullptr;
}

}  // namespace sim
