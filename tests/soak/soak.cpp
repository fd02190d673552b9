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
#include <iomanip>
#include <sstream>
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
    "  --seconds N   how long (default 20), and on top of it until each way to end was met\n"
    "  --seed S      (default 1)\n"
    "  --keep DIR    keeps the daemon's logs, the log tree and a journal of all that was done in "
    "DIR\n"
    "\n"
    "Exit status: 0 when no fault was found, 1 otherwise, 2 for a wrong call.\n";

// Every wait that should be short.
constexpr seconds kPatience(60);
constexpr long kMoreMemoryKb = 8 * 1024;  // at a later rest than at the first after work
#ifdef SANITIZED
constexpr bool kSanitized = true;  // most of the memory is the sanitizer's
#else
constexpr bool kSanitized = false;
#endif
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

    // `rested` is what the first process held when it had done nothing yet.
    void Run(int rounds, Ending ending, std::optional<Holdings>& rested);

  private:
    void Live(int rounds, Ending ending, std::optional<Holdings>& rested);
    void Work(Ending ending);
    void Rest(std::optional<Holdings>& rested);
    void Heal();
    void DrainAndClose();
    void CompareHoldings(std::optional<Holdings>& rested);
    void EndInOrder();
    void LoseTheDevice();
    void Check(bool holds, const std::string& fault) {
        if (!holds) report.Fault(fault + "\n" + phone.Stacks());
    }

    Report& report;
    Account& books;
    Counts& counts;
    const uint64_t seed;
    Dice dice;
    Phone phone;
    const std::string log;
    long warm_kb = 0;  // memory at the first rest after work
};

void Life::Run(int rounds, Ending ending, std::optional<Holdings>& rested) {
    // Where the modem's log was left on, it is slow until someone looks.
    const std::string scenario = "property ro.boot.cdt_hwid soak\nmd_state 6\nsource generated " +
                                 std::to_string(seed) + "\nrate 20M\nfail init " +
                                 std::to_string(dice.Below(4)) + "\n";
    books.Begin(seed, log);
    std::atomic<bool> over = false;
    std::thread follower([&] {
        while (!over) {
            if (!books.Follow()) std::this_thread::sleep_for(milliseconds(5));
        }
    });
    if (phone.Start(scenario, log)) Live(rounds, ending, rested);
    phone.Kill();
    over = true;
    follower.join();
    books.End(ending, Phone::Delivered());
}

void Life::Live(int rounds, Ending ending, std::optional<Holdings>& rested) {
    if (!rested) Rest(rested);
    for (int round = 1; round < rounds && phone.Runs(); ++round) {
        Work(Ending::kAtRest);
        Rest(rested);
    }
    Work(ending);
    if (ending == Ending::kAtRest) {
        Rest(rested);
        EndInOrder();
    }
}

// Ends with trouble stopped, or with the process ended in the middle of it.
void Life::Work(Ending ending) {
    phone.Console("rate 0");
    phone.Console("log_mode 1");
    Trouble trouble(phone, books, report, counts, seed * 1000 + dice.Below(1000));
    std::this_thread::sleep_for(milliseconds(1500 + dice.Below(3000)));
    Check(phone.Runs(), "the daemon ended by itself");
    if (ending == Ending::kAtRest) return;
    phone.Console("rate 0");
    phone.Console("log_mode 1");
    std::this_thread::sleep_for(milliseconds(dice.Below(500)));
    trouble.ExpectTheEnd();
    if (ending == Ending::kUnderLoad) EndInOrder();
    if (ending == Ending::kKilled && dice.OneIn(2)) LoseTheDevice();
    phone.Kill();
}

// --- rest: nothing is wrong, nothing flows, everything is in files

void Life::Rest(std::optional<Holdings>& rested) {
    Heal();
    DrainAndClose();
    CompareHoldings(rested);
}

void Life::Heal() {
    for (const char* line :
         {"fail read EIO 0", "fail poll timeout 0", "fail open 0", "fail write 0", "sprinkle 0",
          "limit 0", "ipc any message 0", "at x 0", "rate 0", "host message 2"}) {
        phone.Console(line);
    }
    for (const char* request : {"recycle_ee 1", "recycle_keep_ee_size 0", "recycle_size 96",
                                "file_size 2", "flush_interval 0"}) {
        Check(Ask(phone, report, request) == "ok", "refused at rest: " + std::string(request));
    }
}

void Life::DrainAndClose() {
    const auto settled = [this] {
        const std::string state = phone.Console("state");
        return state.find("handled, 0 waiting") != std::string::npos &&
               state.find("handled and 0 waiting") != std::string::npos;
    };
    phone.Console("log_mode 0");
    phone.Console("stream stop");
    Check(Within(kPatience, settled), "notifications hang");
    // What comes behind the notification of the end opens another capture.
    Check(Ask(phone, report, "flush_log_buffer") == "ok", "the ring is not flushed");
    phone.Console("notify 2");
    Check(Within(kPatience, settled), "notifications hang");
    const uint64_t all = Phone::Delivered();
    const bool kept =
        Within(kPatience, [&] { return books.ends_in_a_gap() || books.position() == all; });
    Check(kept, "the modem handed over " + std::to_string(all) + " bytes, and at rest only " +
                    std::to_string(books.position()) + " are in closed files");
}

