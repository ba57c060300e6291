// Requests that fail.

#include "sweep/SweepTable.h"

SweepPlan PlanFaults(const ReferenceRun &reference, const SweepSettings &settings) {
    SweepPlan plan;
    for (std::uint32_t i = 0; i < kRequestKinds; ++i) {
        const auto kind = static_cast<RequestKind>(i);
        plan.places += static_cast<std::size_t>(reference.requests[i]);
        for (std::uint64_t nth = 1; nth <= reference.requests[i]; nth += settings.every)
            plan.cases.push_back({{}, 0, {{kind, nth, RowOf(kind).usualError}}});
    }
    return plan;
}

CaseResult TryFault(const SweepCase &what, Rig &rig, const SweepJudge &judge) {
    const RunOutcome run = RunWhole(rig, 0, what.faults);
    return {judge.JudgeFault(rig.Chip(), run)};
}

std::string FaultHeading(const SweepResult &result) { return WalkedPlaces(result, "request") + " failing once"; }
