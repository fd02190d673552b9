// The configuration file: any text is loaded, and settings can be saved into it.
//
//   input = text of the file [ "%%" newline ( key blank value newline )* ]
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/quarn.h"
#include "core/quarn_config.h"
#include "fuzz.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kMark = "%%\n";
constexpr size_t kMaxSaveSize = 1024;
constexpr size_t kMaxLoadSize = 1023;  // bytes
constexpr size_t kMaxLineSize = 510;   // longer ones are edited in pieces
constexpr unsigned int kMaxRecycleSize = 4194303;
const std::string kLogs = "/data/vendor/radio/quarn/logs";

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

int TransferType() {
    int type = -1;
    fuzz::Check(quarn_getTransferType(&type) == 0, "the transfer type can be asked");
    return type;
}

int LogMode() {
    int mode = -1;
    fuzz::Check(quarn_mipcGetLogMode(&mode) == 0, "the log mode can be asked");
    return mode;
}

// Whatever was loaded, and whether or not it was refused.
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

// Whether saving edits this text by its lines, as they were meant.
bool IsPlain(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() >= kMaxLineSize) return false;
    }
    return text.find('\0') == std::string::npos;
}

bool IsPlainFolder(const std::string& path) {
    constexpr size_t kMaxName = 32;
    return path.starts_with(kLogs + "/") && path.size() <= kLogs.size() + 1 + kMaxName &&
           std::all_of(path.begin() + static_cast<ptrdiff_t>(kLogs.size()) + 1, path.end(),
                       [](char c) { return c >= 'a' && c <= 'z'; });
}

// A setting that is accepted is the one that was saved last.
void CheckLoaded(const std::string& key, const std::string& value) {
    if (Load(0) != 0) return;
    const auto number = [](auto loaded) { return std::to_string(loaded); };
    const auto is = [&](const char* name, const std::string& loaded) {
        // Zeros in front, and what is no number, are read but not saved by the daemon.
        if (key != name || value != number(atoi(value.c_str()))) return;
        fuzz::Check(value == loaded, "what was saved is loaded");
    };
    is("transfer_type", number(TransferType()));
    is("file_size", number(g_file_io.get_file_size()));
    is("recycle_size", number(RecycleOption(RECYCLE_OPT_SIZE)));
    if (value == "0" || value == "1") is("recycle_ee", number(RecycleOption(RECYCLE_OPT_EE)));
    is("recycle_keep_ee_size", number(RecycleOption(RECYCLE_OPT_KEEP_EE_SIZE)));
    is("log_mode", number(LogMode()));
    if (key == "log_folder" && IsPlainFolder(value)) {
        fuzz::Check(g_file_io.get_log_folder() == value, "the folder that was saved is loaded");
    }
}

void Save(const std::string& line) {
    const size_t blank = line.find(' ');
    const std::string key = line.substr(0, line.find('\0'));
    if (blank == std::string::npos || blank >= key.size()) return;
    const std::string name = key.substr(0, blank);
    const std::string value = key.substr(blank + 1);
    const bool is_plain = IsPlain(ReadConfig());
    fuzz::Check(quarn_command_saveConfig(name.c_str(), value.c_str(), {"log_filter"}) == 0,
                "a setting is saved");
    const std::string text = ReadConfig();
    fuzz::Check(text.size() <= kMaxSaveSize, "a saved file is small");
    fuzz::Check(text.size() == kMaxSaveSize || text.find(name + " " + value) != std::string::npos,
                "what was saved is there");
    if (is_plain && text.size() <= kMaxLoadSize) CheckLoaded(name, value);
}

}  // namespace

void fuzz::SetUp() {
    StartPhone();
    mcl_closeLogPort();  // nobody reads it here, and a modem that stops logging would wait for one
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = fuzz::Text(data, size);
    const size_t mark = input.find(kMark);
    std::ofstream(kConfigPath, std::ios::binary) << input.substr(0, mark);
    Load(0);
    Load(1);
    std::string_view lines = input.substr(std::min(mark, input.size()));
    lines.remove_prefix(std::min(kMark.size(), lines.size()));
    while (!lines.empty()) Save(fuzz::TakeLine(lines));

    g_quarn.is_close = false;
    if (g_file_io.get_log_folder() != "/data/vendor/radio/quarn/logs/") {
        g_file_io.set_log_folder("/data/vendor/radio/quarn/logs/");
        fs::remove_all("/data/vendor/radio/quarn/logs");
        fs::create_directories("/data/vendor/radio/quarn/logs");
    }
    return 0;
}
