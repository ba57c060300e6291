#include "base/Text.h"
#include "verdict/Checks.h"

#include <vector>

/// What the update took from the machine, and what it did to the chip other than through an MTD device.
std::vector<Finding> CheckLimits(const RunFacts &facts) {
    std::vector<Finding> findings;
    if (facts.record.isOverdue)
        findings.push_back(ForRun(FindingId::TimedOut, "the run timed out and was killed"));
    if (!facts.record.excess.empty())
        findings.push_back(ForRun(FindingId::TooMuch, "the run took too much (" + facts.record.excess +
                                                          ") and all its processes were killed"));
    if (facts.record.isOutputCut)
        findings.push_back(ForRun(FindingId::OutputCut, "the output is truncated; what follows is lost"));
    if (!facts.record.leftPrograms.empty()) {
        const std::vector<std::string> names = SplitList(facts.record.leftPrograms);
        findings.push_back(ForRun(FindingId::StillRunning,
                                  JoinWords(names, ", ") + (names.size() == 1 ? " still runs" : " still run") +
                                      " when the update ends: later changes of flash are not rehearsed"));
    }
    const std::vector<std::uint32_t> pages = facts.chip.MisfitPages();
    if (!pages.empty()) {
        const std::uint64_t offset = std::uint64_t{pages.front()} * facts.chip.Geometry().pageSize;
        findings.push_back(
            ForRun(FindingId::ChipBypassed,
                   Count(static_cast<std::int64_t>(pages.size()), "page") +
                       " changed other than by a request, or while the writer was killed; the first at " +
                       Hex(static_cast<std::int64_t>(offset))));
    }
    return findings;
}
