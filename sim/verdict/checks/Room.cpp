#include "base/Text.h"
#include "verdict/Checks.h"

/// Whether ranges have room for their images and for bad blocks.
std::vector<Finding> CheckRoom(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        const std::optional<std::int64_t> spare = verdict.SpareBlocks();
        if (!spare)
            continue;
        if (*verdict.imageBlocks == 0)
            findings.push_back(ForLine(line, FindingId::EmptyImage,
                                       line.image + " is empty: the range is erased and nothing is written"));
        // Makers guarantee that the first block is good.
        const FlashRange range = *facts.RangeOf(verdict);
        const bool isFirstBlock =
            facts.flash.OnChip(range.begin) == 0 && range.end - range.begin == facts.flash.EraseSize();
        if (*spare == 0 && !isFirstBlock)
            findings.push_back(ForLine(line, FindingId::NoSpare,
                                       std::string("the image fills its range: on a device with a bad block there, ") +
                                           (range.end == facts.flash.Size() ? "the end of the image is lost, silently"
                                                                            : "the run ends here")));
        else if (*spare < 0 && verdict.result == LineResult::NeverRan)
            findings.push_back(
                ForLine(line, FindingId::OutrunsRange,
                        "the line would fail: the image is " + Count(-*spare, "block") + " longer than its range"));
    }
    return findings;
}
