#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <sys/wait.h>

namespace {

/// Of the last line that was reached, when later ones were not.
void CheckStopped(const RunFacts &facts, std::vector<Finding> &findings) {
    const UpdateLine *last = nullptr;
    std::vector<std::size_t> unreached;
    for (const LineVerdict &line : facts.lines) {
        if (line.result == LineResult::NeverRan)
            unreached.push_back(line.line.number);
        else
            last = &line.line;
    }
    if (unreached.empty())
        return;
    const std::string happens = std::string("the run ends here") + (facts.wasCut ? "" : ", but the exit status is 0") +
                                "; never ran: " + LinesText(unreached);
    findings.push_back(last != nullptr ? ForLine(*last, FindingId::Stopped, happens)
                                       : ForRun(FindingId::Stopped, happens, "see how the updater ended"));
}

} // namespace

/// How the run ended.
std::vector<Finding> CheckEnd(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (const std::string &trouble : facts.record.absent)
        findings.push_back(ForRun(FindingId::NeverCame, trouble));
    const int status = facts.record.status;
    const bool beganLines = facts.story.hasStarted && facts.story.refusal.empty();
    if (!facts.record.cutPlace.empty())
        findings.push_back(ForRun(FindingId::PowerCut, "power is lost during " + facts.record.cutPlace));
    else if (WIFSIGNALED(status) || (status != 0 && beganLines && !facts.lines.empty()))
        findings.push_back(ForRun(FindingId::Crashed, "the updater ends with " + EndingText(status)));
    if (beganLines)
        CheckStopped(facts, findings);
    return findings;
}
