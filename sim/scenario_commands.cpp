// The commands for time, for other programs of the phone, for its clock and its storage, and those
// that only ./run uses.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <thread>

#include "control/protocol.h"
#include "sim/clock.h"
#include "sim/modem.h"
#include "sim/order.h"
#include "sim/schedule.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

// --- A client of the daemon ---

// Returns a descriptor, or -1 if no daemon listens.
int ConnectToDaemon() {
    const std::string_view name = quarn::protocol::kCommandSocket;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0) return fd;
    close(fd);
    return -1;
}

Reply Ask(const std::string& request) {
    int fd = ConnectToDaemon();
    for (int tries = 0; fd == -1 && tries < 100; ++tries) {
        std::this_thread::sleep_for(100ms);
        fd = ConnectToDaemon();
    }
    if (fd == -1) return Failed("the daemon cannot be reached");
    const timeval patience = {120, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    std::array<char, quarn::protocol::kReplySize + 1> text = {};
    const bool answered = send(fd, request.c_str(), request.size() + 1, MSG_NOSIGNAL) > 0 &&
                          recv(fd, text.data(), quarn::protocol::kReplySize, MSG_WAITALL) ==
                              static_cast<ssize_t>(quarn::protocol::kReplySize);
    close(fd);
    if (!answered) return Failed("the daemon did not answer \"" + request + '"');
    const std::string answer = text.data();
    if (!answer.starts_with("ok")) {
        return Failed("the daemon answers \"" + answer + "\" to \"" + request + '"');
    }
    return Ok(answer + '\n');
}

// --- Storage ---

constexpr const char* kBallast = "/data/ballast";
constexpr uint64_t kLargestStorage = uint64_t{4} << 30;  // bytes, in memory

// Returns true if /data is a file system of its own and of limited size. Otherwise the ballast
// could fill the machine's disk.
bool HasStorageOfItsOwn(const struct statvfs& space) {
    struct stat data = {}, box = {};
    return stat("/data", &data) == 0 && stat("/box", &box) == 0 && data.st_dev != box.st_dev &&
           space.f_blocks * space.f_frsize <= kLargestStorage;
}

// Changes the size of the ballast file so that `bytes` stay free. Returns 0 or an errno number.
int SetBallast(int fd, uint64_t bytes) {
    struct statvfs space = {};
    struct stat ballast = {};
    if (fstatvfs(fd, &space) != 0 || fstat(fd, &ballast) != 0) return errno;
    const uint64_t size = static_cast<uint64_t>(ballast.st_size) + space.f_bavail * space.f_frsize;
    const auto wanted = static_cast<off_t>(size - std::min(size, bytes));
    if (wanted <= ballast.st_size) return ftruncate(fd, wanted) == 0 ? 0 : errno;
    return posix_fallocate(fd, ballast.st_size, wanted - ballast.st_size);
}

Reply LeaveFree(uint64_t bytes) {
    struct statvfs space = {};
    if (statvfs("/data", &space) != 0 || !HasStorageOfItsOwn(space)) {
        return Failed("/data has no size of its own");
    }
    const int fd = open(kBallast, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd == -1) return Failed(std::string("cannot write to /data: ") + strerror(errno));
    // If the daemon takes some of the space meanwhile, posix_fallocate() fails as a whole: try
    // again.
    int error = ENOSPC;
    for (int tries = 0; error == ENOSPC && tries < 100; ++tries) error = SetBallast(fd, bytes);
    close(fd);
    return error == 0 ? Ok() : Failed(strerror(error));
}

Reply FreeAll() {
    if (unlink(kBallast) == 0 || errno == ENOENT) return Ok();
    return Failed(std::string("cannot remove ") + kBallast + ": " + strerror(errno));
}

constexpr std::array<std::string_view, 11> kFigures = {
    "delivered", "decoded",    "missing",  "files",  "captures", "marked",
    "recycled",  "exceptions", "restarts", "stalls", "drops"};

bool IsOperator(std::string_view word) {
    constexpr std::array<std::string_view, 6> kOperators = {"=", "!=", "<", "<=", ">", ">="};
    return std::find(kOperators.begin(), kOperators.end(), word) != kOperators.end();
}

}  // namespace

