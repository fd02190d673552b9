// Measures parts of the data path, each on its own: ring, blocks, recycler.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <snappy-c.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/quarn.h"
#include "sim/modem.h"
#include "storage/log_file_recycler.h"

namespace fs = std::filesystem;

namespace {

const std::string kLogs = "/data/vendor/radio/quarn/logs/";
constexpr size_t kBlockSize = 256 * 1024;  // bytes that the writer takes from the ring at once

// A producer copies 64 KiB at a time into the ring, as the reader does. A consumer copies up to 256
// KiB at a time out of it, as the writer does.
void Ring(benchmark::State& state) {
    constexpr uint64_t kTotal = uint64_t{4} << 30;
    QUARN_RING ring;
    const uint64_t mask = ring.capacity();
    uint8_t* const buf = ring.get_buf_ptr();
    for (auto _ : state) {
        std::thread producer([&] {
            const std::vector<uint8_t> chunk(QUARN_RING::kTailSize, 'x');
            for (uint64_t left = kTotal; left > 0;) {
                const uint64_t seen = ring.notification_count();
                if (ring.remain_size() < chunk.size()) {
                    ring.wait_for(500, seen);
                    continue;
                }
                const uint64_t at = ring.get_buf_write_idx();
                memcpy(buf + at, chunk.data(), chunk.size());
                ring.set_buf_write_idx((at + chunk.size()) & mask);
                ring.notify();
                left -= chunk.size();
            }
        });
        std::vector<uint8_t> block(kBlockSize);
        for (uint64_t left = kTotal; left > 0;) {
            const uint64_t seen = ring.notification_count();
            const uint64_t taken = std::min<uint64_t>(ring.current_size(), block.size());
            if (taken == 0) {
                ring.wait_for(500, seen);
                continue;
            }
            const uint64_t at = ring.get_buf_read_idx();
            memcpy(block.data(), buf + at, std::min(taken, mask + 1 - at));
            ring.set_buf_read_idx((at + taken) & mask);
            ring.notify();
            left -= taken;
        }
        producer.join();
    }
    state.SetBytesProcessed(static_cast<int64_t>(kTotal * state.iterations()));
}
BENCHMARK(Ring)->Unit(benchmark::kMillisecond)->UseRealTime();

std::vector<uint8_t> Records(size_t size) {
    std::vector<uint8_t> bytes(size);
    const auto source = sim::MakeGeneratedSource(1);
    for (size_t at = 0; at < size;) at += source->Read(bytes.data() + at, size - at);
    return bytes;
}

// Number of blocks that always fit into the storage channel's buffer without a flush.
constexpr size_t kBlocks = 3;

void BareSnappy(benchmark::State& state) {
    const auto bytes = Records(kBlocks * kBlockSize);
    std::vector<char> out(snappy_max_compressed_length(kBlockSize));
    for (auto _ : state) {
        for (size_t at = 0; at < bytes.size(); at += kBlockSize) {
            size_t length = out.size();
            snappy_compress(reinterpret_cast<const char*>(bytes.data()) + at, kBlockSize,
                            out.data(), &length);
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes.size() * state.iterations()));
}
BENCHMARK(BareSnappy);

// The storage channel with the same blocks: lock, framing and compression. The write that empties
// the buffer is not measured.
void ChannelBlocks(benchmark::State& state) {
    const auto bytes = Records(kBlocks * kBlockSize);
    g_file_io.create_top_folder();
    g_file_io.set_file_size(10);
    g_file_io.set_recycle_option(RECYCLE_OPT_SIZE, 100);
    if (g_file_io.io_open() != 0) return state.SkipWithError("no capture");
    for (auto _ : state) {
        for (size_t at = 0; at < bytes.size(); at += kBlockSize) {
            g_file_io.io_write(bytes.data() + at, kBlockSize);
        }
        state.PauseTiming();
        g_file_io.flush_ringBuf();
        state.ResumeTiming();
    }
    g_file_io.io_close();
    state.SetBytesProcessed(static_cast<int64_t>(bytes.size() * state.iterations()));
}
BENCHMARK(ChannelBlocks);

// Makes a tree with `files` sparse files, 100 in each capture. The recycler is measured with
// nothing to delete ("within") and with one file too many each time ("over").
void MakeTree(int64_t files) {
    fs::remove_all(kLogs);
    for (int64_t i = 0; i < files; ++i) {
        const std::string folder =
            kLogs + "QRXMDLog_" + std::to_string(i / 100) + "_2024_0101_000000/";
        if (i % 100 == 0) fs::create_directories(folder);
        const std::string file =
            folder + "QRXMDLog_" + std::to_string(i % 100) + "_2024_0101_000000.muxz";
        std::ofstream(file).close();
        fs::resize_file(file, 1024 * 1024);
    }
}

void Recycler(benchmark::State& state) {
    const int64_t files = state.range(0);
    const bool over = state.range(1) != 0;
    MakeTree(files);
    RECYCLE_CONFIG config;
    config.recycle_size = static_cast<uint32_t>(files);
    for (auto _ : state) {
        if (over) config.recycle_size = config.recycle_size - 1;
        const int32_t rc =
            quarn::zorvex::LogFileRecycler::GetInstance()->CheckAndRecycle(config, "");
        if (rc != 0) state.SkipWithError("recycling failed");
    }
}
BENCHMARK(Recycler)
    ->ArgNames({"files", "over"})
    ->ArgsProduct({{1000, 10000}, {0, 1}})
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (!fs::exists("/box")) {
        fprintf(stderr, "run this in a box: sim/box %s\n", argv[0]);
        return 2;
    }
    fs::create_directories("/data/vendor/radio");
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
}
