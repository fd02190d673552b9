// Runs the unchanged daemon on the simulated phone, ends it again and again, and accounts for every
// byte. See quarn_soak --help.
#include <getopt.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/soak/account.h"
#include "tests/soak/phone.h"
#include "tests/soak/settings.h"
#include "tests/soak/tree.h"
#include "tests/soak/trouble.h"
#include "tests/support.h"

using std::chrono::seconds;

namespace soak {

namespace {

constexpr const char* kHelp =
    R"(Use: quarn_soak [--ends LIST] [--seconds N | --rounds N] [--seed S] [--boxes N] [--keep DIR]

Runs the daemon on a simulated phone in a box (an isolated sandbox), ends it, and starts it again.
quarn_soak reads all log files, deleted ones too, and compares them with the stream that the modem
made. If bytes are missing, either the daemon's log must report them, or they must be among those
that a kill or a power cut may cost.

LIST contains kinds of ends, separated by commas. The default is all of them.

  rest    The daemon exits in order after all trouble has stopped.
  exit    The daemon exits in order in the middle of the trouble.
  kill    The daemon is killed in the middle of the trouble, or after its log device has vanished.
  crash   The daemon is killed within a second or two after its start, while it writes log files and
          a client changes settings. The kill comes at a random moment, or at a random system call
          that changes a file.
  power   The power is cut after about ten seconds: each file keeps only the bytes that were synced.

Trouble means:

  - The modem streams as fast as the daemon reads, raises notifications and has exceptions.
  - Clients send commands and random bytes, copy captures, and delete the file or the folder of the
    running capture.
  - Subscribers come and go.
  - The log port and modem IPC fail, and sometimes the disk is full.

At rest, each process must have as many descriptors and threads as the first one had at its start,
and its memory must not keep growing.

After crash and power, quarn_soak checks the names in the log tree, the folder history, the size of
the tree and the configuration file. The next process starts with the files that are there.

The seed decides what happens, but not exactly when.

  --seconds N   starts rounds for N seconds (default 20), and finishes the last one
  --rounds N    runs N rounds, however long they take; a round has ten processes for crash and one
                for each other kind
  --seed S      sets the seed (default 1)
  --boxes N     runs N boxes side by side, each with a seed of its own, and divides the rounds among
                them
  --keep DIR    keeps the daemon's logs, the log tree and a journal of all actions in DIR; works
                with one box only

Exit status: 0 if no fault was found, 1 otherwise, 2 for a wrong call.
)";

// The limit of every wait that should be short.
constexpr seconds kPatience(60);
constexpr long kMoreMemoryKb = 8 * 1024;  // at a later rest, compared with the first one after work
#ifdef SANITIZED
constexpr bool kSanitized = true;  // the sanitizer uses most of the memory
#else
constexpr bool kSanitized = false;
#endif
constexpr long kMostMemoryKb = 96 * 1024;  // peak: the ring's 16 MiB, buffers, stacks, programs

constexpr const char* kFactoryDefault = "transfer_type 1\nfile_size 1\nrecycle_size 8\n";
constexpr seconds kSyncDelay(5);
constexpr seconds kBusyMachine(2);  // extra time that a sync may wait for a processor

constexpr const char* kNotes = "/data/notes";  // written by power_cut.cpp

enum class End { kRest, kExit, kKill, kCrash, kPower };
constexpr std::array kEndNames = {"rest", "exit", "kill", "crash", "power"};
constexpr bool IsSudden(End end) { return end == End::kCrash || end == End::kPower; }

// The decisions that are made before a process starts.
struct Plan {
    End end = End::kRest;
    uint64_t seed = 0;
    int rounds = 1;  // of trouble and rest
    // For a power cut. A large file is still being written at the cut. Small files are finished
    // faster than the daemon syncs them.
    bool large_files = false;

