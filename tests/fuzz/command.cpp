// Fuzz target: one request of a client. Whatever the request contains, the daemon carries it out or
// refuses it, and sends one complete reply.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "control/protocol.h"
#include "control/quarn_command.h"
#include "core/quarn.h"
#include "fuzz.h"
#include "platform/mcl.h"

namespace fs = std::filesystem;

namespace {

const std::string kLogs = "/data/vendor/radio/quarn/logs/";

// Removes what requests left behind, because it would slow down later requests.
void TidyUp() {
    g_file_io.set_log_folder(kLogs);
    for (const char* folder : {"/data/vendor/radio/quarn/logs", "/data/copies"}) {
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (entry.path() != g_file_io.get_latest_folder_path()) fs::remove_all(entry.path());
        }
    }
}

}  // namespace

void fuzz::SetUp() {
    StartPhone();
    mcl_closeLogPort();  // no thread reads it here; a modem that stops logging would wait for a
                         // reader
    fs::create_directories("/data/copies");
    fs::current_path("/data/copies");
    quarn_runHandleExec(HANDLE_LOG_FILTER_MANAGER, EXEC_MD_LOG_START, nullptr);
    Check(g_file_io.io_open() == 0, "there is a capture");
    const std::string bytes(1000, 'x');
    Check(g_file_io.io_write(bytes.data(), static_cast<int>(bytes.size())) == 1000,
          "it is written");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view request = fuzz::Text(data, size);
    if (fuzz::LeavesBox(request)) return -1;

    std::array<int, 2> ends;
    fuzz::Check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "a pair of sockets");
    const auto [client, daemon] = ends;
    fuzz::Check(send(client, data, size, 0) == static_cast<ssize_t>(size), "the request fits");
    shutdown(client, SHUT_WR);  // so that the daemon does not wait for more bytes
    const int rc = quarn_ctrlConnCallback(daemon);
    close(daemon);

    std::array<char, 2 * quarn::protocol::kReplySize> reply;
    const ssize_t received = recv(client, reply.data(), reply.size(), 0);
    close(client);
    if (rc == 0) {
        const std::string_view text = reply.data();
        fuzz::Check(received == ssize_t{quarn::protocol::kReplySize}, "the reply is one block");
        fuzz::Check(reply[quarn::protocol::kReplySize - 1] == '\0', "the reply ends");
        fuzz::Check(text == "error" || text.starts_with("ok"), "the reply says ok or error");
    } else {
        fuzz::Check(received <= 0, "a request that is not served gets no reply");
    }

    g_quarn.is_close = false;  // some requests end the daemon
    static int runs = 0;
    if (++runs % 256 == 0) TidyUp();
    return 0;
}
