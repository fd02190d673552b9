#include "tests/soak/trouble.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>

namespace fs = std::filesystem;

namespace soak {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// An exchange with the modem may last 5 s, a notification that comes first some seconds; several
// of each may come before a request.
constexpr seconds kReplyLimit(90);
constexpr uint64_t kMuchBacklog = 24 << 20;

const std::string kFiller = kTree + "/filler";

std::string Hex(Dice& dice, size_t bytes) {
    std::string text;
    for (size_t i = 0; i < 2 * bytes; ++i) text += "0123456789abcdef"[dice.Below(16)];
    return text;
}

std::string Notification(Dice& dice) {
    // Records are copied out of payloads, so a modem never sends short ones with these codes.
    static const std::string kWithRecord[] = {"1", "3", "6", "9"};
    static const std::string kOthers[] = {"0", "2", "4", "5", "7", "8", "10", "77", "2147483647"};
    switch (dice.Below(4)) {
        case 0:
            return "notify " + dice.Of(kWithRecord) + " " + Hex(dice, 300 + dice.Below(300));
        case 1:
            return "notify " + dice.Of(kOthers) + " " + Hex(dice, 4 + dice.Below(600));
        case 2:
            return "notify " + dice.Of(kOthers) + " null";
        default:
            return "notify " + dice.Number(0, 12);
    }
}

std::string IpcFault(Dice& dice) {
    static const std::string kFaults[] = {"message",  "value",     "cause 3",   "silence 50",
                                          "delay 80", "result 5",  "no_result", "no_answer",
                                          "answer 7", "answer -1", "silence 0"};
    return "ipc any " + dice.Of(kFaults) + " " + dice.Number(1, 2);
}

std::string PortFault(Dice& dice) {
    static const std::string kErrors[] = {"EAGAIN", "EBADF", "EINTR", "EIO",
                                          "ENODEV", "zero",  "71"};
    switch (dice.Below(6)) {
        case 0:
            return "sprinkle " + dice.Number(0, 5) + " " + dice.Number(0, 1000);
        case 1:
            return "fail read " + dice.Of(kErrors) + " " + dice.Number(1, 12);
        case 2:
            return std::string("fail poll ") + (dice.OneIn(2) ? "timeout " : "failure ") +
                   dice.Number(1, 4);
        case 3:
            return "fail open " + dice.Number(1, 2);
        case 4:
            return "fail write " + dice.Number(1, 12);
        default:
            return "limit " + dice.Number(0, 1) + dice.Number(0, 99999);
    }
}

std::string Command(Dice& dice) {
    static const std::string kQueries[] = {
        "log_mode",   "log_level",     "flush_interval", "flush_status",   "transfer_type",
        "file_size",  "recycle_size",  "recycle_ee",     "log_folder",     "recycle_keep_ee_size",
        "log_filter", "copy_log_file", "trigger_flush",  "flush_ring_buf", "flush_log_buffer"};
    static const std::string kFolders[] = {kLogs, kLogs + "/run1", kLogs + "/run2", "/data/no"};
    switch (dice.Below(14)) {
        case 0:
            return "log_mode " + dice.Number(0, dice.OneIn(4) ? 3 : 1);
        case 1:
            return "log_level " + dice.Number(0, 7);
        case 2:
            return std::string("log_filter ") + (dice.OneIn(2) ? "/data/filter" : "/data/none");
        case 3:
            return "flush_interval " + dice.Number(0, 500);
        case 4:
            return "file_size=" + dice.Number(0, 3);
        case 5:
            return "recycle_size " + dice.Number(32, 96);
        case 6:
            return "recycle_ee," + dice.Number(0, 1);
        case 7:
            return "recycle_keep_ee_size " + dice.Number(0, 4);
        case 8:
            return "log_folder " + dice.Of(kFolders);
        case 9:
            return "transfer_type " + dice.Number(0, 2);
        default:
            return dice.Of(kQueries);
    }
}

}  // namespace

