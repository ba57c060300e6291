#include "base/Text.h"
#include "verdict/Checks.h"

#include <map>
#include <set>

namespace {

Finding UnerasedFinding(const UpdateLine *line, const std::string &happens) {
    return line != nullptr ? ForLine(*line, FindingId::Unerased, happens) : ForRun(FindingId::Unerased, happens);
}

} // namespace

/// Pages that were programmed without an erase: over old data, or empty by chance.
std::vector<Finding> CheckUnerasedPages(const RunFacts &facts) {
    std::map<const UpdateLine *, std::set<std::int64_t>> pages;
    for (const std::int64_t offset : facts.NotedPages(kUnerasedNote))
        pages[facts.WriterOf(offset)].insert(offset);
    std::map<const UpdateLine *, std::vector<std::int64_t>> blocks;
    for (std::uint32_t block = 0; block < facts.chip.Geometry().Blocks(); ++block) {
        if (facts.chip.Mark(block) != BlockMark::WrittenWithoutErase)
            continue;
        const std::int64_t offset = facts.flash.FromChip(std::uint64_t{block} * facts.chip.Geometry().eraseSize);
        const UpdateLine *line = facts.WriterOf(offset);
        if (pages.count(line) == 0)
            blocks[line].push_back(offset);
    }
    std::vector<Finding> findings;
    findings.reserve(pages.size() + blocks.size());
    for (const auto &[line, offsets] : pages)
        findings.push_back(UnerasedFinding(line, Count(static_cast<std::int64_t>(offsets.size()), "page") +
                                                     " programmed over bits that were already 0, first at " +
                                                     Hex(*offsets.begin()) +
                                                     ": the flash holds neither the old data nor the new"));
    for (const auto &[line, offsets] : blocks)
        findings.push_back(UnerasedFinding(line, Count(static_cast<std::int64_t>(offsets.size()), "block") +
                                                     " programmed without an erase, first at " + Hex(offsets.front()) +
                                                     ": this chip was empty there, a device in use is not"));
    return findings;
}
