#include "base/Text.h"
#include "verdict/BlockContent.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"
#include "verdict/LineFinder.h"

#include <algorithm>
#include <map>
#include <set>

namespace {

/// @return whether an image that a line wrote has a whole environment in a range, with no bad block up to its end.
bool HoldsEnvironment(const RunFacts &facts, const UpdateLine &line, const FlashRange &lineRange,
                      const FlashRange &range) {
    const auto image = facts.record.contents.find(line.image);
    if (!line.WritesImage() || image == facts.record.contents.end() || !lineRange.Holds(range) ||
        !facts.flash.BadBlocks({lineRange.begin, range.end}).empty())
        return false;
    const auto pageSize = std::size_t{facts.chip.Geometry().pageSize};
    const auto record = static_cast<std::size_t>(facts.RecordSize(line));
    std::string block;
    for (std::int64_t at = range.begin; at < range.end; at += facts.chip.Geometry().pageSize) {
        const std::size_t start = static_cast<std::size_t>(at - lineRange.begin) / pageSize * record;
        if (start + pageSize > image->second.size())
            return false;
        block.append(image->second, start, pageSize);
    }
    return LookAtBlock(block).kind == BlockContent::Kind::Environment;
}

/// @return whether a later line takes away what an earlier one put on the flash.
bool Destroys(const RunFacts &facts, const UpdateLine &later, const FlashRange &laterRange, const LineVerdict &earlier,
              const FlashRange &earlierRange) {
    if (!laterRange.Overlaps(earlierRange) || earlier.line.kind == LineKind::Erase || facts.IsPassedOver(earlier))
        return false;
    if (later.kind != LineKind::SetEnv || earlier.line.kind == LineKind::Ubiformat)
        return true;
    // A change of a variable keeps the rest of an environment that the range holds whole, also one within a larger
    // image. Of another larger image the change takes a part for an environment; a smaller one may continue after its
    // end, where bad blocks push the data.
    if (earlier.line.kind == LineKind::SetEnv)
        return !(laterRange == earlierRange);
    if (HoldsEnvironment(facts, earlier.line, earlierRange, laterRange))
        return false;
    const std::optional<std::int64_t> &image = earlier.imageBlocks;
    return laterRange.begin != earlierRange.begin || !image ||
           *image > (laterRange.end - laterRange.begin) / facts.flash.EraseSize();
}

/// @return the range that a line changes; nothing for one that the updater refuses untouched.
std::optional<FlashRange> ChangedRange(const RunFacts &facts, const LineVerdict &line) {
    const std::optional<FlashRange> range = facts.RangeOf(line);
    return range && facts.flash.IsAligned(*range) ? range : std::nullopt;
}

/// What a line erased of the work of programs that earlier lines started.
struct Loss {
    std::set<std::uint32_t> blocks;
    std::set<std::string> programs;
};

/// @return whether an offset is in the partition of a `ubiformat` line.
bool IsOwnPartition(const RunFacts &facts, std::size_t number, std::int64_t offset) {
    return std::any_of(facts.lines.begin(), facts.lines.end(), [&](const LineVerdict &verdict) {
        const std::optional<FlashRange> range = facts.RangeOf(verdict);
        return verdict.line.number == number && verdict.line.kind == LineKind::Ubiformat && range &&
               range->Holds(offset);
    });
}

/// @return the losses by line number.
std::map<std::size_t, Loss> FindLosses(const RunFacts &facts) {
    std::map<std::size_t, Loss> losses;
    // Without names, a run elsewhere, the changes of programs can't be told from the updater's.
    if (!facts.record.namesChangers || facts.changers.empty())
        return losses;
    std::vector<UpdateLine> lines;
    for (const LineVerdict &verdict : facts.lines)
        lines.push_back(verdict.line);
    LineFinder finder(facts.chip, facts.record.devices, lines, facts.story);
    std::map<std::uint32_t, std::size_t> written; // blocks with data of other programs, and the line that started them
    for (const RunChange &change : facts.record.updater.changes) {
        const std::size_t number = finder.Change(change);
        if (change.kind != AccessKind::Erase) {
            const std::uint32_t block = change.place / facts.chip.Geometry().PagesPerBlock();
            const std::int64_t offset = facts.flash.FromChip(std::uint64_t{block} * facts.chip.Geometry().eraseSize);
            // What a ubiformat line does to its partition is the line's own work.
            if (change.isByProgram || IsOwnPartition(facts, number, offset))
                written.erase(block);
            else
                written[block] = number;
            continue;
        }
        const auto found = written.find(change.place);
        if (found == written.end())
            continue;
        const auto line = std::find_if(facts.lines.begin(), facts.lines.end(),
                                       [&](const LineVerdict &verdict) { return verdict.line.number == number; });
        const std::size_t writer = found->second;
        written.erase(found);
        // A change of a variable keeps what it finds, and a program may erase what another one wrote for it.
        if (line == facts.lines.end() || line->line.kind == LineKind::SetEnv ||
            (!change.isByProgram && (line->line.kind != LineKind::Ubiformat || writer == number)))
            continue;
        const std::optional<FlashRange> range = facts.RangeOf(*line);
        const std::int64_t offset = facts.flash.FromChip(std::uint64_t{change.place} * facts.chip.Geometry().eraseSize);
        if (!range || !range->Holds(offset))
            continue;
        Loss &loss = losses[number];
        loss.blocks.insert(change.place);
        const auto programs = facts.changers.find(change.place);
        if (programs != facts.changers.end())
            loss.programs.insert(programs->second.begin(), programs->second.end());
        if (!change.isByProgram)
            loss.programs.erase("ubiformat");
    }
    return losses;
}

void CheckLosses(const RunFacts &facts, std::vector<Finding> &findings) {
    const std::map<std::size_t, Loss> losses = FindLosses(facts);
    for (const LineVerdict &verdict : facts.lines) {
        const auto found = losses.find(verdict.line.number);
        if (found == losses.end())
            continue;
        const Loss &loss = found->second;
        const std::int64_t first =
            facts.flash.FromChip(std::uint64_t{*loss.blocks.begin()} * facts.chip.Geometry().eraseSize);
        findings.push_back(ForLine(verdict.line, FindingId::Overlap,
                                   "the line erases " + Count(static_cast<std::int64_t>(loss.blocks.size()), "block") +
                                       " that " + JoinWords({loss.programs.begin(), loss.programs.end()}, ", ") +
                                       " wrote earlier in the run, first at " + Hex(first)));
    }
}

} // namespace

/// Ranges in each other's way, and what programs of the update wrote there.
std::vector<Finding> CheckOverlaps(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (auto later = facts.lines.begin(); later != facts.lines.end(); ++later) {
        const std::optional<FlashRange> range = ChangedRange(facts, *later);
        if (!range || facts.IsPassedOver(*later))
            continue;
        std::vector<std::size_t> numbers;
        for (auto earlier = facts.lines.begin(); earlier != later; ++earlier) {
            const std::optional<FlashRange> earlierRange = ChangedRange(facts, *earlier);
            if (earlierRange && Destroys(facts, later->line, *range, *earlier, *earlierRange))
                numbers.push_back(earlier->line.number);
        }
        if (!numbers.empty())
            findings.push_back(ForLine(later->line, FindingId::Overlap,
                                       "its range " + Hex(range->begin) + " to " + Hex(range->end) +
                                           " erases data written earlier by " + LinesText(numbers)));
    }
    CheckLosses(facts, findings);
    return findings;
}