std::optional<std::string> Ask(Phone& phone, Report& report, const std::string& request) {
    const Client client(kCommandSocket);
    bool hangs = false;
    std::optional<std::string> text;
    if (client.fd() != -1 && client.Send(request + '\0')) text = client.Reply(kReplyLimit, &hangs);
    report.Note(request + ": " + text.value_or("nothing"));
    if (hangs) report.Fault("no reply to " + request + "\n" + phone.Stacks());
    return text;
}

Trouble::Trouble(Phone& on, const Account& books, Report& out, Counts& sums, uint64_t seed)
    : phone(on), account(books), report(out), counts(sums) {
    using Act = void (Trouble::*)(Dice);
    uint64_t number = 0;
    for (const Act act : {&Trouble::SteerThePhone, &Trouble::FillTheDisk, &Trouble::SendRequests,
                          &Trouble::SendRequests, &Trouble::Copy, &Trouble::Subscribe}) {
        threads.emplace_back(act, this, Dice(seed * 16 + ++number));
    }
}

void Trouble::Stop() {
    stopping = true;
    for (std::thread& thread : threads) thread.join();
    threads.clear();
}

void Trouble::Pause(Dice& dice, uint64_t most_ms) const {
    for (uint64_t left = dice.Below(most_ms + 1); left > 0 && !stopping;) {
        const uint64_t step = std::min<uint64_t>(left, 50);
        std::this_thread::sleep_for(milliseconds(step));
        left -= step;
    }
}

void Trouble::SteerThePhone(Dice dice) {
    static const std::string kRates[] = {"0", "0", "0", "60M", "8M", "1M"};
    std::string rate = "0";
    bool slow = false;
    while (!stopping) {
        // Never so fast that files go before they were looked at.
        const bool too_fast = account.backlog() > (slow ? kMuchBacklog / 4 : kMuchBacklog);
        std::string line;
        if (too_fast != slow) {
            slow = too_fast;
            line = "rate " + (slow ? "500k" : rate);
        } else {
            switch (dice.Below(24)) {
                case 0:
                    rate = dice.Of(kRates);
                    if (!slow) line = "rate " + rate;
                    break;
                case 1:
                    line = "log_mode " + dice.Number(0, 2);
                    break;
                case 2:
                    line = "exception";
                    ++counts.exceptions;
                    break;
                case 3:
                    line = IpcFault(dice);
                    ++counts.faults;
                    break;
                case 4:
                    line = PortFault(dice);
                    ++counts.faults;
                    break;
                case 5:
                    line = "at \"" + std::string(dice.OneIn(2) ? "\\r\\nERROR\\r\\n" : "noise") +
                           "\" 1";
                    break;
                case 6:
                    line = "watermark " + dice.Number(1, 2'000'000);
                    break;
                case 7:
                case 8:
                    // Some of them keep the daemon for seconds.
                    if (const auto state = phone.Console("state");
                        state && state->find(" handled, 0 waiting") != std::string::npos) {
                        line = Notification(dice);
                        ++counts.notifications;
                    }
                    break;
                default:
                    line = dice.OneIn(3) ? "log_mode 1" : "";
            }
        }
        if (!line.empty()) {
            report.Note("phone: " + line.substr(0, 60));
            phone.Console(line);
        }
        Pause(dice, 100);
    }
}

