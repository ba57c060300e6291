// Blocks that wear out: from the start of the update on, their erases or their programs fail.

#include "base/Text.h"
#include "sweep/SweepTable.h"

SweepPlan PlanWear(const ReferenceRun &reference, const SweepSettings &) {
    SweepPlan plan;
    for (const std::uint32_t block : reference.UsedBlocks()) {
        SweepCase what;
        what.eraseFails = {block};
        plan.cases.push_back(what);
        what = {};
        what.programFails = {block};
        plan.cases.push_back(what);
        ++plan.places;
    }
    return plan;
}

std::string WearHeading(const SweepResult &result) {
    return "each of " + Count(static_cast<std::int64_t>(result.places), "block") +
           " worn out in turn, for erases and for programs";
}
