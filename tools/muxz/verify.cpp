// muxz verify: checks that every block is intact and that no file is missing.
#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/muxz/commands.h"
#include "tools/muxz/json.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reading.h"

namespace muxz {

namespace {

void TellFirst(const Model& model, Messages& messages) {
    const auto first =
        std::find_if(model.findings.begin(), model.findings.end(),
                     [](const Finding& f) { return f.kind != Finding::Kind::kNote; });
    if (first != model.findings.end()) messages.Tell(*first);
}

void PrintCounts(size_t files, const BlockFacts& blocks) {
    printf("%zu file%s, %" PRIu64 " block%s, %" PRIu64 " raw bytes", files, files == 1 ? "" : "s",
           blocks.blocks, blocks.blocks == 1 ? "" : "s", blocks.raw);
}

}  // namespace

int Verify(const Selection& selection, bool first, bool json) {
    Messages messages(true);
    const Model model = Read(selection, {.depth = Depth::kBlocks, .first_fault = first}, messages);
    if (json) return PrintJson(model, "verify");
    if (first && model.Status() != kFine) {
        TellFirst(model, messages);
        return messages.status;
    }
    messages.Tell(model.findings);
    const Totals& totals = model.totals;
    if (totals.files + totals.power_on_logs == 0) return messages.status;
    if (totals.power_on_logs != 0) {
        printf("power-on log: ");
        PrintCounts(totals.power_on_logs, totals.power_on_blocks);
        puts("");
    }
    PrintCounts(totals.files, totals.blocks);
    if (totals.faults == 0) {
        puts(messages.status == kFine ? ": every block is good" : ": not all could be read");
    } else {
        printf(": %zu fault%s (%zu hole%s), %" PRIu64 " bytes damaged\n", totals.faults,
               totals.faults == 1 ? "" : "s", totals.holes, totals.holes == 1 ? "" : "s",
               totals.damaged_bytes);
    }
    return messages.status;
}

}  // namespace muxz
