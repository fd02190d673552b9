// Measures muxz against its limit: bare snappy_uncompress and bare write of the same blocks on one
// core.
//
// Use: muxz_bench [--muxz PROGRAM] [--folder FOLDER] [--size MIB] [--block KIB] [--rounds N]
//
// Makes a log tree with SIZE MiB of raw bytes in FOLDER, which should be in memory. Each round runs
// all sides one after the other, each in its own process. The limit has the packed blocks in memory
// before its measurement begins. Prints the median of each side, and the time of the limit divided
// by the time of muxz.
#include <fcntl.h>
#include <sched.h>
#include <snappy-c.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "platform/qrx_log_format.h"
#include "sim/modem.h"
#include "storage/log_file_format.h"

namespace {

namespace fs = std::filesystem;
using quarn::log_file::kBlockHeaderSize;

constexpr size_t kFileSize = size_t{50} * 1024 * 1024;  // bytes; approximate
constexpr const char* kCapture = "QRXMDLog_0_2026_1123_120000";

[[noreturn]] void Fail(const std::string& what) {
    perror(("muxz_bench: " + what).c_str());
    exit(2);
}

void WriteAll(int fd, const char* buf, size_t len) {
    while (len > 0) {
        const ssize_t written = write(fd, buf, len);
        if (written < 0) Fail("write");
        buf += written;
        len -= static_cast<size_t>(written);
    }
}

struct LogFile {
    fs::path path;
    size_t header;  // bytes
};

std::vector<LogFile> MakeTree(const fs::path& tree, size_t size, size_t block) {
    fs::remove_all(tree);
    fs::create_directories(tree / kCapture);
    const auto source = sim::MakeGeneratedSource(1);
    std::vector<uint8_t> raw(block);
    std::vector<char> buffer;
    std::vector<LogFile> files;
    for (size_t done = 0; done < size;) {
        char name[64];
        snprintf(name, sizeof(name), "QRXMDLog_%zu_2026_1123_12%02zu00.muxz", files.size(),
                 files.size() % 60);
        const fs::path path = tree / kCapture / name;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        const uint8_t record[204] = {};
        QRX_LOG_FORMAT_AP phone{};
        phone.file_idx = static_cast<uint32_t>(files.size());
        if (fd < 0 || qrx_log_format_writeHeader(fd, {record, 0, 0, 0, 0}, phone) != 0)
            Fail(path.string());
        files.push_back({path, static_cast<size_t>(lseek(fd, 0, SEEK_CUR))});
        for (size_t in_file = 0; in_file < kFileSize && done < size; done += block) {
            for (size_t filled = 0; filled < block;)
                filled += source->Read(raw.data() + filled, block - filled);
            size_t length = snappy_max_compressed_length(block);
            buffer.resize(kBlockHeaderSize + length);
            snappy_compress(reinterpret_cast<const char*>(raw.data()), block,
                            buffer.data() + kBlockHeaderSize, &length);
            quarn::log_file::PutBlockHeader(
                reinterpret_cast<uint8_t*>(buffer.data()),
                {static_cast<uint32_t>(block), static_cast<uint32_t>(length)});
            WriteAll(fd, buffer.data(), kBlockHeaderSize + length);
            in_file += kBlockHeaderSize + length;
        }
        close(fd);
    }
    return files;
}

// Returns all blocks of the files, one behind the other.
std::vector<char> Blocks(const std::vector<LogFile>& files) {
    std::vector<char> blocks;
    for (const LogFile& file : files) {
        std::ifstream in(file.path, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(file.header));
        blocks.insert(blocks.end(), std::istreambuf_iterator<char>(in), {});
    }
    return blocks;
}

// The limit: unpacks all blocks. Writes the raw bytes to the descriptor `output`, unless it is -1.
void Unpack(const std::vector<char>& blocks, int output) {
    std::vector<char> raw(size_t{1} << 24);
    for (size_t at = 0; at < blocks.size();) {
        const auto lengths =
            quarn::log_file::GetBlockHeader(reinterpret_cast<const uint8_t*>(blocks.data() + at));
        size_t length = raw.size();
        if (snappy_uncompress(blocks.data() + at + kBlockHeaderSize, lengths.packed_length,
                              raw.data(), &length) != SNAPPY_OK)
            Fail("a block that does not unpack");
        if (output >= 0) WriteAll(output, raw.data(), length);
        at += kBlockHeaderSize + lengths.packed_length;
    }
}

struct Cost {
    double wall = 0, cpu = 0;  // seconds
};

double CpuSeconds(const rusage& usage) {
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Runs `run` in a new process and returns its cost. With `one_core` the process uses only core 0.
Cost Measure(bool one_core, const std::function<void()>& run) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        cpu_set_t first;
        CPU_ZERO(&first);
        CPU_SET(0, &first);
        if (one_core) sched_setaffinity(0, sizeof(first), &first);
        run();
        _exit(0);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child || status != 0)
        Fail("a side that fails");
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    return {wall.count(), CpuSeconds(usage)};
}

