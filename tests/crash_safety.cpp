// Ends the daemon suddenly, again and again, on one log tree, and looks after each end at what is
// on disk and at how the next start goes on from there. crash_safety --help tells how to run it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "core/quarn_config.h"
#include "daemon_process.h"
#include "storage/log_names.h"
#include "storage/power_on_log.h"
#include "support.h"

namespace fs = std::filesystem;
namespace log_names = quarn::log_names;
using std::chrono::milliseconds;

namespace {

constexpr const char* kHelp = R"(Use: crash_safety [--rounds N] [--seed N] [--boxes N]

Starts the daemon on the simulated phone under load, ends it as kill -9 does, looks at the log tree and
the configuration file, and starts it again on what is there: N rounds (20). The same seed (1) draws
the same moments, as far as time allows. Outside a box the rounds are shared out among so many boxes
(4) side by side, each with a tree and a seed of its own.

Exit status: 0 when all that must hold held, 1 otherwise, 2 for a wrong call.
)";

int rounds = 20;
unsigned int seed = 1;

const std::string kBase = "/data/vendor/radio/quarn/";
const std::string kLogs = kBase + "logs/";
const std::string kPowerOnLog = quarn::zorvex::kPowerOnLogPath;
constexpr const char* kDefault = "transfer_type 1\nfile_size 1\nrecycle_size 8\n";
constexpr unsigned int kLargestFileMb = 2;
constexpr unsigned int kLargestTreeMb = 10;

// --- the configuration file as the saver's order of writing makes it ---

// Settings in the order of their lines, no key part of another.
class Config {
  public:
    explicit Config(const std::string& text) {
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) lines.push_back(line);
    }
    // `request` = key + " " + value
    void Save(const std::string& request) {
        const std::string key = request.substr(0, request.find(' ') + 1);
        const auto line = std::find_if(lines.begin(), lines.end(),
                                       [&](const std::string& l) { return l.starts_with(key); });
        if (line != lines.end()) {
            *line = request;
        } else {
            lines.push_back(request);
        }
    }
    std::string Text() const {
        std::string text;
        for (const std::string& line : lines) text += line + "\n";
        return text;
    }

  private:
    std::vector<std::string> lines;
};

// A client that changes settings without pause until the daemon is gone.
class Client {
  public:
    Client(const std::string& config_before, unsigned int client_seed)
        : config(config_before), random(client_seed), thread([this] { Run(); }) {}
    // What may stand in the file now that the daemon is gone.
    std::vector<std::string> Outcomes() {
        thread.join();
        std::vector<std::string> outcomes = {config.Text()};
        if (in_flight.empty()) return outcomes;
        outcomes.push_back("");  // between cutting the file and the one write
        config.Save(in_flight);
        outcomes.push_back(config.Text());
        return outcomes;
    }
    void End() { ended = true; }
    size_t saved() const { return saves; }

  private:
    std::string Draw() {
        const auto from = [&](unsigned int lowest, unsigned int highest) {
            return std::to_string(lowest + random() % (highest - lowest + 1));
        };
        switch (random() % 6) {
            case 0:
                return "file_size " + from(1, kLargestFileMb);
            case 1:
                return "recycle_size " + from(8, kLargestTreeMb);
            case 2:
                return "recycle_keep_ee_size " + from(0, 2);
            case 3:
                return "recycle_ee 1";
            case 4:
                return "log_level " + from(0, 6);
            default:
                return "flush_interval " + from(100, 99999);
        }
    }
    void Run() {
        // The first two bring a daemon that lost its configuration back to a small tree.
        for (int number = 0; !ended; ++number) {
            const std::string request = number == 0   ? "file_size 1"
                                        : number == 1 ? "recycle_size 8"
                                                      : Draw();
            do {
                in_flight = request;
                const auto reply = test::Request(request);
                if (reply == "ok") {
                    config.Save(request);
                    in_flight.clear();
                    ++saves;
                } else if (!reply) {
                    std::this_thread::sleep_for(milliseconds(1));  // not up yet, or gone
                }
            } while (!in_flight.empty() && !ended);
        }
    }

    Config config;
    std::mt19937 random;
    std::string in_flight;  // asked for, not answered
    std::atomic<bool> ended{false};
    std::atomic<size_t> saves{0};
    std::thread thread;
};

// --- the log tree ---

struct File {
    std::string name;
    uint32_t index;
    bool open_ending;
};
struct Folder {
    std::string name;
    uint32_t index;
    bool unfinished;
    std::vector<File> files;  // by index
};

uint32_t Number(std::string_view digits) { return log_names::ParseIndex(digits).value_or(0); }