void Life::CompareHoldings(std::optional<Holdings>& rested) {
    // Who hung up is noticed at the next broadcast.
    for (int i = 0; i < 2; ++i) Ask(phone, report, "log_mode 0");
    std::this_thread::sleep_for(milliseconds(300));  // the last client's place becomes free
    Holdings now = phone.Holds();
    if (!rested) rested = now;
    const bool same = Within(seconds(10), [&] {
        now = phone.Holds();
        return now.descriptors == rested->descriptors && now.threads == rested->threads;
    });
    char text[200];
    snprintf(text, sizeof(text),
             "at rest: %zu descriptors, %zu threads (first %zu, %zu), %ld kB (%ld), peak %ld kB",
             now.descriptors, now.threads, rested->descriptors, rested->threads, now.rss_kb,
             warm_kb, now.peak_kb);
    report.Note(text);
    if (books.position() != 0 && warm_kb == 0) warm_kb = now.rss_kb;
    const bool lean =
        (warm_kb == 0 || now.rss_kb <= warm_kb + kMoreMemoryKb) && now.peak_kb <= kMostMemoryKb;
    Check(same && (lean || kSanitized), text);
}

// --- ends

void Life::EndInOrder() {
    Check(Ask(phone, report, "transfer_type 3") == "ok", "exit is refused");
    const auto status = phone.WaitForEnd(kPatience);
    Check(status.has_value(), "the daemon does not end");
    if (status) Check(*status == 0, "the daemon ended with status " + std::to_string(*status));
}

// The daemon asks for its restart, and ends as the service manager has it.
void Life::LoseTheDevice() {
    const uint64_t told = counts.reboots;
    phone.Console("uevent remove vqmi wwanD0MDLog");
    Check(Within(kPatience,
                 [this] {
                     return phone.Console("property vendor.quarn.qrx.restart").starts_with("1\n");
                 }),
          "no restart is asked for");
    Check(Within(kPatience, [&] { return counts.reboots != told; }), "no subscriber is told");
    ++counts.removals;
}

// --- the whole run

void PrintSummary(Report& report, const Totals& t, const Counts& c, int lives) {
    std::ostringstream out;
    out << lives << " processes, " << c.requests << " requests (" << c.answered_ok << " ok), "
        << c.garbage << " pieces of garbage, " << c.copies << " copies, " << c.notifications
        << " notifications, " << c.exceptions << " exceptions, " << c.faults << " faults, "
        << c.full_disks << " full disks, " << c.subscribers << " subscribers, told " << c.told
        << " times, " << c.removals << " removals of the log device (" << c.reboots << " told)\n";
    const auto line = [&out](uint64_t bytes, const std::string& what) {
        out << std::setw(14) << bytes << " bytes " << what << "\n";
    };
    line(t.kept, "kept, in " + std::to_string(t.files) + " files, " + std::to_string(t.recycled) +
                     " files recycled, " + std::to_string(t.torn) + " torn by a sudden end");
    line(t.dropped, "dropped by an exit, as the log counts them");
    line(t.behind_exit, "taken in while a process ended");
    line(t.given_up, "given up, as the log tells: " + std::to_string(t.closings) +
                         " times a close could not write, " + std::to_string(t.unread) +
                         " files recycled before they were read");
    line(t.killed, "lost by sudden ends");
    line(t.power_on, "in power-on logs");
    out << report.faults << " faults";
    report.Say(out.str());
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
    std::optional<Holdings> rested;
    int lives = 0;
    for (bool last = false; !last;) {
        static constexpr Ending kEndings[] = {Ending::kAtRest, Ending::kUnderLoad, Ending::kKilled};
        const int rounds = 1 + static_cast<int>(dice.Below(1 + length / 60));
        const Ending ending = kEndings[static_cast<size_t>(lives) % std::size(kEndings)];
        const uint64_t life_seed = seed * 1'000'000 + static_cast<uint64_t>(++lives);
        const std::string log = "/data/log." + std::to_string(lives);
        report.Note("process " + std::to_string(lives) + ", ending " +
                    std::to_string(static_cast<int>(ending)));
        const int faults = report.faults;
        Life(report, books, counts, life_seed, log).Run(rounds, ending, rested);
        if (report.faults != faults) report.Say("    in process " + std::to_string(lives));
        if (!keep) fs::remove(log);
        last = steady_clock::now() >= end && lives % 3 == 0;  // each ending was met
    }
    PrintSummary(report, books.totals(), counts, lives);
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
