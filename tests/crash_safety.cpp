// Ends the daemon suddenly, again and again, on one log tree, and looks after each end at what is
// on disk and at how the next start goes on from there. crash_safety --help tells how to run it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "core/quarn_config.h"
#include "daemon_process.h"
#include "storage/log_names.h"
#include "storage/power_on_log.h"
#include "support.h"
#include "tools/muxz/tree.h"

namespace fs = std::filesystem;
namespace log_names = quarn::log_names;
using std::chrono::milliseconds;

namespace {

constexpr const char* kHelp = R"(Use: crash_safety [--rounds N] [--seed N]

Starts the daemon on the simulated phone under load, ends it as kill -9 does, looks at the log tree and
the configuration file, and starts it again on what is there: N rounds (20). Then a power cut ends it,
N / 10 times, each after some ten seconds: files are cut back to what was synced. The same seed (1)
draws the same moments, as far as time allows. Outside a box the rounds are shared out among four
boxes side by side, each with a tree and a seed of its own.

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
constexpr std::chrono::seconds kSyncDelay(5);
constexpr std::chrono::seconds kBusyMachine(2);

// The configuration file once the saver has put `request`, a key and its value, into it.
std::string Saved(std::string config, const std::string& request) {
    const std::string key = request.substr(0, request.find(' ') + 1);
    const size_t line = ("\n" + config).find("\n" + key);
    if (line == std::string::npos) return config + request + "\n";
    return config.replace(line, config.find('\n', line) - line, request);
}

// A client that changes settings without pause until the daemon is gone.
class Client {
  public:
    Client(const std::string& config_before, unsigned int client_seed)
        : config(config_before), random(client_seed), thread([this] { Run(); }) {}
    // What may stand in the file now that the daemon is gone.
    std::vector<std::string> Outcomes() {
        thread.join();
        if (in_flight.empty()) return {config};
        return {config, Saved(config, in_flight)};
    }
    void End() { ended = true; }
    size_t saved() const { return saves; }

  private:
    std::string Draw() {
        struct Setting {
            const char* key;
            unsigned int lowest, highest;
        };
        static constexpr Setting kSettings[] = {{"file_size ", 1, kLargestFileMb},
                                                {"recycle_size ", 8, kLargestTreeMb},
                                                {"recycle_keep_ee_size ", 0, 2},
                                                {"recycle_ee ", 1, 1},
                                                {"log_level ", 0, 6},
                                                {"flush_interval ", 100, 99999}};
        const auto& [key, lowest, highest] = kSettings[random() % std::size(kSettings)];
        return key + std::to_string(lowest + random() % (highest - lowest + 1));
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
                    config = Saved(config, request);
                    in_flight.clear();
                    ++saves;
                } else if (!reply) {
                    std::this_thread::sleep_for(milliseconds(1));  // not up yet, or gone
                }
            } while (!in_flight.empty() && !ended);
        }
    }

    std::string config;
    std::mt19937 random;
    std::string in_flight;  // asked for, not answered
    std::atomic<bool> ended{false};
    std::atomic<size_t> saves{0};
    std::thread thread;
};

// --- the log tree ---

struct Folder : muxz::Capture {
    std::vector<muxz::LogFile> files;  // by index
};

// In capture order; everything that does not belong there is a failure.
std::vector<Folder> Survey() {
    muxz::Tree tree;
    std::vector<muxz::Complaint> complaints;
    muxz::ListTree(kLogs, tree, complaints);
    EXPECT_EQ(tree.captures.size() + tree.power_on_logs.size(), test::List(kLogs).size());
    std::vector<Folder> folders;
    for (muxz::Capture& capture : tree.captures) {
        Folder folder{capture, {}};
        muxz::ListFiles(muxz::OpenCapture(capture), folder.name, folder.files, complaints);
        EXPECT_EQ(folder.files.size(), test::List(folder.path()).size()) << folder.name;
        folders.push_back(std::move(folder));
    }
    for (const muxz::Complaint& complaint : complaints) {
        ADD_FAILURE() << complaint.path << ": " << complaint.text;
    }
    return folders;
}

// As `tap.find`, which takes minutes for streams that repeat themselves when each of its
// comparisons is watched.
size_t Find(std::string_view bytes, std::string_view tap, size_t at) {
    const void* const found = memmem(tap.data() + at, tap.size() - at, bytes.data(), bytes.size());
    return found == nullptr ? std::string::npos
                            : static_cast<size_t>(static_cast<const char*>(found) - tap.data());
}

