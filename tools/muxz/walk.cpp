#include "tools/muxz/walk.h"

#include <utility>

namespace muxz {

namespace {

void TellLoss(const Loss& loss, FileFacts& facts) {
    Finding& finding =
        AddFinding(facts, Finding::Kind::kFault, Finding::What::kDamage, facts.end_reason);
    finding.offset = loss.offset;
    finding.length = loss.length;
    finding.raw_missing = loss.raw;
    facts.damaged_bytes += loss.length;
}

// Estimates the missing raw bytes of lost blocks without intact lengths, from the compression ratio
// of the file's good blocks.
void EstimateLosses(FileFacts& facts, size_t first) {
    for (size_t i = first; i < facts.findings.size(); ++i) {
        Finding& finding = facts.findings[i];
        if (!finding.raw_missing && facts.blocks.packed != 0) {
            const double ratio =
                static_cast<double>(facts.blocks.raw) / static_cast<double>(facts.blocks.packed);
            finding.raw_missing =
                static_cast<uint64_t>(static_cast<double>(finding.length) * ratio);
            finding.raw_estimated = true;
        }
        finding.text +=
            "; " + std::to_string(finding.length) + " bytes passed over, " + RawMissing(finding);
    }
}

void TellEnd(const BlockReader& reader, FileFacts& facts) {
    const auto tell = [&](Finding::Kind kind, Finding::What what) {
        Finding& finding = AddFinding(facts, kind, what, reader.reason());
        finding.offset = reader.offset();
        finding.length = reader.trailing();
    };
    switch (reader.end()) {
        case End::kWhole:
        case End::kStrayByte:
        case End::kDamaged:  // already reported as a loss
            return;
        case End::kCutLengths:
            if (!facts.may_be_open) tell(Finding::Kind::kNote, Finding::What::kCutEnd);
            return;
        case End::kCutBlock:
            if (!facts.may_be_open) tell(Finding::Kind::kFault, Finding::What::kCutEnd);
            return;
        case End::kReadError:
            facts.readable = false;
            tell(Finding::Kind::kUnreadable, Finding::What::kUnreadable);
            return;
    }
}

}  // namespace

Finding& AddFinding(FileFacts& facts, Finding::Kind kind, Finding::What what, std::string text) {
    Finding& finding = facts.findings.emplace_back();
    finding.kind = kind;
    finding.what = what;
    finding.path = facts.path;
    finding.text = std::move(text);
    return finding;
}

void WalkBlocks(Source& source, BlockReader::Mode mode, FileFacts& facts,
                const std::function<bool(BlockReader&, const Block&)>& take) {
    BlockReader reader(source, facts.header.length, mode);
    const size_t first_loss = facts.findings.size();
    for (bool more = true; more;) {
        for (Block block; reader.Next(block) && take(reader, block);) {
            facts.blocks.Add(block.lengths);
        }
        facts.end = reader.end();
        facts.end_offset = reader.offset();
        facts.end_reason = reader.reason();
        Loss loss;
        more = reader.GoOn(loss);
        if (more && facts.end == End::kCutBlock)
            facts.end_reason = "block says more packed bytes than the file has left";
        if (loss.length != 0) TellLoss(loss, facts);
    }
    EstimateLosses(facts, first_loss);
    facts.trailing = reader.trailing();
    TellEnd(reader, facts);
}

}  // namespace muxz