// By index, the folders that share one by time; everything that does not belong there is a failure.
std::vector<Folder> Survey() {
    std::vector<Folder> folders;
    for (const std::string& name : test::List(kLogs)) {
        if (name == log_names::kPowerOnLog) continue;
        const auto parsed = log_names::ParseFolder(name);
        EXPECT_TRUE(parsed) << name << " is in the log folder";
        if (!parsed) continue;
        Folder folder{name, Number(parsed->index), log_names::IsUnfinished(name), {}};
        for (const std::string& file : test::List(kLogs + name)) {
            const auto part = log_names::ParseFile(file);
            EXPECT_TRUE(part) << file << " is in " << name;
            if (!part) continue;
            folder.files.push_back(
                {file, Number(part->index), part->ending.ends_with(log_names::kOpenEnding)});
        }
        std::sort(folder.files.begin(), folder.files.end(),
                  [](const File& a, const File& b) { return a.index < b.index; });
        folders.push_back(std::move(folder));
    }
    std::sort(folders.begin(), folders.end(), [](const Folder& a, const Folder& b) {
        return std::tie(a.index, a.name) < std::tie(b.index, b.name);
    });
    return folders;
}

size_t OpenEndings(const Folder& folder) {
    return static_cast<size_t>(std::count_if(folder.files.begin(), folder.files.end(),
                                             [](const File& file) { return file.open_ending; }));
}

// What the run's console knows as recycled.
bool Recycled(const std::string& log, const Folder& folder) {
    const std::string name = folder.name.substr(0, folder.name.find_last_of("0123456789") + 1);
    for (size_t at = 0; (at = log.find("LogFileRecycler: remove f", at)) != std::string::npos;) {
        const size_t end = std::min(log.find('\n', at), log.size());
        if (log.substr(at, end - at).find(name) != std::string::npos) return true;
        at = end;
    }
    return false;
}

// --- the rounds ---

class CrashSafety : public testing::Test {
  protected:
    void Round(int number);

    // What was seen how often: states that a start has to find its way from.
    std::map<std::string, int> seen;
    std::mt19937 random{seed};
    std::vector<Folder> before;  // the tree at the start of a round

  private:
    void EndSomehow(test::Daemon& daemon);
    test::Daemon::Environment DrawCrashPoint();
    void ExpectConfig(const std::vector<std::string>& outcomes, const std::string& at_start);
    void ExpectFinished(const std::vector<Folder>& after, const std::string& log);
    void ExpectStream(const std::vector<Folder>& after, const std::string& tap,
                      const std::string& log);
    void ExpectBudget(const std::string& config_at_start, const std::vector<Folder>& after);
    void ExpectHistory(const std::vector<Folder>& after);
    void TakeNote(const std::vector<Folder>& after);
    bool IsNew(const Folder& folder) const {
        return std::none_of(before.begin(), before.end(),
                            [&](const Folder& old) { return old.index == folder.index; });
    }
    milliseconds Draw(int lowest, int highest) {
        return milliseconds(lowest +
                            static_cast<int>(random() % static_cast<unsigned>(highest - lowest)));
    }
};

// Half of the ends come at a call that changes the tree, the others whenever they come.
test::Daemon::Environment CrashSafety::DrawCrashPoint() {
#ifdef CRASH_POINT
    if (random() % 2 == 0) {
        const unsigned int most = random() % 2 == 0 ? 16 : 150;
        return {{"LD_PRELOAD", CRASH_POINT}, {"CRASH_POINT", std::to_string(1 + random() % most)}};
    }
#endif
    return {};
}

void CrashSafety::EndSomehow(test::Daemon& daemon) {
    // Seldom as long as it takes until a capture has ended and the next one begun.
    const auto kind = random() % 12;
    const milliseconds life = kind == 0  ? Draw(1500, 2000)
                              : kind < 4 ? Draw(1, 100)
                                         : Draw(100, 600);
    const bool exception = random() % 2 == 0;
    const milliseconds exception_at = Draw(30, 300);
    const auto start = std::chrono::steady_clock::now();
    const auto lived = [&] { return std::chrono::steady_clock::now() - start; };
    std::thread console([&] {
        if (kind == 0) {
            test::WaitUntil([&] {
                return system(SIMCTL_PROGRAM " --box /data notify 7 >/dev/null 2>&1") == 0 ||
                       lived() >= life;
            });
        }
        if (!exception) return;
        std::this_thread::sleep_until(start + exception_at);
        if (system(SIMCTL_PROGRAM " --box /data exception >/dev/null 2>&1") != 0) return;
    });
    while (lived() < life && !daemon.Ended()) std::this_thread::sleep_for(milliseconds(1));
    daemon.Kill();
    console.join();
}

