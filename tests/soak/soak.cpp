// Does everything at once to the unchanged daemon on the simulated phone, for a time and by a seed,
// and accounts for every byte: quarn_soak --help.
#include <getopt.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "tests/soak/account.h"
#include "tests/soak/phone.h"
#include "tests/soak/trouble.h"
#include "tests/support.h"

using std::chrono::seconds;

namespace soak {

namespace {

constexpr const char* kHelp = R"(Use: quarn_soak [--seconds N] [--seed S] [--keep DIR]

Runs the daemon on a simulated phone in a box of its own. While the modem streams as fast as the
daemon reads, the modem raises notifications and has exceptions, clients send commands and noise,
captures are copied, the running one's file or folder is deleted, subscribers come and go, log port
and modem IPC fail, the disk is full now and then, and the daemon ends in order, after its log device
has vanished, or at once, and starts anew.
What happens is drawn from the seed; when it happens is not.

All log files, deleted ones too, are read and compared with the stream that the modem made. What is
missing must have been told in the daemon's log or be what a sudden end costs, and every process must rest with the
descriptors, threads and memory that it had when it rested before.

  --seconds N   how long (default 20), and on top of it until each way to end was met
  --seed S      (default 1)
  --keep DIR    keeps the daemon's logs, the log tree and a journal of all that was done in DIR

Exit status: 0 when no fault was found, 1 otherwise, 2 for a wrong call.
)";

// Every wait that should be short.
constexpr seconds kPatience(60);
constexpr long kMoreMemoryKb = 8 * 1024;  // at a later rest than at the first after work
#ifdef SANITIZED
constexpr bool kSanitized = true;  // most of the memory is the sanitizer's
#else
constexpr bool kSanitized = false;
#endif
constexpr long kMostMemoryKb = 96 * 1024;  // ever: the ring's 16 MiB, buffers, stacks, programs

// The life of one process of the daemon.
class Life {
  public:
    // Where the modem's log was left on, it is slow until someone looks. `first` is what the first
    // process held when it had done nothing yet.
    Life(Report& out, const std::string& name, uint64_t life_seed, std::optional<Holdings>& first)
        : report(out),
          seed(life_seed),
          dice(seed),
          phone(out, name,
                "property ro.boot.cdt_hwid soak\nmd_state 6\nsource generated " +
                    std::to_string(seed) + "\nrate 20M\nfail init " +
                    std::to_string(dice.Below(4)) + "\n"),
          books(out, seed, phone.log_path),
          rested(first) {}

    void Run(int rounds, Ending ending) {
        std::atomic<bool> over = false;
        std::thread follower([&] {
            while (!over) {
                if (!books.Follow()) std::this_thread::sleep_for(milliseconds(5));
            }
        });
        if (phone.CameUp()) Live(rounds, ending);
        phone.Kill();
        over = true;
        follower.join();
        books.End(ending, Delivered());
    }

  private:
    void Live(int rounds, Ending ending) {
        if (!rested) Rest();
        for (int round = 1; round < rounds && !phone.Ended(); ++round) {
            Work(Ending::kAtRest);
            Rest();
        }
        Work(ending);
        if (ending == Ending::kAtRest) {
            Rest();
            EndInOrder();
        }
    }

