#include "base/Text.h"
#include "verdict/Checks.h"

/// The ranges of lines that the run didn't reach. The updater itself complains about the others.
std::vector<Finding> CheckUnreachedRanges(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        if (!line.hasRange || line.IsTurnedLong() || verdict.result != LineResult::NeverRan)
            continue;
        const std::optional<FlashRange> range = facts.RangeOf(verdict);
        if (!range)
            findings.push_back(ForLine(line, FindingId::EmptyRange, "the line would fail: its range is empty"));
        else if (!facts.flash.IsAligned(*range))
            findings.push_back(
                ForLine(line, FindingId::Misaligned,
                        "the line would fail: offset or size is not a multiple of " + Hex(facts.flash.EraseSize())));
        else if (!facts.flash.IsOnFlash(*range))
            findings.push_back(ForLine(line, FindingId::OffChip,
                                       "the line would fail halfway: its range is " + Hex(range->begin) + " to " +
                                           Hex(range->end) + ", the flash ends at " + Hex(facts.flash.Size())));
    }
    return findings;
}