void CrashSafety::ExpectConfig(const std::vector<std::string>& outcomes,
                               const std::string& at_start) {
    const std::string text = test::ReadFile(kConfigPath);
    if (text.empty()) ++seen[fs::exists(kConfigPath) ? "config empty" : "config not there yet"];
    // One that is not there yet is made empty, then filled.
    const bool was_made = at_start.empty() && text.empty();
    EXPECT_TRUE(was_made || std::find(outcomes.begin(), outcomes.end(), text) != outcomes.end())
        << "configuration file:\n"
        << text << "but it should be\n"
        << outcomes[0];
}

// What the newest folder of the tree has become, once the capture behind it has a file with blocks.
void CrashSafety::ExpectFinished(const std::vector<Folder>& after, const std::string& log) {
    const auto first =
        std::find_if(after.begin(), after.end(), [&](const Folder& f) { return IsNew(f); });
    if (first == after.end()) return;
    if (before.empty()) {
        EXPECT_EQ(first->index, 0u);
        return;
    }
    const Folder& last = before.back();
    // A run's first capture may have been recycled meanwhile.
    const std::string next = std::string(log_names::kPrefix) + std::to_string(last.index + 1) + "_";
    EXPECT_TRUE(first->index == last.index + 1 || log.find("/" + next) != std::string::npos)
        << first->name << " follows " << last.name;
    const bool has_blocks =
        first->files.size() > 1 ||
        (!first->files.empty() &&
         !test::DecodeFile(kLogs + first->name + "/" + first->files[0].name).bytes.empty());
    const auto became = std::find_if(after.begin(), after.end(),
                                     [&](const Folder& f) { return f.index == last.index; });
    if (!has_blocks || became == after.end()) return;  // not that far, or recycled
    EXPECT_FALSE(became->unfinished) << became->name;
    const size_t endings = OpenEndings(last);
    if (became->files.size() < last.files.size()) return;
    EXPECT_EQ(OpenEndings(*became), endings > 0 ? endings - 1 : 0) << became->name;
}

// The files of this run hold, in order, what the modem handed over from its first byte on. Holes
// are only where files were recycled, and only the newest file may end in the middle of a block.
void CrashSafety::ExpectStream(const std::vector<Folder>& after, const std::string& tap,
                               const std::string& log) {
    size_t at = 0;
    bool complete = before.empty() || !after.empty();  // nothing is missing before the next file
    uint32_t next_folder = before.empty() ? 0 : before.back().index + 1;
    for (const Folder& folder : after) {
        if (!IsNew(folder)) continue;
        complete = complete && folder.index == next_folder;
        uint32_t next_file = 0;
        for (const File& file : folder.files) {
            const bool newest = &folder == &after.back() && &file == &folder.files.back();
            const auto [bytes, whole, stray_byte] =
                test::DecodeFile(kLogs + folder.name + "/" + file.name);
            EXPECT_TRUE(whole || newest) << folder.name << "/" << file.name << " is torn";
            if (!whole) ++seen[bytes.empty() ? "newest file without a block" : "newest file torn"];
            complete = complete && file.index == next_file;
            const size_t found =
                complete ? (tap.compare(at, bytes.size(), bytes) == 0 ? at : std::string::npos)
                         : tap.find(bytes, at);
            ASSERT_NE(found, std::string::npos)
                << folder.name << "/" << file.name << " is not what was handed over at " << at;
            at = found + bytes.size();
            complete = true;
            next_file = file.index + 1;
        }
        // A recycled file may have been this folder's last.
        complete = !Recycled(log, folder);
        next_folder = folder.index + 1;
    }
    if (log.find("Power-on log: start writing log") == std::string::npos) return;
    const std::string first_minute = test::DecodeFile(kPowerOnLog).bytes;
    EXPECT_TRUE(tap.starts_with(first_minute)) << kPowerOnLog;
}

// The recycler looks before it lets a file be opened; then come a file and the flush that fills it.
void CrashSafety::ExpectBudget(const std::string& config_at_start,
                               const std::vector<Folder>& after) {
    const bool opened = std::any_of(after.begin(), after.end(), [&](const Folder& folder) {
        return IsNew(folder) && !folder.files.empty();
    });
    // A daemon without its configuration keeps 2500 MB until it is told otherwise.
    if (config_at_start.find("recycle_size") == std::string::npos || !opened) return;
    size_t files = 0;
    for (const Folder& folder : after) files += folder.files.size();
    constexpr uintmax_t kMb = 1 << 20;
    EXPECT_LE(test::TreeSize(kLogs) - test::ReadFile(kPowerOnLog).size(),
              (kLargestTreeMb + kLargestFileMb + 1) * kMb + files * 2048);
}

