// Fuzz target: the configuration file. The daemon loads any text. After any sequence of requests, a
// load of the saved file gives the settings that the requests made.
//
//   input = text of the file "%%" newline (request NUL)*
#include <android/log.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

#include "control/protocol.h"
#include "control/quarn_command.h"
#include "core/quarn.h"
#include "core/quarn_config.h"
#include "core/setting_table.h"
#include "core/utility.h"
#include "fuzz.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kMark = "%%\n";
constexpr unsigned int kMaxRecycleSize = 4194303;
constexpr int kDefaultFlushInterval = 600000;
const std::string kLogs = "/data/vendor/radio/quarn/logs";

std::atomic<bool> save_failed{false};

void HearOfFailedSaves(const __android_logger_data*, const char* message) {
    if (strcmp(message, "command_handler: Save configuration failed\n") == 0) save_failed = true;
}

std::string ReadConfig() {
    std::ostringstream text;
    text << std::ifstream(kConfigPath, std::ios::binary).rdbuf();
    return std::move(text).str();
}

unsigned int RecycleOption(QUARN_RECYCLE_OPT option) {
    unsigned int value = 0;
    fuzz::Check(g_file_io.get_recycle_option(option, &value) == 0, "an option can be asked");
    return value;
}

// Loads the configuration file and checks the settings, whether or not the load refused the file.
int Load(int log_mode_only) {
    const int rc = quarn_loadConfig(kConfigPath, log_mode_only);
    const int file_size = g_file_io.get_file_size();
    fuzz::Check(file_size >= 1 && file_size <= 4095, "a file size in range");
    const unsigned int recycle_size = RecycleOption(RECYCLE_OPT_SIZE);
    fuzz::Check(recycle_size >= 1 && recycle_size <= kMaxRecycleSize, "a budget in range");
    fuzz::Check(RecycleOption(RECYCLE_OPT_KEEP_EE_SIZE) <= kMaxRecycleSize, "what to keep, too");
    std::string folder = g_file_io.get_log_folder() + "/";
    const auto end = std::unique(folder.begin(), folder.end(),
                                 [](char a, char b) { return a == '/' && b == '/'; });
    folder.erase(end, folder.end());
    fuzz::Check(folder.starts_with(kLogs + "/"), "a log folder in its place");
    return rc;
}

// --- requests ---

// Sends a request and returns the reply. Returns an empty string if there is no reply.
std::string Ask(const std::string& request) {
    std::array<int, 2> ends;
    fuzz::Check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "a pair of sockets");
    const auto [client, daemon] = ends;
    const ssize_t size = static_cast<ssize_t>(request.size());
    fuzz::Check(send(client, request.data(), request.size(), 0) == size, "the request fits");
    shutdown(client, SHUT_WR);
    std::array<char, quarn::protocol::kReplySize + 1> reply{};
    if (quarn_ctrlConnCallback(daemon) == 0) recv(client, reply.data(), reply.size() - 1, 0);
    close(daemon);
    close(client);
    return reply.data();
}

// The saved value of each key, as the client sent it.
using Kept = std::map<std::string, std::string>;

// Returns true if the daemon must save the value. A value with "_" may contain a key, since every
// key has a "_".
bool IsPlain(const std::string& key, const std::string& value) {
    if (key == "log_folder" || key == "log_filter") {
        return std::all_of(value.begin(), value.end(),
                           [](char c) { return c > ' ' && c < 0x7f && c != '_'; });
    }
    return value == std::to_string(atoi(value.c_str()));
}

void Note(const std::string& request, const std::string& reply, Kept& kept) {
    const auto& settings = quarn::zorvex::kSettings;
    const auto is_of = [&](const auto& setting) { return request.starts_with(setting.key); };
    const auto setting = std::find_if(settings.begin(), settings.end(), is_of);
    if (reply != "ok" || setting == settings.end()) return;
    const std::string key = setting->key;
    if (request.size() == key.size()) return;
    const std::string value = request.substr(key.size() + 1);
    if (save_failed) {
        fuzz::Check(!IsPlain(key, value), "a plain value is kept");
        return;
    }
    if (key == "transfer_type" && atoi(value.c_str()) == SAVE_MODE_EXIT) return;
    kept[key] = value;
    if (key == "log_level") kept.erase("log_filter");
    if (key == "log_filter") kept.erase("log_level");
}

