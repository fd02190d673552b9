// Finds blocks where none is known to begin. docs/log-file-format.md tells the test and its price.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "tools/muxz/source.h"

namespace muxz {

class BlockSearch {
  public:
    // Moves `file` about: what it gave before is no longer valid after a call here.
    explicit BlockSearch(Window& file) : window(file) {}

    // Unpacks the block at `offset` into `raw()`, if there is one.
    bool Take(uint64_t offset);
    Bytes raw() const { return unpacked; }
    uint64_t block_end() const { return behind; }  // offset behind the block that was taken

    bool LooksLikeBlockAt(uint64_t offset);
    // Returns true if there is a block that is none by chance.
    bool IsTrusted(uint64_t offset);
    // Returns true if a row of blocks begins here that leads to the end of the file or, by way of
    // one block more, to bytes enough that it is none by chance.
    bool BeginsRow(uint64_t offset);

    // Returns true if lengths alone lead from a block at `offset` to one at `to`.
    bool LeadsTo(uint64_t offset, uint64_t to);

    // Moves `offset` on to the next trusted block, at most to `limit`. On false `offset` is at the
    // end of the file or behind `limit`.
    bool Find(uint64_t& offset, uint64_t limit = UINT64_MAX);
    // As `Find`, behind the lost block at `at`. `raw_lost`: what the lost blocks say that they
    // hold, where their lengths lead from one to the next and then to a block or the file's end.
    bool FindBehind(uint64_t at, uint64_t& found, std::optional<uint64_t>& raw_lost);
    // Returns true if a file of `end` bytes ends within a block at `offset`.
    bool IsCut(uint64_t offset, uint64_t end);

    // Allows more failures, for bytes that went by.
    void Earn(uint64_t bytes);

    std::function<void(uint64_t offset)> progress;  // now and then, while nothing is found

  private:
    // The offset behind a block at `offset`, by its lengths alone. REQUIRES: it looks like one.
    uint64_t Behind(uint64_t offset);
    bool EndsAt(uint64_t offset) { return window.At(offset, 2).size() <= 1; }

    // What may be spent, in bytes read or unpacked, on what turns out to be no block. It grows with
    // the bytes gone by, far faster than chance spends it, so that only contrived input ever runs
    // out.
    static constexpr int64_t kMostCredit = int64_t{256} * 1024 * 1024;

    Window& window;
    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    Bytes unpacked;
    uint64_t behind = 0;
    int64_t credit = kMostCredit;
};

// Where the blocks of a file begin whose header is another writer's.
struct FirstBlock {
    // Of the first trusted block, as recovery finds it, or of one in front of it that is damaged
    // but whose lengths lead there.
    std::optional<uint64_t> offset;
    // Of the first one that begins a row of blocks. Later than `offset`, there is damage behind the
    // block at `offset`, or that block is part of the header: a neighbour's header decides.
    std::optional<uint64_t> row;
};
constexpr uint64_t kMostHeader =
    uint64_t{128} * 1024;  // bytes, where the first block is looked for
FirstBlock FindFirstBlock(Source& source);

}  // namespace muxz