void Trouble::FillTheDisk(Dice dice) {
    while (!stopping) {
        Pause(dice, 4000);
        struct statvfs disk = {};
        const int fd = open(kFiller.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (statvfs(kTree.c_str(), &disk) == 0) {
            const uint64_t left = disk.f_bavail * disk.f_frsize;
            const uint64_t take = left - std::min<uint64_t>(left, dice.Below(3'000'000));
            report.Note("the disk is full but for " + std::to_string(left - take));
            if (take != 0) ++counts.full_disks;
            (void)!posix_fallocate(fd, 0, static_cast<off_t>(take));
        }
        close(fd);
        Pause(dice, 1500);
        unlink(kFiller.c_str());
        report.Note("the disk has room");
    }
}

void Trouble::SendGarbage(Dice& dice, const Client& client) {
    std::string bytes(1 + dice.Below(400), '\0');
    for (char& byte : bytes) byte = static_cast<char>(dice.Below(256));
    if (dice.OneIn(2)) bytes.insert(0, Command(dice));
    if (bytes.starts_with("transfer_type")) bytes[0] = 'T';
    client.Send(bytes);
    ++counts.garbage;
    Pause(dice, 50);
}

void Trouble::SendRequests(Dice dice) {
    std::unique_ptr<Client> client;
    for (; !stopping; Pause(dice, 120)) {
        if (!client) client = std::make_unique<Client>(kCommandSocket);
        const std::string request = Command(dice);
        if (dice.OneIn(12)) {
            SendGarbage(dice, *client);
            client.reset();
            continue;
        }
        bool hangs = false;
        report.Note("ask " + request);
        std::optional<std::string> text;
        if (client->Send(request + '\0')) text = client->Reply(kReplyLimit, &hangs);
        ++counts.requests;
        if (text && (*text == "ok" || text->starts_with("ok,"))) {
            ++counts.answered_ok;
        } else if (hangs) {
            report.Fault("no reply to " + request + "\n" + phone.Stacks());
        } else if (!text && !ending) {
            report.Fault("let go without a reply to " + request);
        } else if (text && *text != "error") {
            report.Fault("reply to " + request + ": " + *text);
        }
        if (!text || dice.OneIn(10)) client.reset();
        if (ending) return;
    }
}

void Trouble::Copy(Dice dice) {
    const std::string folder = "/data/copy";
    for (; !stopping && !ending; Pause(dice, 1500)) {
        fs::create_directories(folder);
        const auto reply =
            Ask(phone, report,
                "copy_log_file " + folder + " " + dice.Number(1, 12) + " " + dice.Number(0, 1));
        if (reply && reply->starts_with("ok,")) {
            ++counts.copies;
            const std::string check = MUXZ_PROGRAM " verify " + folder + " >/data/verify 2>&1";
            if (system(check.c_str()) != 0) {
                std::ifstream out("/data/verify");
                report.Fault("a copy does not verify:\n" +
                             std::string(std::istreambuf_iterator<char>(out), {}));
                fs::rename(folder, folder + "." + std::to_string(report.faults()));
            }
        }
        fs::remove_all(folder);
    }
}

void Trouble::Subscribe(Dice dice) {
    const Client deaf(kNotifySocket);
    const Client listener(kNotifySocket);
    const timeval patience = {0, 100'000};
    setsockopt(listener.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    std::vector<std::unique_ptr<Client>> others;
    std::string heard;
    while (!stopping) {
        char piece[256];
        const ssize_t got = recv(listener.fd(), piece, sizeof(piece), 0);
        if (got > 0) heard.append(piece, static_cast<size_t>(got));
        for (size_t end; (end = heard.find('\0')) != std::string::npos; heard.erase(0, end + 1)) {
            const std::string text = heard.substr(0, end);
            ++counts.told;
            if (text == "cb_reboot") ++counts.reboots;
            if (!text.starts_with("cb_")) report.Fault("a subscriber is told: " + text);
        }
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
            if (!ending) report.Fault("a subscriber was let go");
            return;
        }
        if (dice.OneIn(4) && others.size() < 6) {
            others.push_back(std::make_unique<Client>(kNotifySocket));
            ++counts.subscribers;
        } else if (dice.OneIn(4) && !others.empty()) {
            others.erase(others.begin() + static_cast<ptrdiff_t>(dice.Below(others.size())));
        }
    }
}

}  // namespace soak