std::span<const std::string_view> Figures() { return kFigures; }

Later MakeLater(const Console& console, Words words) {
    Later later = {0ms, Command::kEvent, Refuse("")};
    if (words.size() < 3) {
        later.order = Refuse("no COMMAND");
        return later;
    }
    const auto delay = Duration(words[1]);
    if (!delay) {
        later.order = Refuse("TIME is not a time such as 500ms, 5s or 2m: " + words[1]);
        return later;
    }
    if (words[2] == "after" || words[2] == "expect" || words[2] == "storage") {
        later.order = Refuse(words[2] + " cannot stand after a time");
        return later;
    }
    later.delay = *delay;
    if (const Command* const command = FindCommand(words[2])) later.kind = command->kind;
    later.order = MakeOrder(console, words.subspan(2));
    return later;
}

Order AfterOrder(const Console& console, Words words) {
    Later later = MakeLater(console, words);
    if (!later.order.ok()) return Refuse(later.order.refusal);
    return Do([delay = later.delay, act = std::move(later.order.act)] {
        if (Schedule::Instance().Add(delay, "after", act)) return Ok();
        return Failed("too many commands are waiting already");
    });
}

Order ClientOrder(const Console&, Words words) {
    std::string request;
    for (const std::string& word : words.subspan(1)) request += (request.empty() ? "" : " ") + word;
    if (request.empty() || request.size() >= quarn::protocol::kMaxRequest) {
        return Refuse("a request has 1 to " + std::to_string(quarn::protocol::kMaxRequest - 1) +
                      " bytes");
    }
    return Do([request] { return Ask(request); });
}

Order ClockOrder(const Console& console, Words words) {
    const std::string_view word = words[1];
    const auto by = word.starts_with('+') || word.starts_with('-')
                        ? Duration(word.substr(1))
                        : std::optional<std::chrono::milliseconds>();
    if (!by) return Refuse("neither +TIME nor -TIME, such as +1d or -90s: " + words[1]);
    return Do([step = word[0] == '-' ? -*by : *by, folder = console.folder()] {
        StepClock(step, folder);
        return Ok();
    });
}

Order FreeSpaceOrder(const Console&, Words words) {
    if (words[1] == "all") return Do(FreeAll);
    const auto bytes = Number(words[1], kLargestStorage);
    if (!bytes) return BadNumber("BYTES", words[1], kLargestStorage);
    return Do([bytes] { return LeaveFree(*bytes); });
}

Order StorageOrder(const Console&, Words words) {
    const auto bytes = Number(words[1], kLargestStorage);
    if (!bytes || *bytes == 0) return BadNumber("BYTES", words[1], kLargestStorage);
    return Do([] { return Ok(); });
}

Order EndOrder(const Console&, Words) {
    return Do([] {
        Modem::Instance().EndScenario();
        return Ok();
    });
}

Order ExpectOrder(const Console&, Words words) {
    const bool log = words[1] == "log";
    if (words.size() != (log ? 5u : 4u)) {
        return Refuse("use: expect FIGURE OPERATOR NUMBER | expect log TEXT OPERATOR NUMBER");
    }
    if (log && words[2].empty()) return Refuse("TEXT is empty, and every line contains it");
    if (!log && std::find(kFigures.begin(), kFigures.end(), words[1]) == kFigures.end()) {
        return Refuse("no such figure: " + words[1]);
    }
    if (!IsOperator(words[words.size() - 2])) {
        return Refuse("not = != < <= > or >=: " + words[words.size() - 2]);
    }
    if (!Number(words.back(), INT64_MAX)) return BadNumber("NUMBER", words.back(), INT64_MAX);
    return Do([] { return Ok(); });
}

}  // namespace sim
