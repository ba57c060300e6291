#include "base/Text.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <algorithm>

namespace {

void CheckPrograms(const UpdateLine &line, const LineStory &story, std::vector<Finding> &findings) {
    for (const auto &[program, status] : story.exits) {
        if (status != 0)
            findings.push_back(ForLine(line, FindingId::FormatFailed,
                                       program + " ends with " + EndingText(status) +
                                           ", and the updater goes on as if it had worked"));
    }
}

void CheckErase(const RunFacts &facts, const UpdateLine &line, const FlashRange &range,
                std::vector<Finding> &findings) {
    const std::vector<std::uint32_t> blocks = facts.flash.GoodBlocks(range);
    const auto left =
        std::count_if(blocks.begin(), blocks.end(), [&](std::uint32_t block) { return !facts.chip.IsTouched(block); });
    if (left > 0)
        findings.push_back(
            ForLine(line, FindingId::NotDone, Count(left, "block") + " of the range not erased, silently"));
}

void CheckImage(const RunFacts &facts, const UpdateLine &line, const LineStory &story, std::vector<Finding> &findings) {
    const std::optional<FlashRange> range = facts.flash.RangeOf(line);
    const std::optional<std::int64_t> size = facts.ImageSize(line);
    if (!range || !size) {
        if (!story.readsToTheEnd)
            findings.push_back(
                ForLine(line, FindingId::NotDone, "no message confirms that the whole image is written"));
        return;
    }
    // The walk may end silently at the end of the flash, before the image does.
    const std::uint32_t pagesPerBlock = facts.chip.Geometry().PagesPerBlock();
    const std::vector<std::uint32_t> blocks = facts.flash.GoodBlocks({range->begin, facts.flash.Size()});
    const std::int64_t record = facts.RecordSize(line);
    const std::int64_t room = static_cast<std::int64_t>(blocks.size()) * pagesPerBlock * record;
    if (*size > room)
        findings.push_back(ForLine(line, FindingId::CutAtEnd,
                                   "the flash ends before the image, which silently loses " +
                                       Count(*size - room, "byte") + " at its end"));
    std::int64_t left = 0;
    const bool isKnown = facts.record.contents.count(line.image) != 0;
    const std::int64_t pages = (std::min(*size, room) + record - 1) / record;
    for (std::int64_t i = 0; i < pages; ++i) {
        const auto number = static_cast<std::uint64_t>(i);
        const std::uint32_t block = blocks[number / pagesPerBlock];
        const std::int64_t offset = facts.flash.FromChip(std::uint64_t{block} * facts.chip.Geometry().eraseSize);
        // What a touched block holds is compared with the image where the image is known.
        const bool isProgrammed =
            facts.chip.IsTouched(block) &&
            (isKnown ||
             facts.chip.IsProgrammed(block * pagesPerBlock + static_cast<std::uint32_t>(number % pagesPerBlock)));
        // A later line may have erased the page; that is reported for the later line.
        if (!isProgrammed && facts.WriterOf(offset) == &line)
            ++left;
    }
    if (left > 0)
        findings.push_back(
            ForLine(line, FindingId::NotDone,
                    std::to_string(left) + " of " + Count(pages, "page") + " of the image not written, silently"));
}

} // namespace

/// Whether lines that the updater takes for carried out were carried out: on a device that doesn't report its sizes,
/// commands end at once.
std::vector<Finding> CheckCleanLines(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (std::size_t i = 0; i < facts.lines.size(); ++i) {
        if (facts.lines[i].result != LineResult::Clean)
            continue;
        const UpdateLine &line = facts.lines[i].line;
        const LineStory &story = facts.story.lines[i];
        CheckPrograms(line, story, findings);
        const std::optional<FlashRange> range = facts.flash.RangeOf(line);
        if (line.kind == LineKind::Erase && range)
            CheckErase(facts, line, *range, findings);
        else if (line.WritesImage())
            CheckImage(facts, line, story, findings);
    }
    return findings;
}
