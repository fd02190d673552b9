// Does everything at once to the unchanged daemon on the simulated phone, for a time and by a seed,
// and accounts for every byte: quarn_soak --help.
#include <getopt.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/soak/account.h"
#include "tests/soak/phone.h"
#include "tests/soak/trouble.h"

namespace fs = std::filesystem;

namespace soak {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr const char* kHelp =
    "Use: quarn_soak [--seconds N] [--seed S] [--keep DIR]\n"
    "\n"
    "Runs the daemon on a simulated phone in a box of its own. While the modem streams as fast as\n"
    "the daemon reads, the modem raises notifications and has exceptions, clients send commands "
    "and\n"
    "noise, captures are copied, subscribers come and go, log port and modem IPC fail, the disk "
    "is\n"
    "full now and then, and the daemon ends in order, after its log device has vanished, or at\n"
    "once, and starts anew. What happens is drawn from the seed; when it happens is not.\n"
    "\n"
    "All log files are read and compared with the stream that the modem made. What is missing "
    "must\n"
    "have been told in the daemon's log or be what a sudden end costs, and every process must "
    "rest\n"
    "with the descriptors, threads and memory that it had when it rested before.\n"
    "\n"
    "  --seconds N   how long (default 20); the end of the last process comes on top\n"
    "  --seed S      (default 1)\n"
    "  --keep DIR    keeps the daemon's logs, the log tree and a journal of all that was done in "
    "DIR\n"
    "\n"
    "Exit status: 0 when no fault was found, 1 otherwise, 2 for a wrong call.\n";

// Every wait that should be short.
constexpr seconds kPatience(60);
constexpr long kMoreMemoryKb = 8 * 1024;   // at a later rest than at the first after work
constexpr long kMostMemoryKb = 96 * 1024;  // ever: the ring's 16 MiB, buffers, stacks, programs

bool Within(seconds limit, const auto& holds) {
    const auto end = steady_clock::now() + limit;
    while (!holds()) {
        if (steady_clock::now() > end) return false;
        std::this_thread::sleep_for(milliseconds(20));
    }
    return true;
}

// The life of one process of the daemon.
class Life {
  public:
    Life(Report& out, Account& account, Counts& sums, uint64_t life_seed, std::string log_path)
        : report(out),
          books(account),
          counts(sums),
          seed(life_seed),
          dice(seed),
          phone(out),
          log(std::move(log_path)) {}

    void Run(int rounds, Ending ending);

  private:
    bool Start();
    void Work(Ending ending, bool last);
    void Rest();
    void Heal();
    void DrainAndClose();
    void CompareHoldings();
    std::optional<uint64_t> EndInOrder();
    std::optional<uint64_t> EndAtOnce();

