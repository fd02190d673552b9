// Makes everything that may happen to a running daemon happen at once, in threads of its own. A
// seed decides what happens.
#pragma once

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <regex>
#include <thread>
#include <vector>

#include "storage/log_names.h"
#include "tests/soak/account.h"
#include "tests/soak/phone.h"

namespace soak {

using std::chrono::milliseconds;

inline constexpr uint64_t kMuchBacklog = 16 << 20;

inline const std::string kFiller = kTree + "/filler";

// Lines, separated by ";". "#A-B" stands for a number from A to B, and "$A-B" for a number of
// random bytes from A to B, in hexadecimal.
inline constexpr std::string_view kPhoneLines =
    "rate 0;rate 0;rate 60M;rate 8M;rate 1M;log_mode 1;log_mode 1;log_mode 1;log_mode 1;"
    "log_mode #0-2;exception;watermark #1-2000000;limit 0;limit #1-99999;"
    "at \"\\r\\nERROR\\r\\n\" 1;at noise #1-2;sprinkle #0-5 #0-1000;sprinkle 0;"
    "fail read EAGAIN #1-12;fail read EBADF #1-12;fail read EINTR #1-12;fail read EIO #1-3;"
    "fail read ENODEV #1-12;fail read 71 #1-3;fail read zero #1-12;fail poll timeout #1-4;"
    "fail poll failure #1-2;fail open #1-2;fail write #1-12;ipc any message #1-2;"
    "ipc any value #1-2;ipc any cause 3 #1-2;ipc any silence 50 #1-2;ipc any silence 0 1;"
    "ipc any delay 80 #1-2;ipc any result 5 #1-2;ipc any no_result 1;ipc any no_answer 1;"
    "ipc any answer #0-9 1;ipc any no_length #1-9;uevent noise #0-2048 #0-1000;"
    "uevent add vqmi wwanD0MIPC0;uevent add vqmi wwanD0MDLog;uevent remove vqmi wwanD0MDLogs;"
    "uevent remove tty wwanD0MDLog;md_state #0-6";
// The daemon copies records out of the payloads of 1, 3, 6 and 9. A modem never sends shorter ones.
inline constexpr std::string_view kNotifications =
    "notify #0-12;notify #0-12;notify #10-2147483647 null;notify #10-2147483647 $300-300;"
    "notify 1 $220-600;notify 3 $220-600;notify 6 $220-600;notify 9 $220-600;"
    "notify 1 null;notify 3 null;notify 6 null;notify 2 $1-1;notify 4 $9-9;notify 5 $70-70;"
    "notify 7 $2-2;notify 8 null;notify 8 $4-4;notify 9 null";
inline constexpr std::string_view kHostLines = "host error;host message #4-99;host message 2";
inline constexpr std::string_view kRequests =
    "log_mode;log_mode 1;log_mode 1;log_mode #0-3;log_level;log_level #0-7;log_filter;"
    "log_filter /data/filter;log_filter /data/none;flush_interval;flush_interval #0-500;"
    "flush_status;trigger_flush;flush_ring_buf;flush_log_buffer;flush_log_buffer 1;"
    "transfer_type;transfer_type #0-2;file_size;file_size=#0-3;recycle_size;"
    "recycle_size #64-96;recycle_ee;recycle_ee,#0-1;recycle_keep_ee_size;"
    "recycle_keep_ee_size #0-4;log_folder;log_folder /data/no;"
    "log_folder /data/vendor/radio/quarn/logs;"
    "log_folder /data/vendor/radio/quarn/logs/run#1-3;copy_log_file;"
    "copy_log_file /data/none 1 0;nothing of ours;";

inline std::string Filled(Dice& dice, std::string text) {
    static const std::regex kMark("([#$])(\\d+)-(\\d+)");
    for (std::smatch mark; std::regex_search(text, mark, kMark);) {
        const uint64_t from = std::stoull(mark[2]);
        const uint64_t value = from + dice.Below(std::stoull(mark[3]) - from + 1);
        std::string filled;
        if (mark[1] == "#") {
            filled = std::to_string(value);
        } else {
            while (filled.size() < 2 * value) filled += "0123456789abcdef"[dice.Below(16)];
        }
        text = mark.prefix().str() + filled + mark.suffix().str();
    }
    return text;
}

// Returns one of the lines, with numbers and bytes filled in.
inline std::string Drawn(Dice& dice, std::string_view lines) {
    const auto marks = std::count(lines.begin(), lines.end(), ';');
    for (auto skip = dice.Below(1 + static_cast<uint64_t>(marks)); skip > 0; --skip) {
        lines.remove_prefix(lines.find(';') + 1);
    }
    return Filled(dice, std::string(lines.substr(0, lines.find(';'))));
}

// Counted when a subscriber gets the notification.
inline constexpr const char* kRemovalsTold = "removals of the log device that a subscriber got";

class Trouble {
  public:
    Trouble(Phone& on, Account& books, Report& out, uint64_t seed)
        : phone(on), account(books), report(out) {
        uint64_t number = 0;
        for (const auto act :
             {&Trouble::SteerThePhone, &Trouble::FillTheDisk, &Trouble::SendRequests,
              &Trouble::SendRequests, &Trouble::Copy, &Trouble::Subscribe, &Trouble::ClearLogs}) {
            threads.emplace_back(act, this, Dice(seed * 16 + ++number));
        }
    }
    ~Trouble() {
        stopping = true;
        for (std::thread& thread : threads) thread.join();
    }