    milliseconds sync_time() const { return milliseconds(large_files ? 20 : 1500); }
};

std::string Scenario(const Plan& plan, Dice& dice) {
    const std::string source = "source generated " + std::to_string(plan.seed) + "\n";
    if (plan.end == End::kCrash) return source + "rate 100M\nstream start\n";
    if (plan.end == End::kPower) {
        return source + (plan.large_files ? "rate 4M" : "rate 10M") + "\nstream start\n";
    }
    // An earlier process may have left the modem's log on. The stream is slow until Rest or Work
    // sets another rate.
    return source + "property ro.boot.cdt_hwid soak\nmd_state 6\nrate 20M\nfail init " +
           std::to_string(dice.Below(4)) + "\n";
}

#ifdef CRASH_POINT
constexpr bool kCanCutPower = true;

test::Daemon::Environment Preload(const Plan& plan, Dice& dice) {
    if (plan.end == End::kPower) {
        return {{"LD_PRELOAD", POWER_CUT},
                {"SYNC_NOTES", kNotes},
                {"SYNC_DELAY_MS", std::to_string(plan.sync_time().count())}};
    }
    // Half of the kills come at a call that changes the tree, a third of them at one that changes
    // the configuration.
    if (plan.end != End::kCrash || dice.OneIn(2)) return {};
    return {{"LD_PRELOAD", CRASH_POINT},
            {"CRASH_FOLDER", dice.OneIn(3) ? kTree + "/config" : kTree},
            {"CRASH_POINT", std::to_string(1 + dice.Below(dice.OneIn(2) ? 16 : 150))}};
}
#else
constexpr bool kCanCutPower = false;
test::Daemon::Environment Preload(const Plan&, Dice&) { return {}; }
#endif

// The life of one process of the daemon.
class Life {
  public:
    // `first` is what the first process held before it did any work. No value: this is the first.
    Life(Report& out, const std::string& name, const Plan& what, std::optional<Holdings>& first)
        : report(out),
          plan(what),
          dice(plan.seed),
          config(test::ReadFile(kConfigPath)),
          tree(IsSudden(plan.end) ? std::make_unique<TreeCheck>(out) : nullptr),
          phone(out, name, Scenario(plan, dice), Preload(plan, dice)),
          books(out, plan.seed, phone.log_path),
          rested(first) {}

    void Run() {
        std::atomic<bool> over = false;
        std::thread follower([&] {
            while (!over) {
                if (!books.Follow()) std::this_thread::sleep_for(milliseconds(5));
            }
        });
        std::chrono::nanoseconds cut_at(0);
        if (plan.end == End::kCrash) {
            Crash();
        } else if (phone.CameUp()) {
            plan.end == End::kPower ? WaitForThePowerCut() : Live();
            cut_at = std::chrono::steady_clock::now().time_since_epoch();
        }
        phone.Kill();
        over = true;
        follower.join();
        books.End(plan.end != End::kRest && plan.end != End::kExit, Delivered());
        if (plan.end == End::kPower) {
            tree->CutBack(kNotes, cut_at - kSyncDelay - plan.sync_time() - kBusyMachine);
        }
        if (tree) tree->Check(books);
    }

    // Returns the text for the report of a fault.
    std::string LogEnd() const { return phone.Stacks(); }

  private:
    void Live() {
        if (!rested) Rest();
        for (int round = 1; round < plan.rounds && !phone.Ended(); ++round) {
            Work(End::kRest);
            Rest();
        }
        Work(plan.end);
        if (plan.end == End::kRest) {
            Rest();
            EndInOrder();
        }
    }

    void Crash() {
        Settings settings(phone, report, config, kFactoryDefault, plan.seed);
        // One process in twelve lives until one capture has ended and the next one has begun.
        const uint64_t kind = dice.Below(12);
        const bool two_captures = kind == 0;
        const milliseconds life(two_captures ? 1500 + dice.Below(500)
                                : kind < 4   ? 1 + dice.Below(100)
                                             : 100 + dice.Below(500));
        const auto start = std::chrono::steady_clock::now();
        const auto lives = [&] { return std::chrono::steady_clock::now() - start < life; };
        std::thread console(
            [&, exception = dice.OneIn(2), at = milliseconds(30 + dice.Below(270))] {
                while (two_captures && lives() && phone.Console("notify 7").empty()) continue;
                if (!exception) return;
                std::this_thread::sleep_until(start + at);
                phone.Console("exception");
            });
        while (lives() && !phone.Ended()) std::this_thread::sleep_for(milliseconds(1));
        phone.Kill();
        console.join();
        Check(phone.Wait() == -SIGKILL, "the daemon ended by itself");
        settings.Check();
    }

