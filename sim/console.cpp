#include "sim/console.h"

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <utility>

#include "sim/order.h"
#include "sim/schedule.h"

namespace sim {

namespace {

using std::chrono::milliseconds;

// Calls `take(number, line)` for each line of a file. The first number is 1.
template <typename Take>
void ForEachLine(const std::string& path, Take take) {
    std::ifstream in(path, std::ios::binary);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) take(number, line);
}

// Returns the words of a line, or none if the line is empty or a comment.
std::vector<std::string> LineWords(std::string_view line, std::string* error) {
    std::vector<std::string> words;
    if (!SplitLine(line, &words, error)) return {};
    if (!words.empty() && words[0].starts_with('#')) words.clear();
    return words;
}

// Returns the time since the phone started. The first process writes its start time and its process
// id to the folder; in that process the result is 0.
milliseconds SinceStart(const std::string& folder) {
    if (folder.empty()) return milliseconds(0);
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const int64_t now_ms = now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
    int64_t start_ms = 0;
    pid_t first = 0;
    if (!(std::ifstream(folder + "/began") >> start_ms >> first)) {
        std::ofstream(folder + "/began") << now_ms << ' ' << getpid() << '\n';
        return milliseconds(0);
    }
    return milliseconds(first == getpid() ? 0 : now_ms - start_ms);
}

}  // namespace

bool SplitLine(std::string_view line, std::vector<std::string>* words, std::string* error) {
    if (line.size() > kMaxLine) {
        *error = "line of more than " + std::to_string(kMaxLine) + " bytes";
        return false;
    }
    bool in_word = false;
    bool in_quotes = false;
    for (const char c : line) {
        if (static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\r') {
            *error = "control character in the line";
            return false;
        }
        if (!in_quotes && (c == ' ' || c == '\t' || c == '\r')) {
            in_word = false;
            continue;
        }
        if (!in_word) words->emplace_back();
        in_word = true;
        if (c == '"') {
            in_quotes = !in_quotes;
        } else {
            words->back() += c;
        }
    }
    if (in_quotes) *error = "quotes are not closed";
    if (words->size() > kMaxWords) *error = "more than " + std::to_string(kMaxWords) + " words";
    return error->empty();
}

Reply Console::Execute(std::string_view line) const {
    std::string error;
    const std::vector<std::string> words = LineWords(line, &error);
    if (!error.empty()) return Failed(error);
    if (words.empty()) return Ok();
    const Order order = MakeOrder(*this, words);
    return order.ok() ? order.act() : Failed(order.refusal);
}

std::string Console::Check(std::string_view line) const {
    std::string error;
    const std::vector<std::string> words = LineWords(line, &error);
    return words.empty() ? error : MakeOrder(*this, words).refusal;
}

std::vector<Console::Fault> Console::CheckScenario(const std::string& path) const {
    std::vector<Fault> faults;
    ForEachLine(path, [&](int number, const std::string& line) {
        std::string why = Check(line);
        if (!why.empty()) faults.push_back({number, std::move(why)});
    });
    return faults;
}

void Console::RunScenario(const std::string& path) const {
    const milliseconds gone = SinceStart(folder_);
    ForEachLine(path, [&](int number, const std::string& line) {
        const std::string where = path + ", line " + std::to_string(number);
        std::string error;
        const std::vector<std::string> words = LineWords(line, &error);
        if (words.empty() || words[0] != "after") {
            const Reply reply = Execute(line);
            if (!reply.ok) LogFailure(where, reply.text);
            return;
        }
        const Later later = MakeLater(*this, words);
        if (!later.order.ok()) {
            LogFailure(where, later.order.refusal);
        } else if (later.delay > gone || gone == milliseconds(0)) {
            if (!Schedule::Instance().Add(later.delay - gone, where, later.order.act)) {
                LogFailure(where, "too many commands are waiting already");
            }
        } else if (later.kind == Command::kSetting) {
            const Reply reply = later.order.act();
            if (!reply.ok) LogFailure(where, reply.text);
        }
    });
}

}  // namespace sim
