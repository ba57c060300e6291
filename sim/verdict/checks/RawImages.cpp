#include "base/Text.h"
#include "verdict/Checks.h"

#include <algorithm>
#include <cstdio>

namespace {

/// @return bytes of the last record when the updater found it incomplete, or would; 0 for whole records.
std::int64_t PartialRecord(const RunFacts &facts, const UpdateLine &line, const LineStory &story) {
    if (!story.readsToTheEnd)
        return facts.ImageSize(line).value_or(0) % facts.RecordSize(line);
    std::int64_t rest = 0;
    for (const std::string &message : story.others) {
        int count = 0;
        if (sscanf(message.c_str(), "warning : file read datasize = %d,", &count) == 1 && count > 0)
            rest = count;
    }
    return rest;
}

} // namespace

/// Raw images that are framed wrongly: on a device that does not report its OOB size, and those that end within a
/// record, such as those made for another page size.
std::vector<Finding> CheckRawImages(const RunFacts &facts) {
    const NandGeometry &geometry = facts.chip.Geometry();
    std::vector<Finding> findings;
    for (std::size_t i = 0; i < facts.lines.size(); ++i) {
        const UpdateLine &line = facts.lines[i].line;
        if (line.kind != LineKind::WriteOob || !line.isComplete)
            continue;
        const auto &missing = facts.record.missingSysfs;
        if (std::find(missing.begin(), missing.end(), "oobsize") != missing.end()) {
            findings.push_back(ForLine(line, FindingId::NoOobSize,
                                       "the device doesn't report its OOB size: the updater takes the image for pages "
                                       "without OOB, and writes OOB bytes into pages"));
            continue;
        }
        if (const std::int64_t rest = PartialRecord(facts, line, facts.story.lines[i]))
            findings.push_back(ForLine(line, FindingId::RawLength,
                                       "the image ends with " + Count(rest, "byte") + " of a record of " +
                                           std::to_string(facts.RecordSize(line)) +
                                           ": the rest of that page is filled from the page before",
                                       "use an image of whole pages of " + std::to_string(geometry.pageSize) +
                                           " bytes, each with " + std::to_string(geometry.oobSize) + " bytes of OOB"));
    }
    return findings;
}