void RunMuxz(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    execv(program.c_str(), argv.data());
    _exit(127);
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Side {
    const char* name;
    int limit;  // position of the side that is its limit; -1 if it is a limit itself or has none
    bool one_core;
    std::function<void()> run;
    std::vector<double> wall{}, cpu{};
};

struct Options {
    std::string program = "build/release/tools/muxz", folder = "/dev/shm/muxz_bench";
    size_t mib = 2048, kib = 256;
    int rounds = 5;
};

// Returns false for a wrong option.
bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const char* const value = i + 1 < argc ? argv[++i] : "";
        if (option == "--muxz") {
            options.program = value;
        } else if (option == "--folder") {
            options.folder = value;
        } else if (option == "--size" && atol(value) > 0) {
            options.mib = static_cast<size_t>(atol(value));
        } else if (option == "--block" && atol(value) > 0 && atol(value) < 16384) {
            options.kib = static_cast<size_t>(atol(value));
        } else if (option == "--rounds" && atoi(value) > 0) {
            options.rounds = atoi(value);
        } else {
            return false;
        }
    }
    return true;
}

void Print(const std::vector<Side>& sides, double bytes) {
    for (const Side& side : sides) {
        printf("%-26s %8.4f s wall %8.4f s cpu %7.2f GB/s raw", side.name, Median(side.wall),
               Median(side.cpu), bytes / 1e9 / Median(side.wall));
        if (side.limit >= 0) {
            const Side& limit = sides[static_cast<size_t>(side.limit)];
            printf("  ratio %.3f by wall, %.3f by cpu", Median(limit.wall) / Median(side.wall),
                   Median(limit.cpu) / Median(side.cpu));
        }
        printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, options)) {
        fprintf(stderr,
                "Use: muxz_bench [--muxz PROGRAM] [--folder FOLDER] [--size MIB] [--block KIB] "
                "[--rounds N]\n");
        return 2;
    }
    const fs::path work(options.folder);
    const std::string tree = work / "logs", stream = work / "stream";
    const std::vector<LogFile> files = MakeTree(tree, options.mib << 20, options.kib << 10);
    const std::vector<char> blocks = Blocks(files);
    const auto bytes = static_cast<double>(options.mib << 20);
    printf("%zu MiB raw in blocks of %zu KiB, %.2f to 1, %zu files, medians of %d rounds\n",
           options.mib, options.kib, bytes / static_cast<double>(blocks.size()), files.size(),
           options.rounds);

    const auto output = [&stream] {
        return open(stream.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    };
    const auto muxz = [&options](const std::vector<std::string>& arguments) {
        return [&options, arguments] { RunMuxz(options.program, arguments); };
    };
    std::vector<Side> sides = {
        {"bare snappy_uncompress", -1, true, [&] { Unpack(blocks, -1); }},
        {"muxz verify, one core", 0, true, muxz({"verify", tree})},
        {"muxz verify, all cores", 0, false, muxz({"verify", tree})},
        {"bare uncompress and write", -1, true, [&] { Unpack(blocks, output()); }},
        {"muxz cat, one core", 3, true, muxz({"cat", "-o", stream, tree})},
        {"muxz check --quick", -1, false, muxz({"check", "--quick", tree})},
    };
    for (int round = 0; round < options.rounds; ++round) {
        for (Side& side : sides) {
            fs::remove(stream);
            const Cost cost = Measure(side.one_core, side.run);
            side.wall.push_back(cost.wall);
            side.cpu.push_back(cost.cpu);
        }
    }
    Print(sides, bytes);
    fs::remove_all(work);
}
