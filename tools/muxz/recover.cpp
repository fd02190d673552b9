// muxz recover: writes what can still be unpacked.
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tools/muxz/commands.h"
#include "tools/muxz/listing.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/output.h"
#include "tools/muxz/reading.h"
#include "tools/muxz/recovery.h"
#include "tools/muxz/search.h"

namespace muxz {

namespace {

constexpr uint64_t kMostGapsTold = 100;  // gaps of one file that get a message each

class Rescue {
  public:
    Rescue(Output& to, Messages& told) : output(to), messages(told) {}

    void Take(const FileFacts& file) {
        const OpenedFile opened = Reopen(file);
        if (!opened.source) return messages.IoError(file.path, opened.why);
        path = file.path;
        foreign = false;
        gaps_told = 0;
        const Recovery result =
            Recover(*opened.source,
                    {.block =
                         [&](uint64_t offset, Bytes raw) {
                             memcpy(output.Room(raw.size()), raw.data(), raw.size());
                             output.Filled(raw.size());
                             messages.progress.At(done + offset);
                         },
                     .gap = [&](Gap gap) { TellGap(file, gap); },
                     .progress = [&](uint64_t offset) { messages.progress.At(done + offset); }});
        done += result.end;
        Conclude(file, result);
    }

  private:
    // The bytes in front of the first block may be a header of unknown layout, which is no gap.
    void TellGap(const FileFacts& file, Gap gap) {
        const bool is_header = file.header.kind == HeaderFacts::Kind::kForeign && gap.offset == 0 &&
                               gap.length == file.header.length;
        if (is_header) {
            foreign = true;
            return;
        }
        if (++gaps_told > kMostGapsTold) return;
        messages.Note(path, "offset " + std::to_string(gap.offset) + ": skipped " +
                                std::to_string(gap.length) + " bytes");
    }

    void Conclude(const FileFacts& file, const Recovery& result) {
        if (gaps_told > kMostGapsTold)
            messages.Note(path, std::to_string(gaps_told - kMostGapsTold) + " more gaps");
        const uint64_t skipped = result.skipped - (foreign ? file.header.length : 0);
        std::string summary = std::to_string(result.blocks) + " blocks, " +
                              std::to_string(result.raw_bytes) + " raw bytes recovered; " +
                              std::to_string(skipped) + " bytes skipped in " +
                              std::to_string(gaps_told) + (gaps_told == 1 ? " place" : " places");
        if (foreign) {
            summary +=
                "; header of another writer, " + std::to_string(file.header.length) + " bytes";
        } else if (result.header != HeaderState::kWhole && result.header != HeaderState::kUnknown) {
            summary += "; " + std::string(Text(result.header));
        }
        if (result.ends_cut) summary += "; the file ends within a block";
        if (result.trailing > 1)
            summary += "; " + std::to_string(result.trailing) + " bytes of a block at the end";
        messages.Note(path, summary);
        const bool cut = result.ends_cut && gaps_told == 1;
        if (result.error != 0) {
            messages.IoError(
                path, "offset " + std::to_string(result.end) + ": " + strerror(result.error));
        } else if (gaps_told != 0 && !(cut && file.may_be_open)) {
            messages.status = std::max(messages.status, kFaults);
        }
    }

    Output& output;
    Messages& messages;
    std::string path;
    bool foreign = false;
    uint64_t gaps_told = 0;
    uint64_t done = 0;
};

}  // namespace

int RecoverFiles(const std::vector<std::string>& paths, const std::string& output_path) {
    Messages messages(true);
    if (!MayTakeBinary("recover", output_path)) return kUsageOrIo;
    const Model model = Build(paths, {});
    const std::vector<const FileFacts*> files = model.Files();
    for (const Finding& finding : model.findings) {
        // Recovery itself reports the findings that have an offset.
        if (!finding.offset) messages.Tell(finding);
    }
    if (files.empty()) return messages.status;
    if (!output_path.empty() && !MayOverwrite(output_path, model, messages)) return messages.status;
    messages.progress.Expect(model.totals.size);
    Output output(output_path);
    Rescue rescue(output, messages);
    for (const FileFacts* file : files) {
        if (file->readable) rescue.Take(*file);
    }
    output.Close();
    messages.progress.Clear();
    return messages.status;
}

}  // namespace muxz