    void WaitForThePowerCut() {
        std::this_thread::sleep_for(milliseconds(100 + dice.Below(3900)));
        // With small files, a second capture may follow, with or without an exception mark.
        if (!plan.large_files && dice.OneIn(2)) phone.Console("exception");
        if (!plan.large_files && dice.OneIn(2)) phone.Console("notify 7");
        std::this_thread::sleep_for(milliseconds(8000 + dice.Below(3000)));
    }

    // Returns after the trouble has stopped, or after the process has ended in the middle of it.
    void Work(End how) {
        phone.Console("rate 0");
        phone.Console("log_mode 1");
        Trouble trouble(phone, books, report, plan.seed * 1000 + dice.Below(1000));
        std::this_thread::sleep_for(milliseconds(1500 + dice.Below(3000)));
        Check(!phone.Ended(), "the daemon ended by itself");
        if (how == End::kRest) return;
        phone.Console("rate 0");
        phone.Console("log_mode 1");
        std::this_thread::sleep_for(milliseconds(dice.Below(500)));
        trouble.ExpectTheEnd();
        if (how == End::kExit) EndInOrder();
        if (how == End::kKill && dice.OneIn(2)) LoseTheDevice();
        phone.Kill();
    }

    void Rest() {
        for (const char* line :
             {"fail read EIO 0", "fail poll timeout 0", "fail open 0", "fail write 0", "sprinkle 0",
              "limit 0", "ipc any message 0", "at x 0", "rate 0", "host message 2"}) {
            phone.Console(line);
        }
        for (const char* request : {"recycle_ee 1", "recycle_keep_ee_size 0", "recycle_size 96",
                                    "file_size 2", "flush_interval 0"}) {
            Check(phone.Ask(request) == "ok", "refused at rest: " + std::string(request));
        }
        DrainAndClose();
        CompareHoldings();
    }

    void DrainAndClose() {
        const auto settled = [this] {
            return phone.Get("notifications_waiting") == "0" &&
                   phone.Get("host_messages_waiting") == "0";
        };
        phone.Console("log_mode 0");
        phone.Console("stream stop");
        Check(test::WaitUntil(settled, kPatience), "notifications hang");
        // Bytes that arrive after the notification of the log's end would open another capture.
        Check(phone.Ask("flush_log_buffer") == "ok", "the ring is not flushed");
        phone.Console("notify 2");
        Check(test::WaitUntil(settled, kPatience), "notifications hang");
        const uint64_t all = Delivered();
        const bool kept = test::WaitUntil(
            [&] { return books.ends_in_a_gap() || books.position() == all; }, kPatience);
        Check(kept, "the modem handed over " + std::to_string(all) + " bytes, and at rest only " +
                        std::to_string(books.position()) + " are in closed files");
    }

    void CompareHoldings() {
        // The daemon notices at the next broadcast that a subscriber has closed its connection.
        for (int i = 0; i < 2; ++i) phone.Ask("log_mode 0");
        std::this_thread::sleep_for(milliseconds(300));  // the slot of the last client becomes free
        Holdings now = phone.Holds();
        if (!rested) rested = now;
        const bool same = test::WaitUntil([&] {
            now = phone.Holds();
            return now.descriptors == rested->descriptors && now.threads == rested->threads;
        });
        char text[200];
        snprintf(
            text, sizeof(text),
            "at rest: %zu descriptors, %zu threads (first %zu, %zu), %ld kB (%ld), peak %ld kB",
            now.descriptors, now.threads, rested->descriptors, rested->threads, now.rss_kb, warm_kb,
            now.peak_kb);
        report.Note(text);
        if (books.position() != 0 && warm_kb == 0) warm_kb = now.rss_kb;
        const bool lean =
            (warm_kb == 0 || now.rss_kb <= warm_kb + kMoreMemoryKb) && now.peak_kb <= kMostMemoryKb;
        Check(same && (lean || kSanitized), text);
    }

    void EndInOrder() {
        Check(phone.Ask("transfer_type 3") == "ok", "exit is refused");
        Check(test::WaitUntil([this] { return phone.Ended(); }, kPatience),
              "the daemon does not end");
        if (!phone.Ended()) return;
        const int status = phone.Wait();
        Check(status == 0, "the daemon ended with status " + std::to_string(status));
    }

