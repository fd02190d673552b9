// The configuration file: any text is loaded, and settings can be saved into it.
//
//   input = text of the file [ "%%" newline ( key blank value newline )* ]
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/quarn.h"
#include "core/quarn_config.h"
#include "fuzz.h"
#include "platform/mcl.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kMark = "%%\n";
constexpr size_t kMaxSaveSize = 1024;

std::string ReadConfig() {
    std::ostringstream text;
    text << std::ifstream(kConfigPath, std::ios::binary).rdbuf();
    return std::move(text).str();
}

void Save(const std::string& line) {
    const size_t blank = line.find(' ');
    const std::string key = line.substr(0, line.find('\0'));
    if (blank == std::string::npos || blank >= key.size()) return;
    const std::string name = key.substr(0, blank);
    const std::string value = key.substr(blank + 1);
    fuzz::Check(quarn_command_saveConfig(name.c_str(), value.c_str(), {"log_filter"}) == 0,
                "a setting is saved");
    const std::string text = ReadConfig();
    fuzz::Check(text.size() <= kMaxSaveSize, "a saved file is small");
    fuzz::Check(text.size() == kMaxSaveSize || text.find(name + " " + value) != std::string::npos,
                "what was saved is there");
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
    quarn_loadConfig(kConfigPath, 0);
    quarn_loadConfig(kConfigPath, 1);
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