    Trouble(const Trouble&) = delete;
    Trouble& operator=(const Trouble&) = delete;

    // From now on the daemon may close connections, and the phone may be gone.
    void ExpectTheEnd() { ending = true; }

  private:
    // Slows the stream down while much of it waits for verification.
    void SteerThePhone(Dice dice) {
        bool slow = false;
        bool connected = false;
        for (; !stopping; Pause(dice, 150)) {
            const bool much = account.backlog() > (slow ? kMuchBacklog / 4 : kMuchBacklog);
            std::string line = Drawn(dice, kPhoneLines);
            if (much != slow) {
                slow = much;
                line = slow ? "rate 500k" : "rate 0";
            } else if (slow && line.starts_with("rate")) {
                continue;
            } else if (dice.OneIn(30)) {
                // Some of them keep the daemon busy for seconds.
                if (phone.Get("notifications_waiting") != "0") continue;
                line = Drawn(dice, kNotifications);
            } else if (dice.OneIn(connected ? 5 : 40)) {
                line = connected ? "host disconnect" : "host connect";
                connected = !connected;
            } else if (dice.OneIn(30)) {
                line = Drawn(dice, kHostLines);
            }
            report.Note("phone: " + line.substr(0, 60));
            phone.Console(line);
            if (line == "log_mode 0" || line == "log_mode 2") phone.Console("log_mode 1");
            report.Add("times the phone had: " + line.substr(0, line.find(' ')));
        }
        if (connected) phone.Console("host disconnect");
    }

