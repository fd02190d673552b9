#include "watch.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "commands.h"
#include "connection.h"
#include "control/protocol.h"
#include "exit_status.h"
#include "json.h"
#include "now.h"

namespace quarnctl {

namespace {

namespace protocol = quarn::protocol;
using std::chrono::milliseconds;
using std::chrono::seconds;

class Watcher {
  public:
    explicit Watcher(const WatchOptions& watch_options)
        : options(watch_options), deadline(watch_options.limit) {}

    int Run() {
        while (true) {
            const Descriptor fd = Connect(protocol::kNotifySocket, AcceptPatience());
            if (fd.get() < 0) {
                Tell("waiting", "waiting for the daemon");
            } else if (Follow(fd.get())) {
                return kOk;
            }
            if (deadline.Passed())
                return Complain(kUnreachable, "the notification did not come in time");
            std::this_thread::sleep_for(kRetryPause);
        }
    }

  private:
    static constexpr milliseconds kRetryPause{500};
    static constexpr seconds kAcceptPatience{30};
    static constexpr size_t kMaxNotification = 4096;

    // Returns how long to wait until the daemon accepts the connection: whole seconds, at least 1.
    seconds AcceptPatience() const {
        const int left = deadline.Left();  // ms
        return left < 0 ? kAcceptPatience : std::min(kAcceptPatience, seconds(left / 1000 + 1));
    }

    // Prints a change of the connection, each change once. Text goes to standard error, so that it
    // is apart from the notifications. JSON goes to standard output, so that scripts see it too.
    void Tell(const char* event, const char* text) {
        if (told == text) return;
        told = text;
        if (options.json) {
            puts(JsonObject()
                     .Add("time", JsonString(Now(true)))
                     .Add("event", JsonString(event))
                     .Text()
                     .c_str());
        } else {
            fprintf(stderr, "%s %s\n", Now(false).c_str(), text);
        }
    }

    // Prints notifications until the daemon hangs up or the time is over. Returns true if the watch
    // has reached its end. If the daemon has its maximum of subscribers, it accepts a connection
    // and hangs up at once. So this function reports a connection only after kRetryPause.
    bool Follow(int fd) {
        pollfd poll_fd = {fd, POLLIN, 0};
        bool served = poll(&poll_fd, 1, static_cast<int>(kRetryPause.count())) == 0;
        if (served) Tell("connected", "connected");
        std::string pending;
        std::array<char, 512> piece;
        while (true) {
            if (!WaitReadable(fd, deadline)) return false;
            const ssize_t n = recv(fd, piece.data(), piece.size(), 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            served = true;
            Tell("connected", "connected");
            pending.append(piece.data(), static_cast<size_t>(n));
            for (size_t end; (end = pending.find('\0')) != std::string::npos;) {
                if (Notified(pending.substr(0, end))) return true;
                pending.erase(0, end + 1);
            }
            if (pending.size() > kMaxNotification) pending.clear();
        }
        if (served) {
            Tell("disconnected", "the daemon went away");
        } else {
            Tell("refused",
                 "the daemon hung up at once: it is ending, or has ten subscribers already");
        }
        return false;
    }

    // Prints one notification. Returns true if it ends the watch, or if it could not be printed.
    bool Notified(const std::string& text) {
        const size_t comma = std::min(text.find(','), text.size());
        const std::string word = text.substr(0, comma);
        const std::string value = text.substr(std::min(comma + 1, text.size()));
        std::string name;
        if (word == protocol::kLogModeChanged) name = NameOf(protocol::kLogModes, value);
        if (word == protocol::kTransferTypeChanged) name = NameOf(protocol::kTransferTypes, value);
        if (options.json) {
            JsonObject event;
            event.Add("time", JsonString(Now(true))).Add("event", JsonString(word));
            if (comma < text.size()) event.Add("value", JsonValue(value));
            if (!name.empty()) event.Add("name", JsonString(name));
            puts(event.Text().c_str());
        } else {
            if (word == protocol::kReboot) name = "the modem rebooted, the daemon restarts";
            printf("%s %s%s%s\n", Now(false).c_str(), text.c_str(), name.empty() ? "" : "  ",
                   name.c_str());
        }
        if (ferror(stdout) != 0) return true;
        ++notifications;
        const bool found = !options.until.empty() && text.find(options.until) != std::string::npos;
        return found || (options.count > 0 && notifications >= options.count);
    }

    const WatchOptions& options;
    const Deadline deadline;
    std::string told;
    int32_t notifications = 0;
};

}  // namespace

int Watch(const WatchOptions& options) { return Watcher(options).Run(); }

}  // namespace quarnctl
