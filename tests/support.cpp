#include "support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "tools/muxz/reader.h"
#include "tools/muxz/tree.h"

namespace test {

namespace {

std::mutex log_mutex;
std::vector<LogCapture::Message> log_messages;

void Keep(const __android_logger_data* data, const char* text) {
    std::lock_guard lock(log_mutex);
    log_messages.push_back({static_cast<android_LogPriority>(data->priority), text});
}

bool Matches(const std::string& message, std::string_view text) {
    if (!text.ends_with("...")) return message == text;
    text.remove_suffix(3);
    return message.find(text) != std::string::npos;
}

}  // namespace

LogCapture::LogCapture() {
    Clear();
    __android_log_set_logger(Keep);
}

LogCapture::~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

std::vector<LogCapture::Message> LogCapture::messages() const {
    std::lock_guard lock(log_mutex);
    return log_messages;
}

size_t LogCapture::Count(std::string_view text) const {
    std::lock_guard lock(log_mutex);
    return static_cast<size_t>(
        std::count_if(log_messages.begin(), log_messages.end(),
                      [&](const Message& m) { return Matches(m.text, text); }));
}

bool LogCapture::Has(android_LogPriority priority, std::string_view text) const {
    std::lock_guard lock(log_mutex);
    return std::any_of(log_messages.begin(), log_messages.end(), [&](const Message& m) {
        return m.priority == priority && Matches(m.text, text);
    });
}

bool LogCapture::WaitFor(std::string_view text, size_t count,
                         std::chrono::milliseconds limit) const {
    return WaitUntil([&] { return Count(text) >= count; }, limit);
}

void LogCapture::Clear() {
    std::lock_guard lock(log_mutex);
    log_messages.clear();
}

bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= end) return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

Ran Run(const std::string& line) {
    static std::atomic<int> runs{0};
    const std::string files = "/box/run." + std::to_string(++runs);
    WriteFile(files, line);
    const int status = system(
        ("timeout -k 5 100 sh " + files + " >" + files + ".out 2>" + files + ".err").c_str());
    Ran ran = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(files + ".out"),
               ReadFile(files + ".err")};
    for (const char* ending : {"", ".out", ".err"}) std::filesystem::remove(files + ending);
    return ran;
}

Result RunMerged(const std::string& line) {
    const Ran ran = Run("{ " + line + "; } 2>&1");
    return {ran.status, ran.out};
}

int WaitForChild(pid_t child) {
    int status = -1;
    const auto ended = [&] { return waitpid(child, &status, WNOHANG) == child; };
    if (!WaitUntil(ended, std::chrono::seconds(60))) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return status;
}

void HandleStopSignal() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return std::move(bytes).str();
}

void WriteFile(const std::filesystem::path& path, std::string_view bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> List(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

uintmax_t TreeSize(const std::filesystem::path& folder) {
    uintmax_t size = 0;
    std::error_code error;
    std::filesystem::recursive_directory_iterator entry(folder, error);
    while (!error && entry != std::filesystem::recursive_directory_iterator()) {
        std::error_code gone;
        const uintmax_t file = entry->is_regular_file(gone) ? entry->file_size(gone) : 0;
        if (!gone) size += file;
        entry.increment(error);
    }
    return size;
}

std::string StreamBytes(size_t size, uint64_t seed) {
    std::string bytes;
    bytes.reserve(size + 64);
    uint64_t state = seed;
    while (bytes.size() < size) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        bytes += "rec " + std::to_string(state >> 16) + " channel estimate report, cell reselect\n";
    }
    bytes.resize(size);
    return bytes;
}

namespace {

DecodedFile DecodeOpenFile(int fd) {
    DecodedFile decoded;
    muxz::FileSource source(fd);
    muxz::Header header;
    if (muxz::ReadHeader(source, header) != muxz::HeaderState::kWhole) return decoded;
    muxz::BlockReader blocks(source, header.length);
    muxz::Block block;
    while (blocks.Next(block)) {
        const size_t at = decoded.bytes.size();
        decoded.bytes.resize(at + block.lengths.raw_length);
        if (!blocks.Unpack(block, reinterpret_cast<uint8_t*>(decoded.bytes.data() + at))) {
            decoded.bytes.resize(at);
        }
    }
    decoded.stray_byte = blocks.end() == muxz::End::kStrayByte;
    decoded.whole = decoded.stray_byte || blocks.end() == muxz::End::kWhole;
    return decoded;
}

}  // namespace

DecodedFile DecodeFile(const std::filesystem::path& path) {
    const muxz::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return DecodeOpenFile(fd.get());
}

Decoded Decode(const std::filesystem::path& tree) {
    Decoded decoded;
    muxz::Tree found;
    std::vector<muxz::Complaint> complaints;
    muxz::Capture single;
    if (muxz::CaptureAt(tree, single)) {
        found.captures.push_back(single);
    } else {
        muxz::ListTree(tree, found, complaints);
    }
    for (muxz::Capture& capture : found.captures) {
        const muxz::Fd folder = muxz::OpenCapture(capture);
        std::vector<muxz::LogFile> files;
        muxz::ListFiles(folder, capture.path(), files, complaints);
        for (muxz::LogFile& file : files) {
            std::string why;
            const muxz::Fd fd = muxz::OpenFile(folder, file, why);
            const DecodedFile content = DecodeOpenFile(fd.get());
            decoded.bytes += content.bytes;
            if (!content.whole) decoded.torn.push_back(capture.path() + "/" + file.name);
        }
    }
    return decoded;
}

std::string DecodeTree(const std::filesystem::path& tree) {
    Decoded decoded = Decode(tree);
    for (const auto& file : decoded.torn) ADD_FAILURE() << file << " is torn";
    return std::move(decoded.bytes);
}

}  // namespace test