// Checks that the file has a line for each saved key, and that a load puts each value in force.
void CheckFile(const Kept& kept) {
    const std::string text = ReadConfig();
    std::istringstream lines(text);
    Kept saved;
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        saved[line.substr(0, line.find(' '))] =
            line.substr(std::min(line.find(' '), line.size() - 1) + 1);
    }
    fuzz::Check(count == kept.size() && saved == kept, "the file has what was kept");
    fuzz::Check(text.empty() || text.size() <= quarn::zorvex::kMaxLoadSize, "all of it is read");
    if (kept.empty()) return;

    fuzz::Check(Load(0) == 0, "a load goes to its end");
    fuzz::Check(!g_quarn.is_close, "a load does not end the daemon");
    const auto number = [&](const char* key, int otherwise) {
        const auto found = kept.find(key);
        return found == kept.end() ? otherwise : atoi(found->second.c_str());
    };
    const auto is = [](long long loaded, long long wanted, const char* key) {
        if (loaded != wanted) fprintf(stderr, "%s: %lld instead of %lld\n", key, loaded, wanted);
        fuzz::Check(loaded == wanted, "each key has its last kept value");
    };
    is(g_quarn.transfer_type, number("transfer_type", SAVE_MODE_STORAGE), "transfer_type");
    is(g_file_io.get_file_size(), number("file_size", 50), "file_size");
    is(RecycleOption(RECYCLE_OPT_SIZE), number("recycle_size", 2500), "recycle_size");
    is(RecycleOption(RECYCLE_OPT_EE), number("recycle_ee", 1) != 0, "recycle_ee");
    is(RecycleOption(RECYCLE_OPT_KEEP_EE_SIZE), number("recycle_keep_ee_size", 0), "keep");
    is(static_cast<int>(g_quarn.flush_interval.load()),
       number("flush_interval", kDefaultFlushInterval), "flush_interval");
    int mode = -1, level = 0;
    fuzz::Check(quarn_mipcGetLogMode(&mode) == 0, "the log mode can be asked");
    is(mode, number("log_mode", 0), "log_mode");
    std::string filter;
    quarn::zorvex::ParseLogFilterConfig(text.c_str(), level, filter);
    is(level, number("log_level", -1), "log_level");
    const auto path = [&](const char* key) { return kept.count(key) != 0 ? kept.at(key) : ""; };
    fuzz::Check(filter == path("log_filter"), "the filter, too");
    if (kept.count("log_folder") != 0) {
        fuzz::Check(g_file_io.get_log_folder() == path("log_folder"), "and the folder");
    }
}

}  // namespace

void fuzz::SetUp() {
    StartPhone();
    __android_log_set_logger(HearOfFailedSaves);
    mcl_closeLogPort();  // no thread reads it here; a modem that stops logging would wait for a
                         // reader
    std::ofstream("/data/filter") << "filter";
    fs::create_directories("/data/copies");
    fs::current_path("/data/copies");
    std::ofstream(" f") << "filter";  // a load skips the space
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = fuzz::Text(data, size);
    if (fuzz::LeavesBox(input)) return -1;
    const size_t mark = input.find(kMark);
    std::ofstream(kConfigPath, std::ios::binary) << input.substr(0, mark);
    Load(0);
    Load(1);

    g_quarn.is_close = false;
    fs::remove(kConfigPath);
    Kept kept;
    std::string_view requests = input.substr(std::min(mark, input.size()));
    requests.remove_prefix(std::min(kMark.size(), requests.size()));
    while (!requests.empty()) {
        // The daemon reads at most kMaxRequest bytes at once.
        const size_t end =
            std::min({requests.find('\0'), requests.size(), quarn::protocol::kMaxRequest});
        const std::string request(requests.substr(0, end));
        requests.remove_prefix(std::min(end + 1, requests.size()));
        // The modem accepts a level or filter only while it logs.
        quarn_mipcSetLogMode(1);
        quarn_runHandleExec(HANDLE_LOG_FILTER_MANAGER, EXEC_MD_LOG_START, nullptr);
        save_failed = false;
        Note(request, Ask(request), kept);
        g_quarn.is_close = false;  // some requests end the daemon
        CheckFile(kept);
    }
    g_file_io.set_log_folder(kLogs);
    if (static int runs = 0; ++runs % 64 == 0) {
        fs::remove_all(kLogs);
        fs::create_directories(kLogs);
    }
    return 0;
}