    void FillTheDisk(Dice dice) {
        while (!stopping) {
            Pause(dice, 8000);
            struct statvfs disk = {};
            const int fd = open(kFiller.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (statvfs(kTree.c_str(), &disk) == 0) {
                const uint64_t left = disk.f_bavail * disk.f_frsize;
                const uint64_t take = left - std::min<uint64_t>(left, dice.Below(3'000'000));
                report.Note("the disk is full but for " + std::to_string(left - take));
                if (take != 0) report.Add("full disks");
                (void)!posix_fallocate(fd, 0, static_cast<off_t>(take));
            }
            close(fd);
            Pause(dice, 1000);
            unlink(kFiller.c_str());
            report.Note("the disk has room");
        }
    }

    void SendRequests(Dice dice) {
        std::optional<test::Client> client;
        for (; !stopping; Pause(dice, 120)) {
            if (!client) {
                client.emplace(protocol::kCommandSocket, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                               kReplyPatience);
            }
            const std::string request = Drawn(dice, kRequests);
            if (dice.OneIn(12)) {
                std::string bytes(1 + dice.Below(400), '\0');
                for (char& byte : bytes) byte = static_cast<char>(dice.Below(256));
                if (dice.OneIn(2)) bytes.insert(0, request);
                // Excludes an exit, and a folder whose name contains a line break: the account
                // reads the log by lines.
                for (const char* word : {"transfer_type", "log_folder"}) {
                    if (bytes.starts_with(word)) bytes[0] = '#';
                }
                client->Send(bytes);
                report.Add("pieces of garbage");
                Pause(dice, 50);
                client.reset();
                continue;
            }
            report.Note("ask " + request);
            const std::string text = phone.Ask(request, *client);
            const bool ok = text == "ok" || text.starts_with("ok,");
            const bool closed = text == test::Client::kClosed;
            report.Add(ok ? "requests answered ok" : "requests not answered ok");
            if (closed && !ending) report.Fault("closed without a reply to " + request);
            if (!closed && !ok && text != "error") {
                report.Fault("reply to " + request + ": " + text);
            }
            if (closed || dice.OneIn(10)) client.reset();
            if (ending) return;
        }
    }

    void Copy(Dice dice) {
        const std::string folder = "/data/copy";
        for (; !stopping && !ending; Pause(dice, 1500)) {
            fs::create_directories(folder);
            const auto reply = phone.Ask(Filled(dice, "copy_log_file " + folder + " #1-12 #0-1"));
            if (reply.starts_with("ok,")) {
                report.Add("copies");
                // Checks each file alone, because ClearLogs may have deleted files between them.
                const std::string check = "find " + folder +
                                          " -name '*.muxz*' -print0 | xargs -0 -r -n 1 " +
                                          MUXZ_PROGRAM " verify >/data/verify 2>&1";
                // ClearLogs may have deleted all files.
                std::error_code gone;
                const bool empty =
                    test::TreeSize(folder) == fs::file_size(folder + "/copied_folder_list", gone);
                if (!empty && system(check.c_str()) != 0) {
                    report.Fault("a copy does not verify:\n" + test::ReadFile("/data/verify"));
                    fs::rename(folder, folder + "." + std::to_string(report.faults));
                }
            }
            fs::remove_all(folder);
        }
    }

    void Subscribe(Dice dice) {
        const test::Subscriber deaf;
        const test::Client listener(protocol::kNotifySocket, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                    milliseconds(100));
        std::vector<std::unique_ptr<test::Subscriber>> others;
        std::string heard;
        while (!stopping) {
            const std::string piece = listener.ReceiveSome(256);
            if (piece.empty()) {
                if (!ending) report.Fault("the daemon closed a subscriber's connection");
                return;
            }
            if (piece != test::Client::kLate) heard += piece;
            for (size_t end; (end = heard.find('\0')) != std::string::npos;
                 heard.erase(0, end + 1)) {
                const std::string text = heard.substr(0, end);
                report.Add(text == protocol::kReboot ? kRemovalsTold
                                                     : "notifications that a subscriber got");
                if (!text.starts_with("cb_")) report.Fault("a subscriber got: " + text);
            }
            if (dice.OneIn(4) && others.size() < 6) {
                others.push_back(std::make_unique<test::Subscriber>());
                report.Add("subscribers");
            } else if (dice.OneIn(4) && !others.empty()) {
                others.erase(others.begin() + static_cast<ptrdiff_t>(dice.Below(others.size())));
            }
        }
    }

    // Deletes the running capture's newest file or its folder.
    void ClearLogs(Dice dice) {
        for (; !stopping; Pause(dice, 1500)) {
            const bool whole = dice.OneIn(2);
            std::error_code gone;
            for (fs::recursive_directory_iterator entry(kLogs, gone), end; !gone && entry != end;
                 entry.increment(gone)) {
                const std::string folder = entry->path().filename();
                const auto name = quarn::log_names::ParseFolder(folder);
                // Leaves the folders of earlier processes alone, and a folder of this second: the
                // next capture would get the same name.
                if (!name || !quarn::log_names::IsUnfinished(folder) || name->time < started ||
                    name->time >= TimeText(time(nullptr) - 1)) {
                    continue;
                }
                report.Note((whole ? "delete " : "delete the file of ") + folder);
                for (const std::string& file : test::List(entry->path())) {
                    if (whole || file.ends_with(".tmp")) account.Delete(entry->path() / file);
                }
                if (whole && rmdir(entry->path().c_str()) == 0) report.Add("folders deleted");
                break;
            }
        }
    }

    static std::string TimeText(time_t time) {
        char text[32];
        strftime(text, sizeof(text), quarn::log_names::kTimeFormat, localtime(&time));
        return text;
    }

    void Pause(Dice& dice, uint64_t most_ms) const {
        test::WaitUntil([this] { return stopping.load(); }, milliseconds(dice.Below(most_ms + 1)));
    }

    Phone& phone;
    Account& account;
    Report& report;
    const std::string started = TimeText(time(nullptr));
    std::atomic<bool> stopping = false;
    std::atomic<bool> ending = false;
    std::vector<std::thread> threads;
};

}  // namespace soak
