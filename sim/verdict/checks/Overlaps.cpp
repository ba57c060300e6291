#include "base/Text.h"
#include "verdict/BlockContent.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"

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

} // namespace

/// Ranges in each other's way.
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
    return findings;
}
