// Walks the blocks of one file to its end, on behind damage.
#pragma once

#include <functional>
#include <string>

#include "tools/muxz/model.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/source.h"

namespace muxz {

// Adds a finding about the file and returns it.
Finding& AddFinding(FileFacts& facts, Finding::Kind kind, Finding::What what, std::string text);

// Calls `take` for each block behind the header that `facts` tell. `take` returns false when the
// block does not unpack, as BlockReader::Unpack and Check do. Adds blocks, damage and the end of
// the file to `facts`.
void WalkBlocks(Source& source, BlockReader::Mode mode, FileFacts& facts,
                const std::function<bool(BlockReader&, const Block&)>& take);

}  // namespace muxz
