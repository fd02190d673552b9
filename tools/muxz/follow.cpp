// muxz cat --follow: writes the raw stream of the newest capture, and of all captures after it.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/muxz/commands.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/output.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/scan.h"
#include "tools/muxz/tree.h"

namespace muxz {

namespace {

constexpr int kPause = 100;        // milliseconds between two checks for new blocks
constexpr int kLooksPerTree = 10;  // checks of the file for each check of the whole tree

volatile sig_atomic_t ended = 0;

// The first Ctrl-C ends the loop behind a complete block. The second one kills the program, since
// the reader of the output may never read again.
void EndOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { ended = 1; };
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// A file that is read while it grows. It stays open, so it may be renamed.
class Growing {
  public:
    Growing(FoundFile found_file, std::optional<uint64_t> header)
        : found(std::move(found_file)), likely_header(header) {}

    // Writes the new blocks. Returns true if there were any.
    bool Write(Output& output, Messages& messages) {
        if (!source && !Open(messages)) return false;
        BlockReader reader(*source, offset);
        bool any = false;
        for (Block block; ended == 0 && reader.Next(block); any = true) {
            const size_t raw = block.lengths.raw_length;
            if (!reader.Unpack(block, output.Room(raw))) break;
            output.Filled(raw);
            offset = block.offset + quarn::log_file::kBlockHeaderSize + block.lengths.packed_length;
        }
        end = reader.end();
        if (end == End::kReadError && !std::exchange(failed, true))
            messages.IoError(found.path, reader.reason());
        if (end == End::kDamaged) any = PassOver(reader, messages) || any;
        return any;
    }

    // Reports what is wrong at the end of a file that does not grow any more.
    void Finish(Messages& messages) const {
        if (!source) {
            messages.Note(found.path, "holds no blocks");
        } else if (end == End::kCutBlock) {
            messages.FaultAt(found.path, offset, "the file ends within a block");
        }
    }

    // Returns the length in bytes of a header of unknown layout. No value while it is unknown.
    std::optional<uint64_t> header() const { return likely_header; }

  private:
    // Returns true if the header is complete and the file was opened.
    bool Open(Messages& messages) {
        const FileFacts facts = ScanFile(found, {Depth::kHeaders, likely_header, {}});
        if (!facts.readable && !std::exchange(failed, true)) messages.Tell(facts.findings);
        const auto kind = facts.header.kind;
        if (kind == HeaderFacts::Kind::kEmpty || kind == HeaderFacts::Kind::kCut ||
            kind == HeaderFacts::Kind::kNoBlock || !facts.readable)
            return false;
        // `facts` has the new name if the file was renamed.
        source = Reopen(facts).source;
        offset = facts.header.length;
        if (kind == HeaderFacts::Kind::kForeign) likely_header = offset;
        return source != nullptr;
    }

    bool PassOver(BlockReader& reader, Messages& messages) {
        if (std::exchange(reported, offset) == offset) return false;
        const std::string reason = reader.reason();
        Loss loss{};
        const bool more = reader.GoOn(loss);
        messages.FaultAt(found.path, offset,
                         reason + "; " + std::to_string(loss.length) + " bytes passed over");
        offset = loss.offset + loss.length;
        return more;
    }

    const FoundFile found;
    std::optional<uint64_t> likely_header;
    std::unique_ptr<Source> source;
    uint64_t offset = 0;             // of the next block
    uint64_t reported = UINT64_MAX;  // offset of the last damage that was reported
    bool failed = false;             // a system error was reported
    End end = End::kWhole;
};

class Follower {
  public:
    Follower(std::string log_tree, const std::string& output_path)
        : root(std::move(log_tree)), messages(false), output(output_path) {}

    int Run() {
        for (int looks = 0; ended == 0; ++looks) {
            if (file && file->Write(output, messages)) {
                output.Flush();
                continue;
            }
            if (GoOn(looks % kLooksPerTree == 0)) continue;
            poll(nullptr, 0, kPause);
        }
        output.Close();
        return messages.status;
    }

    // Begins with the capture `first` instead of the newest one.
    void BeginWith(Capture first) { capture = std::move(first); }

  private:
    // Goes on to the next file or capture. Returns false if there is none. Once there is one, the
    // daemon no longer writes to the present file, so its rest is written first.
    bool GoOn(bool look_into_tree) {
        std::optional<LogFile> next = NextFile();
        Capture later;
        if (!next && (!look_into_tree || !NextCapture(later))) return false;
        if (file) {
            while (file->Write(output, messages)) {
            }
            file->Finish(messages);
            output.Flush();
            header = file->header();
        }
        // The daemon may have opened a file while the tree was listed.
        if (!next) next = NextFile();
        if (!next) {
            capture = later;
            index.reset();
            file.reset();
            return true;
        }
        file.emplace(FileAt(capture->path() + "/" + next->name, next->size), header);
        index = next->index;
        return true;
    }

    // Returns the file that follows the present file in its capture.
    std::optional<LogFile> NextFile() {
        if (!capture) return std::nullopt;
        std::vector<LogFile> files;
        std::vector<Complaint> ignored;
        const Fd folder = OpenCapture(*capture);
        if (!ListFiles(folder, capture->path(), files, ignored) || files.empty())
            return std::nullopt;
        if (!index) return files.front();
        const auto present = std::find_if(files.begin(), files.end(),
                                          [&](const LogFile& f) { return f.index == *index; });
        // The recycler may have removed the present file.
        const auto next = present != files.end()
                              ? present + 1
                              : std::find_if(files.begin(), files.end(), [&](const LogFile& f) {
                                    return f.index - *index < UINT32_MAX / 2;
                                });
        return next == files.end() ? std::nullopt : std::optional(*next);
    }

    // Sets `next` to the capture that follows the present one. Without a present capture, or if it
    // is gone, sets `next` to the newest one. Returns false if there is none.
    bool NextCapture(Capture& next) const {
        Tree tree;
        std::vector<Complaint> ignored;
        if (!ListTree(root, tree, ignored)) return false;
        std::erase_if(tree.captures, [](const Capture& c) { return c.copy; });
        if (tree.captures.empty()) return false;
        const auto present =
            std::find_if(tree.captures.begin(), tree.captures.end(), [this](const Capture& c) {
                return capture && c.folder == capture->folder && c.index == capture->index &&
                       c.time == capture->time;
            });
        if (present == tree.captures.end()) {
            next = tree.captures.back();
        } else if (present + 1 != tree.captures.end()) {
            next = *(present + 1);
        } else {
            return false;
        }
        return true;
    }

    const std::string root;
    Messages messages;
    Output output;
    std::optional<Capture> capture;
    std::optional<uint32_t> index;   // of the present file
    std::optional<uint64_t> header;  // Growing::header() of the last file
    std::optional<Growing> file;
};

}  // namespace

int Follow(const std::string& path, const std::string& output_path) {
    if (!MayTakeBinary("cat", output_path)) return kUsageOrIo;
    Messages messages(false);
    Capture first;
    const bool is_capture = CaptureAt(path, first);
    const std::string root = is_capture ? first.folder : path;
    if (!OpenFolder(root)) {
        messages.IoError(path, errno == ENOTDIR ? "is no log tree to follow" : strerror(errno));
        return messages.status;
    }
    if (!output_path.empty() && !MayOverwrite(output_path, {}, messages)) return messages.status;
    EndOnSignals();
    Follower follower(root, output_path);
    if (is_capture) follower.BeginWith(first);
    return follower.Run();
}

}  // namespace muxz
