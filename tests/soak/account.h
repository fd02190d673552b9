// Accounts for every byte that a process of the daemon took from the modem. The modem's stream is
// known from its seed; the daemon's own log tells which file came after which and where something
// was given up.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/modem.h"
#include "tests/soak/report.h"
#include "tools/muxz_tree.h"

namespace soak {

// The stream that a seed makes, and how far it has been met.
class KnownStream {
  public:
    explicit KnownStream(uint64_t seed) : source(sim::MakeGeneratedSource(seed)) {}

    // Goes on by these bytes; false, going nowhere, when something else comes next.
    bool Take(const uint8_t* bytes, size_t size);
    // Goes on to where these bytes are; false, going nowhere, when they are not within some 400 MB.
    bool SkipTo(const uint8_t* bytes, size_t size);
    uint64_t position() const { return at; }

  private:
    void Extend(size_t size);
    const std::unique_ptr<sim::LogSource> source;
    std::vector<uint8_t> ahead;  // what was made of it and not yet met
    std::atomic<uint64_t> at = 0;
};

struct Totals {
    uint64_t kept = 0;         // bytes found in files, in order
    uint64_t dropped = 0;      // as the log counts them
    uint64_t given_up = 0;     // by closings that could not write, and recycled before it was read
    uint64_t behind_exit = 0;  // taken from the modem while the process ended in order
    uint64_t killed = 0;       // by processes that were killed
    uint64_t files = 0, recycled = 0, unread = 0, closings = 0, torn = 0, power_on = 0;
};

enum class Ending { kAtRest, kUnderLoad, kKilled };

class Account {
  public:
    explicit Account(Report& out) : report(out) {}

    void Begin(uint64_t seed, const std::string& log_path);
    // Takes up what the log tells and verifies one file that was closed; false when there is none.
    bool Follow();
    // After the process has ended; `delivered` is what the modem handed over to it.
    void End(Ending how, uint64_t delivered);

    // Bytes of the stream gone by, and bytes on storage still to be verified. Any thread may ask.
    uint64_t position() const { return stream->position(); }
    uint64_t backlog() const { return waiting; }
    // A closing could not write, and no file was opened since: how much that cost is not yet known.
    bool ends_in_a_gap() const { return open_end; }
    const Totals& totals() const { return sums; }

  private:
    struct File {
        muxz::Fd fd;
        std::string path;
        bool closed;
        uint64_t may_lack;  // bytes that, by the log, may be missing in front of it
    };
    void ReadLog();
    void TakeLine(const std::string& line);
    void Verify(File& file, bool may_be_torn);
    // Meets the bytes of one block, at most so many behind where they should be; false when they
    // are nowhere.
    bool Meet(KnownStream& known, const std::vector<uint8_t>& raw, uint64_t most,
              const std::string& path);
    void CheckPowerOnLog(Ending how);
    void AccountForTheRest(Ending how, uint64_t delivered);

    Report& report;
    Totals sums;
    uint64_t stream_seed = 0;
    std::unique_ptr<KnownStream> stream;
    std::string log_path, partial;
    uint64_t log_at = 0;
    std::deque<File> files;  // in the order of the stream
    uint64_t may_lack = 0;   // for the next file
    uint64_t all_may_lack = 0;
    uint64_t skipped = 0;
    std::set<std::string> recycled;
    uint64_t dropped = 0;
    std::string power_on;  // the path, once it is written to
    bool power_on_failed = false;
    std::atomic<uint64_t> waiting = 0;
    std::atomic<bool> open_end = false;
};

}  // namespace soak
