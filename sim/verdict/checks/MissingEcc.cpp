#include "verdict/BlockContent.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"

namespace {

/// @return what an image holds that is read normally later, with its article; empty for none.
std::string ContentReadThroughEcc(const RunFacts &facts, const UpdateLine &line) {
    const auto image = facts.record.contents.find(line.image);
    if (image == facts.record.contents.end())
        return "";
    const auto eraseSize = static_cast<std::size_t>(facts.flash.EraseSize());
    if (const DataFormat *format = FindFormatReadThroughEcc(image->second, eraseSize))
        return format->name;
    const BlockContent content = LookAtBlock(image->second);
    return content.length != 0 ? content.text : "";
}

} // namespace

/// Data that `write` puts on the flash without ECC: on a chip whose ECC is the kernel's, a normal read "corrects" bits
/// that were right.
std::vector<Finding> CheckMissingEcc(const RunFacts &facts) {
    std::vector<Finding> findings;
    std::vector<std::size_t> others;
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        if (facts.chip.EccMode() != Ecc::Host || line.kind != LineKind::Write || facts.IsPassedOver(verdict) ||
            facts.ImageSize(line) == 0)
            continue;
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
