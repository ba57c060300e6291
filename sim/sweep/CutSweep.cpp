// Power cuts, each followed by a run of the update from its start.

#include "sweep/SweepTable.h"

SweepPlan PlanCuts(const ReferenceRun &reference, const SweepSettings &settings) {
    SweepPlan plan;
    plan.places = static_cast<std::size_t>(reference.changes);
    for (std::uint64_t change = 1; change <= reference.changes; change += settings.every)
        plan.cases.push_back({{}, change, {}});
    return plan;
}

CaseResult TryCut(const SweepCase &what, Rig &rig, const SweepJudge &judge) {
    const RunOutcome cut = RunWhole(rig, what.cutAtChange, {});
    const std::size_t unsealedLine = judge.FindUnsealed(rig.Chip(), cut);
    const RunOutcome again = RunWhole(rig, 0, {});
    return {judge.JudgeCut(rig.Chip(), cut, again), unsealedLine};
}

std::string CutHeading(const SweepResult &result) {
    return "power cut at " + WalkedPlaces(result, "change") + ", then the update run again";
}
