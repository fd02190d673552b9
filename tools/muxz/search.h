// Finds blocks at unknown offsets. docs/log-file-format.md, "Finding blocks", describes the tests
// and the limits of the search.
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
    // `file` is not owned. The functions here move the window, so bytes that the caller got from it
    // before are no longer valid after a call.
    explicit BlockSearch(Window& file) : window(file) {}

    // Unpacks the block at `offset`. Returns true if there is a block that unpacks. `raw()` is then
    // its content, and `block_end()` is the offset behind it.
    bool Take(uint64_t offset);
    Bytes raw() const { return unpacked; }
    uint64_t block_end() const { return behind; }

    // Returns true if the first bytes at `offset` may be those of a block. Unpacks nothing.
    bool LooksLikeBlockAt(uint64_t offset);
    // Returns true if there is a block at `offset` that other bytes do not look like by chance.
    bool IsTrusted(uint64_t offset);
    // Returns true if a row of blocks begins at `offset`. The row leads to the end of the file, or
    // has at least two blocks with 64 raw bytes in total, so that it is no chance.
    bool BeginsRow(uint64_t offset);

    // Returns true if the lengths of the blocks, from the one at `offset` on, lead to `to`. Unpacks
    // nothing.
    bool LeadsTo(uint64_t offset, uint64_t to);

    // Moves `offset` forward to the next trusted block, at most to `limit`. Returns false if there
    // is none; `offset` is then at the end of the file or behind `limit`.
    bool Find(uint64_t& offset, uint64_t limit = UINT64_MAX);
    // As `Find`, but searches behind the lost block at `at` and sets `found`. If the lengths of the
    // lost blocks lead from one to the next, and then to a good block or to the end of the file,
    // `raw_lost` is the sum of their raw lengths. Otherwise it has no value.
    bool FindBehind(uint64_t at, uint64_t& found, std::optional<uint64_t>& raw_lost);
    // Returns true if a block at `offset` does not fit into a file of `end` bytes.
    bool IsCut(uint64_t offset, uint64_t end);

    // Adds credit for `bytes` that the caller passed. See kMostCredit.
    void Earn(uint64_t bytes);

    // Called at intervals while no block is found. May be empty.
    std::function<void(uint64_t offset)> progress;

  private:
    // Returns the offset behind the block at `offset`, from its lengths alone.
    // REQUIRES: LooksLikeBlockAt(offset).
    uint64_t Behind(uint64_t offset);
    // Returns true if the file ends at `offset`, or one stray byte behind it.
    bool EndsAt(uint64_t offset) { return window.At(offset, 2).size() <= 1; }

    // Largest credit in bytes. Reading or unpacking bytes that turn out to be no block costs
    // credit. Passing bytes adds credit, far more than chance costs. Only contrived input uses it
    // up.
    static constexpr int64_t kMostCredit = int64_t{256} * 1024 * 1024;

    Window& window;
    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    Bytes unpacked;
    uint64_t behind = 0;
    int64_t credit = kMostCredit;
};

// Where the blocks of a file begin, if the layout of its header is unknown.
struct FirstBlock {
    // Offset of the first trusted block. Or offset of a damaged block in front of that one, if the
    // lengths of the damaged block lead to it.
    std::optional<uint64_t> offset;
    // Offset of the first trusted block that begins a row of blocks. If `row` is greater than
    // `offset`, the bytes behind the block at `offset` are damaged, or that block is a part of the
    // header. The other files of the folder show which of both is true.
    std::optional<uint64_t> row;
};
// Bytes in which the first block is searched.
constexpr uint64_t kMostHeader = uint64_t{128} * 1024;
FirstBlock FindFirstBlock(Source& source);

}  // namespace muxz
