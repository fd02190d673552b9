#include "tools/muxz/recovery.h"

#include <utility>

#include "storage/log_file_format.h"
#include "tools/muxz/block.h"
#include "tools/muxz/search.h"

namespace muxz {

using quarn::log_file::kBlockHeaderSize;

namespace {

class Recoverer {
  public:
    Recoverer(Source& source, const RecoverySinks& to)
        : window(source, size_t{1024} * 1024), search(window), sinks(to) {
        Header header;
        result.header = ReadHeader(source, header);
        first_block = result.header == HeaderState::kWhole ? header.length : 0;
        if (result.header == HeaderState::kReadError) window.At(0, 1);  // sets window.error()
        search.progress = sinks.progress;
    }

    Recovery Run();

  private:
    bool FindBehind(uint64_t at, uint64_t& found);
    void Skip(uint64_t from, uint64_t to);

    Window window;
    BlockSearch search;
    const RecoverySinks& sinks;
    Recovery result{};
    uint64_t first_block;
    bool started_over = false;
};

bool Recoverer::FindBehind(uint64_t at, uint64_t& found) {
    std::optional<uint64_t> ignored;
    // If the length in the header is wrong, it may lead past the first blocks. Then the search
    // starts again at the beginning of the file, once.
    if (at == first_block && !search.LooksLikeBlockAt(at) && !std::exchange(started_over, true))
        return search.Find(found = 0);
    return search.FindBehind(at, found, ignored);
}

void Recoverer::Skip(uint64_t from, uint64_t to) {
    if (from == to) return;
    ++result.gaps;
    result.skipped += to - from;
    if (sinks.gap) sinks.gap({from, to - from});
}

Recovery Recoverer::Run() {
    uint64_t at = first_block;
    // Where a block is expected, it counts if its lengths agree and it unpacks.
    bool expected = result.header == HeaderState::kWhole;
    while (window.error() == 0) {
        if (expected && search.Take(at)) {
            ++result.blocks;
            result.raw_bytes += search.raw().size();
            if (sinks.block) sinks.block(at, search.raw());
            search.Earn(search.block_end() - at);
            at = search.block_end();
            continue;
        }
        result.trailing = window.At(at, kBlockHeaderSize).size();
        result.end = at + result.trailing;
        if (result.trailing < kBlockHeaderSize) break;
        result.trailing = 0;

        uint64_t found;
        const bool more = expected ? FindBehind(at, found) : search.Find(found = at);
        const uint64_t gap = found < at ? 0 : at;
        if (!more) result.ends_cut = found - gap < kLeastBlock || search.IsCut(at, found);
        Skip(gap, found);
        result.end = found;
        if (!more) break;
        search.Earn(found - gap);
        at = found;
        expected = true;
    }
    result.error = window.error();
    return result;
}

}  // namespace

Recovery Recover(Source& source, const RecoverySinks& sinks) {
    return Recoverer(source, sinks).Run();
}

}  // namespace muxz