size_t OpenEndings(const Folder& folder) {
    return static_cast<size_t>(
        std::count_if(folder.files.begin(), folder.files.end(),
                      [](const muxz::LogFile& file) { return muxz::MayBeOpen(file.name); }));
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
    void Round(int number) {
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
            ExpectConfig(client.Outcomes(), had_config);
            seen["new configuration left behind"] += fs::exists(std::string(kConfigPath) + ".new");
            seen["settings saved"] += static_cast<int>(client.saved());
            log = daemon.Log();
        }
        const std::vector<Folder> after = Survey();
        ExpectFinished(after, log);
        ExpectStream(after, test::ReadFile(tap), log);
        ExpectBudget(config, after);
        ExpectHistory(after);
        for (const Folder& folder : after) EXPECT_LE(OpenEndings(folder), 2u) << folder.name;
        seen["files recycled"] += log.find("remove file") != std::string::npos ? 1 : 0;
        fs::remove(tap);
        fs::remove("/data/log." + name);
        if (HasFailure()) printf("%s\n", log.c_str());
    }

#ifdef POWER_CUT
    void PowerCut(int number) {
        SCOPED_TRACE("power cut " + std::to_string(number) + " of seed " + std::to_string(seed));
        const std::string name = "cut" + std::to_string(number);
        const std::string tap = "/data/tap." + name;
        const std::string notes = "/data/notes." + name;
        // Files that are written all the time; files that end faster than the disk takes them.
        const bool large_files = number % 2 != 0;
        const int sync_ms = large_files ? 20 : 1500;
        test::WriteFile(kConfigPath, "transfer_type 1\nrecycle_size 4000\nfile_size " +
                                         std::string(large_files ? "50\n" : "1\n"));
        before = Survey();
        fs::create_directories(kBase);
        for (const auto& entry : fs::recursive_directory_iterator(kBase)) {
            old_inodes.insert(Inode(entry));
        }
        test::Daemon daemon(name,
                            "tap " + tap + "\nsource generated " + std::to_string(number) +
                                (large_files ? "\nrate 4M" : "\nrate 10M") + "\nstream start\n",
                            {{"LD_PRELOAD", POWER_CUT},
                             {"SYNC_NOTES", notes},
                             {"SYNC_DELAY_MS", std::to_string(sync_ms)}});
        std::this_thread::sleep_for(Draw(100, 4000));
        if (!large_files && random() % 2 == 0) Steer("exception");
        if (!large_files && random() % 2 == 0) Steer("notify 7");  // a second capture
        std::this_thread::sleep_for(Draw(8000, 11000));
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        daemon.Kill();
        // Whoever has to wait for a processor of a busy machine gets some time more.
        CutBack(test::ReadFile(notes), now - kSyncDelay - milliseconds(sync_ms) - kBusyMachine);
        const std::vector<Folder> after = Survey();
        ExpectFinished(after, daemon.Log());
        ExpectStream(after, test::ReadFile(tap), daemon.Log());
        if (HasFailure()) printf("%s\n", daemon.Log().c_str());
    }