    // The daemon requests its restart. Then the service manager, here the caller, ends it.
    void LoseTheDevice() {
        const auto asked = [this] {
            return phone.Console("property vendor.quarn.qrx.restart").starts_with("1\n");
        };
        const uint64_t told = report.Sums()[kRemovalsTold];
        phone.Console("uevent remove vqmi wwanD0MDLog");
        Check(test::WaitUntil(asked, kPatience), "no restart is requested");
        Check(test::WaitUntil([&] { return report.Sums()[kRemovalsTold] != told; }, kPatience),
              "no subscriber gets the notification");
        report.Add("removals of the log device");
    }

    void Check(bool holds, const std::string& fault) {
        if (!holds) report.Fault(fault + "\n" + phone.Stacks());
    }

    Report& report;
    const Plan plan;
    Dice dice;
    const std::string config;  // contents of the configuration file before the start
    const std::unique_ptr<TreeCheck> tree;
    Phone phone;
    Account books;
    std::optional<Holdings>& rested;
    long warm_kb = 0;  // memory at the first rest after work
};

// --- the whole run

struct Call {
    std::vector<End> ends;
    unsigned long seconds = 20, rounds = 0, boxes = 1;  // rounds 0: `seconds` decides
    uint64_t seed = 1;
    std::string keep;
};

// Removes the log tree, because trouble leaves folders that the checks after a crash do not expect.
void ClearTree() {
    for (const auto& entry : fs::directory_iterator(kTree)) fs::remove_all(entry.path());
}

// The settings that a process starts with.
void WriteConfig(const Plan& plan) {
    fs::remove(kConfigPath);
    if (plan.end == End::kCrash) return;  // the factory default
    const bool large_files = plan.end == End::kPower && plan.large_files;
    test::WriteFile(kConfigPath, "transfer_type 1\nrecycle_size 96\nfile_size " +
                                     std::string(large_files ? "50\n" : "1\n"));
}

int Run(const Call& call) {
    fs::create_directories(kTree);
    if (mount("tmpfs", kTree.c_str(), "tmpfs", 0, "size=192m") != 0) {
        perror("quarn_soak: cannot make the phone's storage");
        return 1;
    }
    test::WriteFile("/data/filter", "a filter of the modem's log");
    test::WriteFile("/vendor/etc/quarn_default.cfg", kFactoryDefault);
    Report report("/data/journal");
    Dice dice(call.seed);
    const auto end = std::chrono::steady_clock::now() + seconds(call.seconds);
    std::optional<Holdings> rested;
    std::optional<End> before;
    uint64_t lives = 0;
    const auto live = [&](End how, bool large_files) {
        Plan plan;
        plan.end = how;
        plan.large_files = large_files;
        plan.seed = call.seed * 1'000'000 + ++lives;
        plan.rounds = 1 + static_cast<int>(dice.Below(1 + call.seconds / 60));
        const bool other_tree = before && IsSudden(*before) != IsSudden(plan.end);
        if (other_tree) ClearTree();
        if (!before || other_tree || plan.end == End::kPower || before == End::kPower) {
            WriteConfig(plan);
        }
        fs::remove(kNotes);
        before = plan.end;
        const std::string name = std::to_string(lives);
        report.Note("process " + name);
        const int faults = report.faults;
        fs::remove(kDelivered);
        Life life(report, name, plan, rested);
        life.Run();
        if (report.faults != faults) report.Say("    in process " + name + "\n" + life.LogEnd());
        report.Add("processes");
        if (call.keep.empty()) fs::remove("/data/log." + name);
    };
    const auto more = [&](unsigned long round) {
        if (call.rounds != 0) return round < call.rounds;
        return round == 0 || std::chrono::steady_clock::now() < end;
    };
    for (unsigned long round = 0; more(round); ++round) {
        for (const End how : call.ends) {
            for (int i = how == End::kCrash ? 10 : 1; i > 0; --i) {
                live(how, round % 2 != 0);
            }
        }
    }
    const bool cuts = std::find(call.ends.begin(), call.ends.end(), End::kPower) != call.ends.end();
    if (cuts && report.Sums()[kOldKib] == 0) report.Fault("no power cut had anything to check");
    for (const auto& [what, count] : report.Sums()) {
        const std::string number = std::to_string(count);
        report.Say(std::string(14 - std::min<size_t>(14, number.size()), ' ') + number + " " +
                   what);
    }
    report.Say(std::to_string(report.faults) + " faults");
    if (!call.keep.empty()) fs::copy(kTree, "/box/tree", fs::copy_options::recursive);
    return report.faults == 0 ? 0 : 1;
}

// Starts this program again in boxes side by side.
int RunBoxes(const Call& call, const std::string& ends) {
    const std::string self = fs::read_symlink("/proc/self/exe");
    std::vector<pid_t> children;
    for (unsigned long box = 0; box < call.boxes; ++box) {
        const uint64_t seed = call.seed + box;
        const unsigned long rounds =
            call.rounds / call.boxes + (box < call.rounds % call.boxes ? 1 : 0);
        if (call.rounds != 0 && rounds == 0) break;
        std::vector<std::string> words = {SIM_BOX};
        if (!call.keep.empty()) words.insert(words.end(), {"--folder", call.keep});
        words.insert(words.end(), {self, "--seed", std::to_string(seed), "--ends", ends});
        if (!call.keep.empty()) words.insert(words.end(), {"--keep", call.keep});
        if (call.rounds != 0) words.insert(words.end(), {"--rounds", std::to_string(rounds)});
        words.insert(words.end(), {"--seconds", std::to_string(call.seconds)});
        printf("seed %" PRIu64 "\n", seed);
        fflush(stdout);
        std::vector<char*> command;
        for (std::string& word : words) command.push_back(word.data());
        command.push_back(nullptr);
        children.push_back(fork());
        if (children.back() == 0) {
            execv(command[0], command.data());
            perror("quarn_soak: sim/box");
            _exit(1);
        }
    }
    int worst = 0;
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        if (status != 0) worst = 1;
    }
    return worst;
}

