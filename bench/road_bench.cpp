// Measures the data path from the log port to the files against its limit: bare snappy_compress and
// bare write of the same bytes, in the same process.
//
// Use: road_bench [--input FILE] [--size MIB] [--rounds N] [--file-size MIB]     (in a box)
//
// Each round measures both sides. The side that goes first alternates. The first round only warms
// the memory and does not count: the files lie in memory, and on a virtual machine memory that no
// file has used before costs about twice as much. For the same reason the stream should be much
// smaller than the machine's memory.
//
// With --syncs, compares the data path with one whose syncs return at once. This shows what syncs
// cost. It needs a real file system (a box with a folder on a disk) and an idle machine:
//
//     sim/box --folder build/road build/release/bench/road_bench --syncs --passes 10
//     sim/box --folder build/road build/release/bench/road_bench --syncs --rate 20
//
//   --passes N   repeats the stream N times in each measurement (default: 1)
//   --rate MB    rate of the stream in MB/s (default: 0, as fast as the daemon reads it)
#include <android/log.h>
#include <fcntl.h>
#include <snappy-c.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "core/quarn.h"
#include "sim/modem.h"

namespace fs = std::filesystem;

// Number of allocations of the process. The compressor's own allocation for each block is larger
// than kCompressors bytes and does not count.
static std::atomic<uint64_t> allocations{0};