    // Ends with trouble stopped, or with the process ended in the middle of it.
    void Work(Ending ending) {
        phone.Console("rate 0");
        phone.Console("log_mode 1");
        Trouble trouble(phone, books, report, seed * 1000 + dice.Below(1000));
        std::this_thread::sleep_for(milliseconds(1500 + dice.Below(3000)));
        Check(!phone.Ended(), "the daemon ended by itself");
        if (ending == Ending::kAtRest) return;
        phone.Console("rate 0");
        phone.Console("log_mode 1");
        std::this_thread::sleep_for(milliseconds(dice.Below(500)));
        trouble.ExpectTheEnd();
        if (ending == Ending::kUnderLoad) EndInOrder();
        if (ending == Ending::kKilled && dice.OneIn(2)) LoseTheDevice();
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
        // What comes behind the notification of the end opens another capture.
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
        // Who hung up is noticed at the next broadcast.
        for (int i = 0; i < 2; ++i) phone.Ask("log_mode 0");
        std::this_thread::sleep_for(milliseconds(300));  // the last client's place becomes free
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

    // The daemon asks for its restart, and ends as the service manager has it.
    void LoseTheDevice() {
        const auto asked = [this] {
            return phone.Console("property vendor.quarn.qrx.restart").starts_with("1\n");
        };
        const uint64_t told = report.Sums()[kRemovalsTold];
        phone.Console("uevent remove vqmi wwanD0MDLog");
        Check(test::WaitUntil(asked, kPatience), "no restart is asked for");
        Check(test::WaitUntil([&] { return report.Sums()[kRemovalsTold] != told; }, kPatience),
              "no subscriber is told");
        report.Add("removals of the log device");
    }

    void Check(bool holds, const std::string& fault) {
        if (!holds) report.Fault(fault + "\n" + phone.Stacks());
    }

    Report& report;
    const uint64_t seed;
    Dice dice;
    Phone phone;
    Account books;
    std::optional<Holdings>& rested;
    long warm_kb = 0;  // memory at the first rest after work
};

// --- the whole run

int Run(unsigned length, uint64_t seed, bool keep) {
    fs::create_directories(kTree);
    if (mount("tmpfs", kTree.c_str(), "tmpfs", 0, "size=192m") != 0) {
        perror("quarn_soak: cannot make the phone's storage");
        return 1;
    }
    test::WriteFile("/data/filter", "a filter of the modem's log");
    Report report("/data/journal");
    Dice dice(seed);
    const auto end = std::chrono::steady_clock::now() + seconds(length);
    std::optional<Holdings> rested;
    // On until each ending was met.
    for (uint64_t lives = 0; lives % 3 != 0 || lives == 0 || std::chrono::steady_clock::now() < end;
         ++lives) {
        static constexpr Ending kEndings[] = {Ending::kAtRest, Ending::kUnderLoad, Ending::kKilled};
        const int rounds = 1 + static_cast<int>(dice.Below(1 + length / 60));
        const std::string name = std::to_string(lives + 1);
        report.Note("process " + name);
        const int faults = report.faults;
        fs::remove(kDelivered);
        Life(report, name, seed * 1'000'000 + lives + 1, rested).Run(rounds, kEndings[lives % 3]);
        if (report.faults != faults) report.Say("    in process " + name);
        report.Add("processes");
        if (!keep) fs::remove("/data/log." + name);
    }
    for (const auto& [what, count] : report.Sums()) {
        const std::string number = std::to_string(count);
        report.Say(std::string(14 - std::min<size_t>(14, number.size()), ' ') + number + " " +
                   what);
    }
    report.Say(std::to_string(report.faults) + " faults");
    if (keep) fs::copy(kTree, "/box/tree", fs::copy_options::recursive);
    return report.faults == 0 ? 0 : 1;
}

int Main(int argc, char** argv) {
    static constexpr option kOptions[] = {{"seconds", required_argument, nullptr, 'n'},
                                          {"seed", required_argument, nullptr, 's'},
                                          {"keep", required_argument, nullptr, 'k'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    unsigned length = 20;
    uint64_t seed = 1;
    std::string keep;
    for (int option; (option = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        if (option == 'h') return fputs(kHelp, stdout) < 0;
        if (option == '?') return 2;
        if (option == 'n') length = static_cast<unsigned>(strtoul(optarg, nullptr, 10));
        if (option == 's') seed = strtoull(optarg, nullptr, 10);
        if (option == 'k') keep = optarg;
    }
    if (fs::exists("/box")) return Run(length, seed, !keep.empty());
    printf("seed %" PRIu64 ", %u seconds\n", seed, length);
    fflush(stdout);
    std::vector<char*> command = {const_cast<char*>(SIM_BOX)};
    if (!keep.empty()) command.insert(command.end(), {const_cast<char*>("--folder"), keep.data()});
    std::string self = fs::read_symlink("/proc/self/exe");
    command.push_back(self.data());
    command.insert(command.end(), argv + 1, argv + argc);
    command.push_back(nullptr);
    execv(command[0], command.data());
    perror("quarn_soak: sim/box");
    return 1;
}

}  // namespace

}  // namespace soak

int main(int argc, char** argv) { return soak::Main(argc, argv); }