// Returns false if `list` contains anything but kinds of ends.
bool ParseEnds(std::string_view list, std::vector<End>& ends) {
    ends.clear();
    while (true) {
        const size_t comma = std::min(list.find(','), list.size());
        const auto name = std::find(kEndNames.begin(), kEndNames.end(), list.substr(0, comma));
        if (name == kEndNames.end()) return false;
        ends.push_back(static_cast<End>(name - kEndNames.begin()));
        if (ends.back() == End::kPower && !kCanCutPower) return false;
        if (comma == list.size()) return true;
        list.remove_prefix(comma + 1);
    }
}

int Main(int argc, char** argv) {
    static constexpr option kOptions[] = {
        {"ends", required_argument, nullptr, 'e'},   {"seconds", required_argument, nullptr, 'n'},
        {"rounds", required_argument, nullptr, 'r'}, {"seed", required_argument, nullptr, 's'},
        {"boxes", required_argument, nullptr, 'b'},  {"keep", required_argument, nullptr, 'k'},
        {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0}};
    Call call;
    bool wrong = false;
    std::string ends = kCanCutPower ? "rest,exit,kill,crash,power" : "rest,exit,kill,crash";
    for (int option; (option = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        if (option == 'h') return fputs(kHelp, stdout) < 0;
        if (option == '?') return 2;
        char* rest = optarg;
        const uint64_t number = strtoull(optarg, &rest, 10);
        const bool is_number = option != 'e' && option != 'k';
        wrong = wrong || (is_number && (number == 0 || *rest != '\0'));
        if (option == 'e') ends = optarg;
        if (option == 'n') call.seconds = number;
        if (option == 'r') call.rounds = number;
        if (option == 's') call.seed = number;
        if (option == 'b') call.boxes = number;
        if (option == 'k') call.keep = optarg;
    }
    wrong = wrong || optind != argc || (call.boxes > 1 && !call.keep.empty());
    if (wrong || !ParseEnds(ends, call.ends)) {
        fprintf(stderr, "quarn_soak: wrong call (quarn_soak --help)\n");
        return 2;
    }
    return fs::exists("/box") ? Run(call) : RunBoxes(call, ends);
}

}  // namespace

}  // namespace soak

int main(int argc, char** argv) { return soak::Main(argc, argv); }
