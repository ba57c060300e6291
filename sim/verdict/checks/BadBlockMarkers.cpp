#include "base/Text.h"
#include "verdict/Checks.h"

#include <map>

/// Data where the kernel looks for bad-block markers: at its next start it takes such a block for bad.
std::vector<Finding> CheckBadBlockMarkers(const RunFacts &facts) {
    struct Marked {
        std::int64_t count = 0;
        std::int64_t first = 0;
    };
    std::map<const UpdateLine *, Marked> lines;
    for (std::uint32_t block = 0; block < facts.chip.Geometry().Blocks(); ++block) {
        if (facts.chip.IsBad(block) || !facts.chip.IsTouched(block) || !facts.chip.HasBadBlockMarker(block))
            continue;
        const std::int64_t offset = facts.flash.FromChip(std::uint64_t{block} * facts.chip.Geometry().eraseSize);
        Marked &marked = lines[facts.WriterOf(offset)];
        if (marked.count++ == 0)
            marked.first = offset;
    }
    std::vector<Finding> findings;
    for (const auto &[line, marked] : lines) {
        const std::string happens = "at its next start the kernel takes " + Count(marked.count, "good block") +
                                    " for bad, first at " + Hex(marked.first) + ": data " +
                                    (marked.count == 1 ? "is" : "are") + " where bad-block markers are";
        findings.push_back(line != nullptr ? ForLine(*line, FindingId::FalseMarkers, happens)
                                           : ForRun(FindingId::FalseMarkers, happens));
    }
    return findings;
}
