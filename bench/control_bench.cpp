// Measures what clients cost: the round-trip time of a query with 1 client and with 10 clients, and
// the throughput of a capture while 10 clients query without a pause. Each round first measures a
// capture without clients for comparison.
//
// Use: control_bench [--size MIB] [--rounds N]     (in a box)
#include <android/log.h>
#include <cutils/sockets.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "control/protocol.h"
#include "control/quarn_command.h"
#include "control/quarn_ctrl_connect.h"
#include "core/quarn.h"
#include "core/system_utility.h"
#include "sim/modem.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kClients = 10;  // the maximum that the daemon serves

// Repeats the same generated records until it has delivered `size` bytes.
class LoopSource : public sim::LogSource {
  public:
    LoopSource(const std::vector<uint8_t>& stream, size_t size) : bytes(stream), left(size) {}
    size_t Read(uint8_t* out, size_t len) override {
        len = std::min({len, left, bytes.size() - at});
        memcpy(out, bytes.data() + at, len);
        at = (at + len) % bytes.size();
        left -= len;
        return len;
    }

  private:
    const std::vector<uint8_t>& bytes;
    size_t at = 0;
    size_t left;
};

// Sends one query and waits for the reply.
void Query(int fd) {
    constexpr char kRequest[] = "file_size";
    char reply[quarn::protocol::kReplySize];
    if (send(fd, kRequest, sizeof(kRequest), 0) != sizeof(kRequest) ||
        recv(fd, reply, sizeof(reply), MSG_WAITALL) != sizeof(reply) ||
        strncmp(reply, "ok,", 3) != 0) {
        fprintf(stderr, "control_bench: no reply\n");
        exit(1);
    }
}

// Clients that send queries from construction until Stop. Each client has its own thread and pauses
// between two queries, if the pause is not 0.
class Clients {
  public:
    Clients(int count, std::chrono::milliseconds pause_between)
        : pause(pause_between), times(static_cast<size_t>(count)) {
        for (auto& own_times : times) threads.emplace_back([&] { Run(own_times); });
    }
    // Ends the clients. Returns the times of all round trips in microseconds, sorted.
    std::vector<double> Stop() {
        done = true;
        for (std::thread& thread : threads) thread.join();
        std::vector<double> all;
        for (const auto& own_times : times) {
            all.insert(all.end(), own_times.begin(), own_times.end());
        }
        std::sort(all.begin(), all.end());
        return all;
    }

  private:
    void Run(std::vector<double>& own_times) {
        const int fd = socket_local_client(quarn::protocol::kCommandSocket,
                                           ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
        while (!done) {
            const auto start = Clock::now();
            Query(fd);
            own_times.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            if (pause.count() > 0) std::this_thread::sleep_for(pause);
        }
        close(fd);
    }

    const std::chrono::milliseconds pause;
    std::atomic<bool> done{false};
    std::vector<std::vector<double>> times;
    std::vector<std::thread> threads;
};

void PrintRoundTrips(const char* what, const std::vector<double>& times, double elapsed) {
    const auto at = [&](double share) {
        return times[static_cast<size_t>(static_cast<double>(times.size() - 1) * share)];
    };
    printf("%-28s %8.0f queries/s, round trip: median %7.1f us, 99 %% %8.1f us, longest %8.1f us\n",
           what, static_cast<double>(times.size()) / elapsed, at(0.5), at(0.99), at(1));
}

// The clients send a thousand queries per second in total. If clients send several thousand, the
// daemon delays them.
void MeasureIdle(int count) {
    const auto start = Clock::now();
    Clients clients(count, std::chrono::milliseconds(count));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const auto times = clients.Stop();
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    PrintRoundTrips((std::to_string(count) + " client(s), no capture").c_str(), times,
                    elapsed.count());
}

// Returns the seconds from the start of the stream until its last byte has left the ring.
double Capture(const std::vector<uint8_t>& bytes, size_t size) {
    sim::Modem& modem = sim::Modem::Instance();
    const uint64_t before = modem.bytes_delivered();
    g_file_io.io_open();
    modem.SetSource(std::make_unique<LoopSource>(bytes, size));
    const auto start = Clock::now();
    modem.StartStream();
    while (modem.bytes_delivered() - before < size || g_ring.current_size() > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    modem.StopStream();
    g_file_io.io_close();
    for (const auto& entry : fs::directory_iterator("/data/vendor/radio/quarn/logs")) {
        fs::remove_all(entry);
    }
    return elapsed.count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::vector<uint8_t> GeneratedStream(size_t size) {
    std::vector<uint8_t> bytes(size);
    const auto source = sim::MakeGeneratedSource(1);
    for (size_t at = 0; at < size;) at += source->Read(bytes.data() + at, size - at);
    return bytes;
}

void StartDaemon() {
    struct sigaction action = {};
    action.sa_handler = quarn_sighandler;
    sigaction(SIGUSR1, &action, nullptr);
    fs::create_directories("/data/vendor/radio");
    g_file_io.create_top_folder();
    g_writer.init();
    mcl_init();
    g_reader.start();
    g_writer.start();
    if (quarn_ctrlConn_startListen(quarn_ctrlConnCallback) != 0) {
        fprintf(stderr, "control_bench: the command socket cannot be opened\n");
        exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    size_t mib = 512;
    int rounds = 5;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const int value = i + 1 < argc ? atoi(argv[++i]) : 0;
        if (option == "--size" && value > 0) {
            mib = static_cast<size_t>(value);
        } else if (option == "--rounds" && value > 0) {
            rounds = value;
        } else {
            fprintf(stderr, "Use: control_bench [--size MIB] [--rounds N]\n");
            return 2;
        }
    }
    if (!fs::exists("/box")) {
        fprintf(stderr, "run this in a box: sim/box %s\n", argv[0]);
        return 2;
    }
    sim::Modem::Instance();
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    StartDaemon();

    MeasureIdle(1);
    MeasureIdle(kClients);

    const std::vector<uint8_t> bytes = GeneratedStream(16 << 20);
    const size_t size = mib << 20;
    const auto rate = [&](double elapsed) { return static_cast<double>(size) / 1e6 / elapsed; };
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        const double alone = Capture(bytes, size);
        Clients clients(kClients, std::chrono::milliseconds(0));
        const double disturbed = Capture(bytes, size);
        PrintRoundTrips("10 client(s), while capturing", clients.Stop(), disturbed);
        printf("capture: %8.1f MB/s alone, %8.1f MB/s while 10 clients query\n", rate(alone),
               rate(disturbed));
        ratios.push_back(alone / disturbed);
    }
    printf("capture with 10 clients as a share of the undisturbed one, median of %d: %.3f\n",
           rounds, Median(ratios));
    fflush(stdout);
    quarn_ctrlConn_stopListen();
    g_reader.stop();
    g_writer.stop();
    mcl_deinit();
    return 0;
}