void* operator new(size_t size) {
    constexpr size_t kCompressors = 32 * 1024;
    if (size < kCompressors) allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

// Whether syncs of the process reach the disk, and how long the process has spent in long writes.
// Only the storage channel and the bare limit write that much at once.
static std::atomic<bool> syncs_count{true};
static std::atomic<int64_t> write_ns{0}, longest_write_ns{0};

extern "C" {

int fdatasync(int fd) { return syncs_count ? static_cast<int>(syscall(SYS_fdatasync, fd)) : 0; }
int fsync(int fd) { return syncs_count ? static_cast<int>(syscall(SYS_fsync, fd)) : 0; }
int syncfs(int fd) noexcept { return syncs_count ? static_cast<int>(syscall(SYS_syncfs, fd)) : 0; }

ssize_t write(int fd, const void* buf, size_t len) {
    constexpr size_t kLong = 64 * 1024;
    const auto start = std::chrono::steady_clock::now();
    const ssize_t written = syscall(SYS_write, fd, buf, len);
    if (len >= kLong) {
        const int64_t ns = (std::chrono::steady_clock::now() - start).count();
        write_ns += ns;
        if (ns > longest_write_ns) longest_write_ns = ns;
    }
    return written;
}

}  // extern "C"

namespace {

constexpr size_t kBlockSize = 256 * 1024;    // bytes that the writer takes from the ring at once
constexpr size_t kBufferSize = 1024 * 1024;  // bytes that the storage channel writes at once
constexpr size_t kPortRead = 64 * 1024;

// Gives the port the same bytes several times, from memory.
class MemorySource : public sim::LogSource {
  public:
    MemorySource(const std::vector<uint8_t>& stream, int times) : bytes(stream), passes(times) {}
    size_t Read(uint8_t* out, size_t len) override {
        if (at == bytes.size() && --passes > 0) at = 0;
        len = std::min(len, bytes.size() - at);
        memcpy(out, bytes.data() + at, len);
        at += len;
        return len;
    }

  private:
    const std::vector<uint8_t>& bytes;
    int passes;
    size_t at = 0;
};

// The cost of one run of a side. Times are in seconds. `cpu` is the CPU time of all threads.
struct Cost {
    double wall = 0, cpu = 0, reader_cpu = 0, writer_cpu = 0;
    uint64_t allocations = 0;
};

double CpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Returns the CPU time of the whole machine in seconds. It includes the kernel's own threads, which
// write back what is not synced.
double MachineCpuSeconds() {
    std::ifstream stat("/proc/stat");
    std::string cpu;
    double user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0;
    stat >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq;
    return (user + nice + system + irq + softirq) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Returns the CPU time in seconds of the thread `name` of this process, or 0 if there is none.
double ThreadCpuSeconds(const std::string& name) {
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::ifstream(task.path() / "comm") >> comm;
        double ns = 0;
        if (comm == name && std::ifstream(task.path() / "schedstat") >> ns) return ns * 1e-9;
    }
    return 0;
}

// Returns the cost of `run`. `run` returns the CPU time of the writer thread.
template <typename Run>
Cost Measure(const Run& run) {
    Cost cost;
    const uint64_t allocated = allocations;
    const double cpu = CpuSeconds(), reader_cpu = ThreadCpuSeconds("quarn_reader");
    const auto start = std::chrono::steady_clock::now();
    cost.writer_cpu = run();
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    cost.wall = wall.count();
    cost.cpu = CpuSeconds() - cpu;
    cost.reader_cpu = ThreadCpuSeconds("quarn_reader") - reader_cpu;
    cost.allocations = allocations - allocated;
    return cost;
}

void WriteAll(int fd, const char* buf, size_t len) {
    while (len > 0) {
        const ssize_t written = write(fd, buf, len);
        if (written < 0) {
            perror("road_bench: write");
            exit(1);
        }
        buf += written;
        len -= static_cast<size_t>(written);
    }
}

// The limit: compresses into a buffer of the same size, writes it out when it is full, and begins a
// new file whenever the channel would.
void Bare(const std::vector<uint8_t>& bytes, const std::string& folder) {
    std::vector<char> buffer(kBufferSize);
    const size_t most = snappy_max_compressed_length(kBlockSize);
    size_t used = 0;
    const uint64_t file_size = static_cast<uint64_t>(g_file_io.get_file_size()) << 20;
    uint64_t in_file = file_size;
    int fd = -1;
    int number = 0;
    const auto flush = [&] {
        if (in_file >= file_size) {
            if (fd >= 0) close(fd);
            fd = open((folder + "/" + std::to_string(number++)).c_str(),
                      O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            in_file = 0;
        }
        WriteAll(fd, buffer.data(), used);
        in_file += used;
        used = 0;
    };
    for (size_t at = 0; at < bytes.size(); at += kBlockSize) {
        if (used + most > buffer.size()) flush();
        size_t length = buffer.size() - used;
        snappy_compress(reinterpret_cast<const char*>(bytes.data()) + at,
                        std::min(kBlockSize, bytes.size() - at), buffer.data() + used, &length);
        used += length;
    }
    flush();
    close(fd);
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Runs the data path until the last byte is in a file and the capture is closed. Returns the
// writer's CPU time. REQUIRES: a capture is open and the writer runs.
double Road(const std::vector<uint8_t>& bytes, int passes) {
    sim::Modem& modem = sim::Modem::Instance();
    const uint64_t size = bytes.size() * static_cast<uint64_t>(passes);
    const uint64_t before = modem.bytes_delivered();
    modem.SetSource(std::make_unique<MemorySource>(bytes, passes));
    modem.StartStream();
    while (modem.bytes_delivered() - before < size || g_ring.current_size() > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const double cpu = ThreadCpuSeconds("quarn_writer");
    g_writer.stop();
    return cpu;
}

Cost MeasureRoad(const std::vector<uint8_t>& bytes, int passes) {
    g_file_io.io_open();
    g_writer.start();
    return Measure([&] { return Road(bytes, passes); });
}

Cost MeasureBare(const std::vector<uint8_t>& bytes) {
    return Measure([&] {
        Bare(bytes, "/data/bare");
        return 0.0;
    });
}

void RemoveFiles() {
    for (const char* folder : {"/data/bare", "/data/vendor/radio/quarn/logs"}) {
        for (const auto& entry : fs::directory_iterator(folder)) fs::remove_all(entry);
    }
}

void Print(const char* what, const Cost& cost, size_t size) {
    printf(
        "%-5s %8.3f s wall %8.3f s cpu (reader %.3f s, writer %.3f s) %8.1f MB/s %6lu "
        "allocations\n",
        what, cost.wall, cost.cpu, cost.reader_cpu, cost.writer_cpu,
        static_cast<double>(size) / 1e6 / cost.wall, static_cast<unsigned long>(cost.allocations));
}

// Compares the data path with its limit in `rounds` rounds, after one round that only warms the
// memory.
void CompareBare(const std::vector<uint8_t>& bytes, int rounds) {
    std::vector<double> wall_ratios, cpu_ratios, writer_ratios;
    for (int round = 0; round <= rounds; ++round) {
        const bool road_first = round % 2 != 0;
        Cost bare, road;
        if (road_first) road = MeasureRoad(bytes, 1);
        bare = MeasureBare(bytes);
        if (!road_first) road = MeasureRoad(bytes, 1);
        RemoveFiles();
        if (round == 0) continue;
        Print("bare", bare, bytes.size());
        Print("road", road, bytes.size());
        wall_ratios.push_back(bare.wall / road.wall);
        cpu_ratios.push_back(bare.cpu / road.cpu);
        writer_ratios.push_back(bare.cpu / road.writer_cpu);
    }
    printf(
        "road as a share of the bare limit, median of %d: wall %.3f, cpu %.3f, its writer alone "
        "%.3f\n",
        rounds, Median(wall_ratios), Median(cpu_ratios), Median(writer_ratios));
}

// Compares the data path without and with syncs. The side that goes first alternates. Prints the
// median of what syncs add. The CPU time of the machine includes the kernel's own threads, until
// every byte is on the disk.
void CompareSyncs(const std::vector<uint8_t>& bytes, int passes, int rounds) {
    enum Figure { kWall, kCpu, kWriterCpu, kWriterWrites, kMachineCpu, kFigures };
    const char* const names[] = {"wall", "cpu", "writer's cpu", "writer's writes", "machine's cpu"};
    std::vector<double> added[kFigures];
    for (int run = 0; run < 2 * rounds; ++run) {
        static std::array<double, kFigures> figures[2];
        const int with = (run + run / 2) % 2;
        RemoveFiles();
        sync();
        syncs_count = with != 0;
        write_ns = longest_write_ns = 0;
        std::array<double, kFigures>& now = figures[with];
        const double machine = MachineCpuSeconds();
        const Cost road = MeasureRoad(bytes, passes);
        sync();
        now[kMachineCpu] = MachineCpuSeconds() - machine;
        now[kWall] = road.wall;
        now[kCpu] = road.cpu;
        now[kWriterCpu] = road.writer_cpu;
        now[kWriterWrites] = static_cast<double>(write_ns) * 1e-9;
        printf("%-7s", with != 0 ? "with" : "without");
        for (int i = 0; i < kFigures; ++i)
            printf("  %s %.3f s", names[i], now[static_cast<size_t>(i)]);
        printf("  (the longest %.0f ms)\n", static_cast<double>(longest_write_ns) * 1e-6);
        for (size_t i = 0; run % 2 != 0 && i < kFigures; ++i) {
            added[i].push_back((figures[1][i] / figures[0][i] - 1) * 100);
        }
    }
    printf("syncs add, median of %d:", rounds);
    for (size_t i = 0; i < kFigures; ++i) printf("  %s %+.1f %%", names[i], Median(added[i]));
    printf("\n");
}

std::vector<uint8_t> Stream(const std::string& input, size_t size) {
    const auto source = input.empty() ? sim::MakeGeneratedSource(1) : sim::MakeReplaySource(input);
    if (!source) {
        perror(("road_bench: " + input).c_str());
        exit(2);
    }
    std::vector<uint8_t> bytes(size);
    size_t filled = 0;
    while (filled < size) {
        const size_t n = source->Read(bytes.data() + filled, size - filled);
        if (n == 0) break;
        filled += n;
    }
    // Only complete reads of the port, so that no chunk waits for a time-out at the end.
    bytes.resize(filled / kPortRead * kPortRead);
    return bytes;
}

struct Options {
    std::string input;  // a file; empty: generated bytes
    size_t mib = 256;
    int rounds = 5;
    int passes = 1;
    bool syncs = false;
};

// Gives the rate to the modem and the file size to the storage channel. Returns false for a wrong
// option.
bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--syncs") {
            options.syncs = true;
            continue;
        }
        if (++i == argc) return false;
        const char* const value = argv[i];
        if (option == "--input") {
            options.input = value;
        } else if (option == "--size" && atol(value) > 0) {
            options.mib = static_cast<size_t>(atol(value));
        } else if (option == "--rounds" && atoi(value) > 0) {
            options.rounds = atoi(value);
        } else if (option == "--passes" && atoi(value) > 0) {
            options.passes = atoi(value);
        } else if (option == "--rate" && atol(value) >= 0) {
            sim::Modem::Instance().SetRate(static_cast<uint64_t>(atol(value)) * 1'000'000);
        } else if (option != "--file-size" || g_file_io.set_file_size(atoi(value)) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, options)) {
        fprintf(stderr,
                "Use: road_bench [--input FILE] [--size MIB] [--rounds N] [--file-size MIB] "
                "[--rate MB] [--syncs [--passes N]]\n");
        return 2;
    }
    if (!fs::exists("/box")) {
        fprintf(stderr, "run this in a box: sim/box %s\n", argv[0]);
        return 2;
    }
    fs::create_directories("/data/vendor/radio");
    fs::create_directories("/data/bare");
    sim::Modem::Instance();
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);

    const std::vector<uint8_t> bytes = Stream(options.input, options.mib << 20);
    g_file_io.create_top_folder();
    g_writer.init();
    mcl_init();
    g_reader.start();

    if (options.syncs) {
        CompareSyncs(bytes, options.passes, options.rounds);
    } else {
        CompareBare(bytes, options.rounds);
    }
    g_reader.stop();
    mcl_deinit();
    return 0;
}
