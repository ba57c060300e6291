#include "base/Text.h"
#include "verdict/BlockContent.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"
#include "verdict/UbiFacts.h"

#include <algorithm>
#include <string_view>

namespace {

/// @return what an image holds that is read normally later, with its article; empty for none.
std::string ContentReadThroughEcc(const RunFacts &facts, const UpdateLine &line) {
    const std::vector<std::uint8_t> bytes = UbiImageBytes(facts, line);
    const std::string_view image(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    const auto eraseSize = static_cast<std::size_t>(facts.flash.EraseSize());
    if (const DataFormat *format = FindFormatReadThroughEcc(image, eraseSize))
        return format->name;
    const BlockContent content = LookAtBlock(image);
    return content.length != 0 ? content.text : "";
}

/// @return whether a later line changes the flash at an offset: what is there is not this line's.
bool IsTakenLater(const RunFacts &facts, const LineVerdict &verdict, std::int64_t offset) {
    return std::any_of(facts.lines.begin(), facts.lines.end(), [&](const LineVerdict &later) {
        const std::optional<FlashRange> range = facts.RangeOf(later);
        return later.line.number > verdict.line.number && range && range->Holds(offset) && !facts.IsPassedOver(later);
    });
}

/// @return how many pages of a raw image the kernel can't read as they are: their OOB has no ECC, or another one.
std::int64_t UnsoundPages(const RunFacts &facts, const LineVerdict &verdict) {
    const std::optional<FlashRange> range = facts.RangeOf(verdict);
    if (!range || !facts.flash.IsOnFlash(*range))
        return 0;
    const NandGeometry &geometry = facts.chip.Geometry();
    std::vector<std::uint8_t> data(geometry.pageSize);
    std::int64_t pages = facts.ImageSize(verdict.line).value_or(0) / facts.RecordSize(verdict.line);
    std::int64_t unsound = 0;
    for (const std::uint32_t block : facts.flash.GoodBlocks(*range)) {
        const std::uint32_t first = block * geometry.PagesPerBlock();
        const bool isOther =
            IsTakenLater(facts, verdict, facts.flash.FromChip(std::uint64_t{block} * geometry.eraseSize));
        for (std::uint32_t page = first; page < first + geometry.PagesPerBlock() && pages > 0; ++page, --pages)
            unsound += !isOther && facts.chip.Read(page, 0, geometry.pageSize, data.data()).Worst() != ReadResult::Clean
                           ? 1
                           : 0;
    }
    return unsound;
}

Finding RawImageFinding(const UpdateLine &line, const std::string &content, std::int64_t unsound) {
    return ForLine(
        line, FindingId::MissingEcc,
        line.image + " is " + content + ", which is read through the ECC; " + Count(unsound, "page") +
            " of the raw image " + (unsound == 1 ? "does" : "do") +
            " not have the ECC of this chip, so such reads turn bits or fail",
        "make the image with the ECC of the chip, such as a dump of a chip that the kernel has written; for a "
        "chip with on-die ECC rehearse with --ecc chip");
}

} // namespace

/// Data that `write` puts on the flash without ECC: on a chip whose ECC is the kernel's, a normal read "corrects" bits
/// that were right.
std::vector<Finding> CheckMissingEcc(const RunFacts &facts) {
    std::vector<Finding> findings;
    std::vector<std::size_t> others;
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        if (facts.chip.EccMode() != Ecc::Host || !line.WritesImage() || facts.IsPassedOver(verdict) ||
            facts.ImageSize(line) == 0)
            continue;
        if (line.kind == LineKind::WriteOob) {
            const std::int64_t unsound = verdict.result == LineResult::Clean ? UnsoundPages(facts, verdict) : 0;
            const std::string content = unsound > 0 ? ContentReadThroughEcc(facts, line) : "";
            if (!content.empty())
                findings.push_back(RawImageFinding(line, content, unsound));
            continue;
        }
        const std::string content = ContentReadThroughEcc(facts, line);
        if (content.empty() && verdict.result == LineResult::Clean)
            others.push_back(line.number);
        else if (!content.empty())
            findings.push_back(ForLine(line, FindingId::MissingEcc,
                                       line.image + " is " + content +
                                           ", which is read through the ECC; a raw write leaves no ECC, so such reads "
                                           "turn bits or fail"));
    }
    if (!others.empty())
        findings.push_back(ForRun(FindingId::NoEcc, LinesText(others) + (others.size() == 1 ? " writes" : " write") +
                                                        " without ECC: a normal read of that data turns bits or fails, "
                                                        "a raw read gives the data"));
    return findings;
}
