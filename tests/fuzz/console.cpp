// Fuzz target: commands for the console of the simulated phone. Its notifications reach the
// daemon's handler.
#include "sim/console.h"

#include <filesystem>

#include "core/quarn.h"
#include "fuzz.h"
#include "platform/mcl.h"
#include "sim/modem.h"

void fuzz::SetUp() {
    StartPhone();
    g_notify.init();
    g_quarn.is_started = true;
}

// Returns true for a command that waits for a socket of the daemon, runs at a later time, or fills
// the memory of the box.
static bool WaitsOrFills(std::string_view line) {
    for (const char* command : {"client", "after", "free_space"}) {
        if (line.find(command) != std::string_view::npos) return true;
    }
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr int kMaxLines = 16;
    const sim::Console console("/box/modem");
    sim::Modem& modem = sim::Modem::Instance();
    mcl_init();
    mcl_closeLogPort();  // no thread reads it here; a modem that stops logging would wait for a
                         // reader
    std::string_view lines = fuzz::Text(data, size);
    for (int i = 0; i < kMaxLines && !lines.empty(); ++i) {
        const std::string line = fuzz::TakeLine(lines);
        if (fuzz::LeavesBox(line) || WaitsOrFills(line)) continue;
        const bool well_formed = console.Check(line).empty();
        const sim::Reply reply = console.Execute(line);
        fuzz::Check(well_formed || !reply.ok, "what a check refuses is refused");
        fuzz::Check(reply.ok || !reply.text.empty(), "a refusal says why");
        fuzz::Check(!reply.ok || reply.text.empty() || reply.text.back() == '\n',
                    "a reply is whole lines");
    }
    modem.WaitForNotifications();
    modem.Reset();

    static int runs = 0;
    if (++runs % 256 == 0) {
        g_file_io.io_close();
        std::filesystem::remove_all("/data/vendor/radio/quarn/logs");
    }
    return 0;
}
