// Reads all blocks of a file up to its end, and goes on behind damage.
#pragma once

#include <functional>
#include <string>

#include "tools/muxz/model.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/source.h"

namespace muxz {

// Adds a finding about the file. The returned reference is valid until the next finding is added.
Finding& AddFinding(FileFacts& facts, Finding::Kind kind, Finding::What what, std::string text);

// Calls `take` for each block behind the header in `facts`. Adds the blocks, the damage and the end
// of the file to `facts`. `take` returns the result of BlockReader::Unpack or Check, or true if it
// calls neither.
void WalkBlocks(Source& source, BlockReader::Mode mode, FileFacts& facts,
                const std::function<bool(BlockReader&, const Block&)>& take);

}  // namespace muxz