void CrashSafety::ExpectHistory(const std::vector<Folder>& after) {
    const std::string history = test::ReadFile(kBase + "log_folder_history");
    EXPECT_TRUE(history.empty() || history.ends_with('\n')) << history;
    for (const Folder& folder : after) {
        const std::string name = folder.name.substr(0, folder.name.find_last_of("0123456789") + 1);
        const bool known = history.find("/" + name + "\n") != std::string::npos;
        if (known) continue;
        ++seen["folder that the history does not know"];
        EXPECT_TRUE(!IsNew(folder) || &folder == &after.back()) << folder.name;
    }
}

void CrashSafety::TakeNote(const std::vector<Folder>& after) {
    const auto unfinished =
        std::count_if(after.begin(), after.end(), [](const Folder& f) { return f.unfinished; });
    if (unfinished > 1) ++seen["two or more folders with t"];
    for (const Folder& folder : after) {
        const bool newest = &folder == &after.back();
        const size_t endings = OpenEndings(folder);
        EXPECT_LE(endings, 2u) << folder.name;
        if (newest && folder.files.empty()) ++seen["newest folder empty"];
        if (newest && endings == 2) ++seen["newest folder with two .tmp files"];
        if (!newest && IsNew(folder) && endings > 0) ++seen["capture before keeps its .tmp"];
        if (!newest && !folder.unfinished && endings > 0) ++seen["finished folder keeps a .tmp"];
        if (newest && folder.name.ends_with(log_names::kUnfinishedException)) {
            ++seen["newest folder marked _EE"];
        }
    }
    if (after.empty()) ++seen[fs::exists(kLogs) ? "no folder yet" : "no log folder yet"];
}

void CrashSafety::Round(int number) {
    SCOPED_TRACE("round " + std::to_string(number) + " of seed " + std::to_string(seed));
    const std::string name = std::to_string(number);
    const std::string tap = "/data/tap." + name;
    const bool had_config = fs::exists(kConfigPath);
    const std::string config = test::ReadFile(kConfigPath);
    before = Survey();
    std::string log;
    {
        test::Daemon daemon(
            name, "tap " + tap + "\nsource generated " + name + "\nrate 100M\nstream start\n",
            DrawCrashPoint());
        Client client(had_config ? config : kDefault, static_cast<unsigned int>(random()));
        EndSomehow(daemon);
        EXPECT_EQ(daemon.Wait(), -SIGKILL);
        client.End();
        ExpectConfig(client.Outcomes(), config);
        seen["settings saved"] += static_cast<int>(client.saved());
        log = daemon.Log();
    }
    const std::vector<Folder> after = Survey();
    ExpectFinished(after, log);
    ExpectStream(after, test::ReadFile(tap), log);
    ExpectBudget(config, after);
    ExpectHistory(after);
    TakeNote(after);
    seen["files recycled"] += log.find("remove file") != std::string::npos ? 1 : 0;
    fs::remove(tap);
    fs::remove("/data/log." + name);
    if (HasFailure()) printf("%s\n", log.c_str());
}

TEST_F(CrashSafety, EveryStartGoesOnFromWhatASuddenEndLeft) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", kDefault);
    for (int number = 1; number <= rounds && !HasFailure(); ++number) Round(number);
    for (const auto& [what, count] : seen) printf("%6d  %s\n", count, what.c_str());
}

// Shares the rounds out; false when one of the boxes did not hold.
bool RunBoxes(const char* self, int boxes) {
    std::vector<pid_t> children;
    for (int box = 0; box < boxes; ++box) {
        const int share = rounds / boxes + (box < rounds % boxes ? 1 : 0);
        const std::string own_rounds = std::to_string(share);
        const std::string own_seed = std::to_string(seed + static_cast<unsigned int>(box));
        children.push_back(fork());
        if (children.back() != 0) continue;
        execl(BOX_PROGRAM, "box", self, "--rounds", own_rounds.c_str(), "--seed", own_seed.c_str(),
              nullptr);
        _exit(127);
    }
    bool held = true;
    for (const pid_t child : children) {
        int status = 0;
        held = waitpid(child, &status, 0) == child && status == 0 && held;
    }
    return held;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    int boxes = 4;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const int value = i + 1 < argc ? atoi(argv[i + 1]) : 0;
        if (word == "--help") {
            printf("%s", kHelp);
            return 0;
        }
        if (value < 1 || (word != "--rounds" && word != "--seed" && word != "--boxes")) {
            fprintf(stderr, "crash_safety: wrong call (crash_safety --help)\n");
            return 2;
        }
        if (word == "--rounds") rounds = value;
        if (word == "--seed") seed = static_cast<unsigned int>(value);
        if (word == "--boxes") boxes = value;
        ++i;
    }
    if (!fs::exists("/box")) {
        return RunBoxes(fs::canonical("/proc/self/exe").c_str(), std::min(boxes, rounds)) ? 0 : 1;
    }
    return RUN_ALL_TESTS();
}