    Report& report;
    Account& books;
    Counts& counts;
    const uint64_t seed;
    Dice dice;
    Phone phone;
    const std::string log;
    std::optional<Holdings> first;
    long warm_kb = 0;  // memory at the first rest after work
    std::optional<uint64_t> delivered;
};

void Life::Run(int rounds, Ending ending) {
    if (!phone.Start("property ro.boot.cdt_hwid soak\nsource generated " + std::to_string(seed) +
                         "\nrate 0\nfail init " + dice.Number(0, 3) + "\n",
                     log)) {
        return;
    }
    books.Begin(seed, log);
    std::atomic<bool> over = false;
    std::thread follower([&] {
        while (!over) {
            books.Follow();
            std::this_thread::sleep_for(milliseconds(5));
        }
    });
    Rest();
    for (int round = 1; round <= rounds && phone.Runs(); ++round) {
        Work(ending, round == rounds);
    }
    if (ending == Ending::kAtRest) delivered = EndInOrder();
    phone.Kill();
    over = true;
    follower.join();
    books.End(ending, ending == Ending::kKilled ? delivered : books.delivered());
    if (ending != Ending::kKilled && !books.delivered()) report.Fault("it did not end in order");
}

void Life::Work(Ending ending, bool last) {
    phone.Console("rate 0");
    phone.Console("log_mode 1");
    Trouble trouble(phone, books, report, counts, seed * 1000 + dice.Below(1000));
    std::this_thread::sleep_for(milliseconds(2000 + dice.Below(2000)));
    if (!phone.Runs()) report.Fault("the daemon ended by itself\n" + phone.Stacks());
    if (!last || ending == Ending::kAtRest) {
        trouble.Stop();
        Rest();
        return;
    }
    trouble.ExpectTheEnd();
    delivered = ending == Ending::kKilled ? EndAtOnce() : EndInOrder();
}

// --- rest: nothing is wrong, nothing flows, everything is in files

void Life::Rest() {
    Heal();
    DrainAndClose();
    CompareHoldings();
}

void Life::Heal() {
    for (const char* line :
         {"fail read EIO 0", "fail poll timeout 0", "fail open 0", "fail write 0", "sprinkle 0",
          "limit 0", "ipc any message 0", "at x 0"}) {
        phone.Console(line);
    }
    for (const char* request : {"recycle_ee 1", "recycle_keep_ee_size 0", "recycle_size 96",
                                "file_size 2", "flush_interval 0"}) {
        if (Ask(phone, report, request) != "ok") {
            report.Fault("refused though nothing is wrong: " + std::string(request));
        }
    }
}

void Life::DrainAndClose() {
    phone.Console("log_mode 0");
    phone.Console("stream stop");
    const auto settled = [this] {
        return (phone.Console("state").value_or("")).find(" handled, 0 waiting") !=
               std::string::npos;
    };
    if (!Within(kPatience, settled)) report.Fault("notifications hang\n" + phone.Stacks());
    // A chunk that is not full is committed when the port has been quiet for one poll.
    int64_t before = -1;
    Within(kPatience, [&] {
        std::this_thread::sleep_for(milliseconds(1200));
        return std::exchange(before, phone.State("delivered")) == before;
    });
    if (Ask(phone, report, "flush_log_buffer") != "ok") report.Fault("the ring is not flushed");
    phone.Console("notify 2");
    if (!Within(kPatience, settled)) report.Fault("notifications hang\n" + phone.Stacks());
    const auto all = static_cast<uint64_t>(phone.State("delivered"));
    if (!Within(kPatience, [&] { return books.ends_in_a_gap() || books.position() == all; })) {
        report.Fault("the modem handed over " + std::to_string(all) + " bytes, and at rest only " +
                     std::to_string(books.position()) + " are in closed files\n" + phone.Stacks());
    }
}

void Life::CompareHoldings() {
    // Who hung up is noticed at the next broadcast.
    for (int i = 0; i < 2; ++i) Ask(phone, report, "log_mode 0");
    Holdings now = phone.Holds();
    const bool same = Within(seconds(10), [&] {
        now = phone.Holds();
        return !first || (now.descriptors == first->descriptors && now.threads == first->threads);
    });
    report.Note("rest: " + std::to_string(now.descriptors) + " descriptors, " +
                std::to_string(now.threads) + " threads, " + std::to_string(now.rss_kb) +
                " kB, at most " + std::to_string(now.peak_kb) + " kB");
    if (!same) {
        report.Fault("at rest " + std::to_string(now.descriptors) + " descriptors and " +
                     std::to_string(now.threads) + " threads, but " +
                     std::to_string(first->descriptors) + " and " + std::to_string(first->threads) +
                     " at the start\n" + phone.Stacks());
    }
    if (first && warm_kb == 0) warm_kb = now.rss_kb;
    if (!first) first = now;
    if ((warm_kb != 0 && now.rss_kb > warm_kb + kMoreMemoryKb) || now.peak_kb > kMostMemoryKb) {
        report.Fault("memory grows: " + std::to_string(now.rss_kb) + " kB at rest after " +
                     std::to_string(warm_kb) + " kB, at most " + std::to_string(now.peak_kb));
    }
}

// --- ends

std::optional<uint64_t> Life::EndInOrder() {
    if (Ask(phone, report, "transfer_type 3") != "ok") report.Fault("exit is refused");
    const auto status = phone.WaitForEnd(kPatience);
    if (!status) {
        report.Fault("the daemon does not end\n" + phone.Stacks());
    } else if (*status != 0) {
        report.Fault("the daemon ended with status " + std::to_string(*status));
    }
    return std::nullopt;
}

std::optional<uint64_t> Life::EndAtOnce() {
    phone.Console("stream stop");
    const int64_t all = phone.State("delivered");
    phone.Kill();
    return static_cast<uint64_t>(all);
}

// --- the whole run

void PrintSummary(Report& report, const Totals& t, const Counts& c, int lives) {
    char text[1600];
    snprintf(text, sizeof(text),
             "%d processes; %" PRIu64 " requests (%" PRIu64 " ok), %" PRIu64
             " pieces of garbage, %" PRIu64 " copies, %" PRIu64 " notifications, %" PRIu64
             " exceptions, %" PRIu64 " faults, %" PRIu64 " full disks, %" PRIu64
             " subscribers told %" PRIu64 " times, %" PRIu64
             " reboots\n"
             "%15" PRIu64 " bytes kept, in %" PRIu64 " files (%" PRIu64 " recycled, %" PRIu64
             " torn by a sudden end)\n"
             "%15" PRIu64
             " bytes dropped at exit, as the log counts them\n"
             "%15" PRIu64
             " bytes came while a process ended\n"
             "%15" PRIu64 " bytes given up by %" PRIu64
             " closings that could not write, as the log tells\n"
             "%15" PRIu64
             " bytes lost by sudden ends\n"
             "%15" PRIu64
             " bytes in power-on logs\n"
             "%d faults",
             lives, c.requests.load(), c.answered_ok.load(), c.garbage.load(), c.copies.load(),
             c.notifications.load(), c.exceptions.load(), c.faults.load(), c.full_disks.load(),
             c.subscribers.load(), c.told.load(), c.reboots.load(), t.kept, t.files, t.recycled,
             t.torn, t.dropped, t.behind_exit, t.given_up, t.closings, t.killed, t.power_on,
             report.faults());
    report.Say(text);
}

int Run(unsigned length, uint64_t seed, bool keep) {
    fs::create_directories(kTree);
    if (mount("tmpfs", kTree.c_str(), "tmpfs", 0, "size=192m") != 0) {
        perror("quarn_soak: cannot make the phone's storage");
        return 1;
    }
    std::ofstream("/data/filter") << "a filter of the modem's log";
    Report report("/data/journal");
    Account books(report);
    Counts counts = {};
    Dice dice(seed);
    const auto end = steady_clock::now() + seconds(length);
    int lives = 0;
    for (bool last = false; !last;) {
        static constexpr Ending kEndings[] = {Ending::kAtRest, Ending::kUnderLoad, Ending::kKilled};
        const int rounds = 1 + static_cast<int>(dice.Below(2 + length / 60));
        const Ending ending = kEndings[static_cast<size_t>(lives) % std::size(kEndings)];
        const uint64_t life_seed = seed * 1'000'000 + static_cast<uint64_t>(++lives);
        const std::string log = "/data/log." + std::to_string(lives);
        report.Note("process " + std::to_string(lives) + ", ending " +
                    std::to_string(static_cast<int>(ending)));
        const int faults = report.faults();
        Life(report, books, counts, life_seed, log).Run(rounds, ending);
        if (report.faults() != faults) report.Say("    in process " + std::to_string(lives));
        if (!keep) fs::remove(log);
        last = steady_clock::now() >= end;
    }
    PrintSummary(report, books.totals(), counts, lives);
    if (keep) fs::copy(kTree, "/box/tree", fs::copy_options::recursive);
    return report.faults() == 0 ? 0 : 1;
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
        if (option == 'h') return puts(kHelp) < 0;
        if (option == '?') return 2;
        if (option == 'n') length = static_cast<unsigned>(strtoul(optarg, nullptr, 10));
        if (option == 's') seed = strtoull(optarg, nullptr, 10);
        if (option == 'k') keep = optarg;
    }
    if (getenv("QUARN_SOAK_BOXED") != nullptr) return Run(length, seed, !keep.empty());
    printf("seed %" PRIu64 ", %u seconds\n", seed, length);
    fflush(stdout);
    setenv("QUARN_SOAK_BOXED", "1", 1);
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