#endif

    // What was seen how often: states that a start has to find its way from.
    std::map<std::string, int> seen;
    std::mt19937 random{seed};
    std::vector<Folder> before;  // the tree at the start of a round
    std::set<ino_t> old_inodes;  // of it, before a power cut

  private:
    static ino_t Inode(const fs::path& path) {
        struct stat status = {};
        return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    }

    // Leaves what a power cut leaves by the notes of tests/power_cut.cpp: what was synced. What
    // was written up to `due` must be there.
    void CutBack(const std::string& notes, std::chrono::nanoseconds due) {
        std::map<ino_t, uintmax_t> wanted, synced;
        std::set<ino_t> named = old_inodes;
        std::istringstream lines(notes);
        char kind;
        int64_t time;
        ino_t inode;
        uintmax_t length;
        while (lines >> kind >> time >> inode >> length) {
            if (kind == 'w' && time <= due.count()) wanted[inode] = length;
            if (kind == 's') synced[inode] = length;
            if (kind == 'e') named.insert(inode);
        }
        std::vector<fs::path> paths;  // each behind the folder that it is in
        for (const auto& entry : fs::recursive_directory_iterator(kLogs)) paths.push_back(entry);
        for (auto path = paths.rbegin(); path != paths.rend(); ++path) {
            inode = Inode(*path);
            if (old_inodes.count(inode) != 0) continue;
            bool found = true;
            for (fs::path at = *path; at != fs::path(kBase).parent_path(); at = at.parent_path()) {
                found = found && named.count(Inode(at)) != 0;
            }
            const uintmax_t left = found ? synced[inode] : 0;
            if (fs::is_directory(*path)) {
                if (!found) fs::remove(*path);
                continue;
            }
            if (path->filename() == fs::path(kPowerOnLog).filename()) {
                fs::remove(*path);
                continue;
            }
            EXPECT_GE(left, wanted[inode]) << *path << " of " << fs::file_size(*path);
            seen["KiB in time for a power cut"] += static_cast<int>(wanted[inode] / 1024);
            seen["KiB lost by a power cut"] +=
                static_cast<int>((fs::file_size(*path) - left) / 1024);
            if (left == 0) {
                fs::remove(*path);
                ++seen["files lost by a power cut"];
            } else {
                fs::resize_file(*path, left);
                EXPECT_TRUE(test::DecodeFile(*path).whole) << *path;
            }
        }
    }

    static bool Steer(const std::string& line) {
        return system((SIMCTL_PROGRAM " --box /data " + line + " >/dev/null 2>&1").c_str()) == 0;
    }

    void EndSomehow(test::Daemon& daemon) {
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
            while (kind == 0 && lived() < life && !Steer("notify 7")) {
            }
            if (!exception) return;
            std::this_thread::sleep_until(start + exception_at);
            Steer("exception");
        });
        while (lived() < life && !daemon.Ended()) std::this_thread::sleep_for(milliseconds(1));
        daemon.Kill();
        console.join();
    }

    // Half of the ends come at a call that changes the tree, a third of them at one that changes
    // the configuration; the others whenever they come.
    test::Daemon::Environment DrawCrashPoint() {
#ifdef CRASH_POINT
        if (random() % 2 == 0) {
            const bool in_config = random() % 3 == 0;
            const unsigned int most = random() % 2 == 0 ? 16 : 150;
            return {{"LD_PRELOAD", CRASH_POINT},
                    {"CRASH_POINT", std::to_string(1 + random() % most)},
                    {"CRASH_FOLDER", in_config ? kBase + "config" : kBase}};
        }
#endif
        return {};
    }

    // The old one or the new one, whole; or none yet.
    void ExpectConfig(const std::vector<std::string>& outcomes, bool had_config) {
        if (!had_config && !fs::exists(kConfigPath)) return;
        const std::string text = test::ReadFile(kConfigPath);
        EXPECT_NE(std::find(outcomes.begin(), outcomes.end(), text), outcomes.end())
            << "configuration file:\n"
            << text << "but it should be\n"
            << outcomes[0];
    }

    // What the newest folder of the tree has become, once the capture behind it has a file with
    // blocks.
    void ExpectFinished(const std::vector<Folder>& after, const std::string& log) {
        const auto first =
            std::find_if(after.begin(), after.end(), [&](const Folder& f) { return IsNew(f); });
        if (first == after.end()) return;
        const uint32_t next = before.empty() ? 0 : before.back().index + 1;
        // A run's first capture may have been recycled meanwhile.
        EXPECT_TRUE(first->index == next ||
                    log.find("/" + std::string(log_names::kPrefix) + std::to_string(next) + "_") !=
                        std::string::npos)
            << first->name << " instead of index " << next;
        if (before.empty()) return;
        const Folder& last = before.back();
        const bool has_blocks =
            first->files.size() > 1 ||
            (!first->files.empty() &&
             !test::DecodeFile(first->path() + "/" + first->files[0].name).bytes.empty());
        const auto became = std::find_if(after.begin(), after.end(),
                                         [&](const Folder& f) { return f.index == last.index; });
        if (!has_blocks || became == after.end()) return;  // not that far, or recycled
        EXPECT_TRUE(became->finished) << became->name;
        const size_t endings = OpenEndings(last);
        if (became->files.size() < last.files.size()) return;
        EXPECT_EQ(OpenEndings(*became), endings > 0 ? endings - 1 : 0) << became->name;
    }

    // The files of this run hold, in order, what the modem handed over from its first byte on.
    // Holes are only where files were recycled, and only the newest file may end in the middle of a
    // block.
    void ExpectStream(const std::vector<Folder>& after, const std::string& tap,
                      const std::string& log) {
        size_t at = 0;
        bool complete =
            before.empty() || !after.empty();  // nothing is missing before the next file
        uint32_t next_folder = before.empty() ? 0 : before.back().index + 1;
        for (const Folder& folder : after) {
            if (!IsNew(folder)) continue;
            complete = complete && folder.index == next_folder;
            uint32_t next_file = 0;
            for (const muxz::LogFile& file : folder.files) {
                const bool newest = &folder == &after.back() && &file == &folder.files.back();
                const auto [bytes, whole, stray_byte] =
                    test::DecodeFile(folder.path() + "/" + file.name);
                EXPECT_TRUE(whole || newest) << folder.name << "/" << file.name << " is torn";
                if (!whole) ++seen["newest file torn"];
                complete = complete && file.index == next_file;
                const size_t found =
                    complete ? (tap.compare(at, bytes.size(), bytes) == 0 ? at : std::string::npos)
                             : Find(bytes, tap, at);
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

    // The recycler looks before it lets a file be opened; then come a file and the flush that fills
    // it.
    void ExpectBudget(const std::string& config_at_start, const std::vector<Folder>& after) {
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

    void ExpectHistory(const std::vector<Folder>& after) {
        const std::string history = test::ReadFile(kBase + "log_folder_history");
        EXPECT_TRUE(history.empty() || history.ends_with('\n')) << history;
        for (const Folder& folder : after) {
            const std::string name =
                folder.name.substr(0, folder.name.find_last_of("0123456789") + 1);
            const bool known = history.find("/" + name + "\n") != std::string::npos;
            if (known) continue;
            ++seen["folder that the history does not know"];
            EXPECT_TRUE(!IsNew(folder) || &folder == &after.back()) << folder.name;
        }
    }

    bool IsNew(const Folder& folder) const {
        return std::none_of(before.begin(), before.end(),
                            [&](const Folder& old) { return old.index == folder.index; });
    }
    milliseconds Draw(int lowest, int highest) {
        return milliseconds(lowest +
                            static_cast<int>(random() % static_cast<unsigned>(highest - lowest)));
    }
};

TEST_F(CrashSafety, EveryStartGoesOnFromWhatASuddenEndLeft) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", kDefault);
    for (int number = 1; number <= rounds && !HasFailure(); ++number) Round(number);
    for (const auto& [what, count] : seen) printf("%6d  %s\n", count, what.c_str());
}

#ifdef POWER_CUT
TEST_F(CrashSafety, APowerCutCostsFiveSecondsAtMost) {
    for (int number = 1; number <= std::max(1, rounds / 10) && !HasFailure(); ++number) {
        PowerCut(number);
    }
    for (const auto& [what, count] : seen) printf("%6d  %s\n", count, what.c_str());
    EXPECT_GT(seen["KiB in time for a power cut"], 0);
}
#endif

// Shares the rounds out; false when one of the boxes did not hold.
bool RunBoxes(const std::string& self, int boxes) {
    std::vector<std::future<int>> ends;
    for (int box = 0; box < boxes; ++box) {
        const int share = rounds / boxes + (box < rounds % boxes ? 1 : 0);
        const std::string command = BOX_PROGRAM " " + self + " --rounds " + std::to_string(share) +
                                    " --seed " + std::to_string(static_cast<int>(seed) + box);
        ends.push_back(std::async(std::launch::async, [=] { return system(command.c_str()); }));
    }
    return std::all_of(ends.begin(), ends.end(), [](auto& end) { return end.get() == 0; });
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const int value = i + 1 < argc ? atoi(argv[i + 1]) : 0;
        if (word == "--help") {
            printf("%s", kHelp);
            return 0;
        }
        if (value < 1 || (word != "--rounds" && word != "--seed")) {
            fprintf(stderr, "crash_safety: wrong call (crash_safety --help)\n");
            return 2;
        }
        if (word == "--rounds") rounds = value;
        if (word == "--seed") seed = static_cast<unsigned int>(value);
        ++i;
    }
    if (!fs::exists("/box")) {
        return RunBoxes(fs::canonical("/proc/self/exe"), std::min(4, rounds)) ? 0 : 1;
    }
    return RUN_ALL_TESTS();
}
