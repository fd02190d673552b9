// muxz cat: the raw stream.
#include <unistd.h>

#include "tools/muxz/commands.h"
#include "tools/muxz/listing.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/output.h"
#include "tools/muxz/reading.h"
#include "tools/muxz/walk.h"

namespace muxz {

namespace {

// A file as it was scanned, and now is.
class Stream {
  public:
    Stream(Output& to, Messages& told) : output(to), messages(told) {}

    void Write(const FileFacts& file, RawRange range) {
        const auto kind = file.header.kind;
        if (!file.readable || kind == HeaderFacts::Kind::kEmpty ||
            kind == HeaderFacts::Kind::kCut || kind == HeaderFacts::Kind::kNoBlock)
            return;
        const OpenedFile opened = Reopen(file);
        if (!opened.source) {
            if (opened.error == ENOENT) return messages.Note(file.path, "gone, recycled meanwhile");
            return messages.IoError(file.path, opened.why);
        }
        const bool live = file.kept && file.size == 0;  // a pipe
        FileFacts now = file;
        now.findings.clear();
        uint64_t at = 0;  // raw bytes of the file
        WalkBlocks(*opened.source, BlockReader::Mode::kBytes, now,
                   [&](BlockReader& reader, const Block& block) {
                       const size_t raw = block.lengths.raw_length;
                       const bool wanted = range.Holds(at, raw);
                       at += raw;
                       if (!wanted) return true;
                       if (!reader.Unpack(block, output.Room(raw))) return false;
                       output.Filled(raw);
                       // The program behind the pipe may wait for this block, and the next block
                       // may come much later.
                       if (live) output.Flush();
                       messages.progress.At(done + block.offset);
                       return true;
                   });
        done += now.end_offset;
        messages.Tell(now.findings);
    }

  private:
    Output& output;
    Messages& messages;
    uint64_t done = 0;
};

RawRange RangeIn(const Selection& selection, const FileFacts& file) {
    for (const Part& part : selection.parts) {
        if (part.file.file->path == file.path) return RangeOf(part, file.blocks.raw);
    }
    return {};
}

}  // namespace

int Cat(const Selection& selection, const std::string& output_path, const Phones& phones) {
    Messages messages(true);
    if (!MayTakeBinary("cat", output_path)) return kUsageOrIo;
    // A part is given in shares of the raw bytes of its file, so all lengths must be read first.
    const bool whole = selection.parts.empty();
    BuildOptions options{.depth = whole ? Depth::kHeaders : Depth::kLengths, .live = whole};
    if (phones) options.phones = *phones;
    const Model model = Read(selection, options, messages);
    if (!AreWanted(model, phones, messages)) return messages.status;
    messages.Tell(model.findings);
    const std::vector<const FileFacts*> files = model.Files();
    if (files.empty() && model.totals.power_on_logs != 0)
        messages.Note("", "only a power-on log is here; name the file itself to have its stream");
    if (files.empty()) return messages.status;
    if (model.reordered)
        messages.Note("", "the files go in capture order, not in that of names or arguments");
    if (!output_path.empty() && !MayOverwrite(output_path, model, messages)) return messages.status;
    messages.progress.Expect(model.totals.size);
    Output output(output_path);
    Stream stream(output, messages);
    for (const FileFacts* file : files) stream.Write(*file, RangeIn(selection, *file));
    output.Close();
    messages.progress.Clear();
    return messages.status;
}

}  // namespace muxz
