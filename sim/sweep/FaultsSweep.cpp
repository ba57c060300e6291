// Requests that fail.

#include "sweep/SweepTable.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

/// Where a failure is answered with older requests: these also fail permanently, alone (an old kernel) and together.
constexpr RequestKind kFallbacks[][3] = {{RequestKind::Erase64, RequestKind::Erase, RequestKind::Erase},
                                         {RequestKind::WritePage, RequestKind::WriteOob, RequestKind::Write}};

} // namespace

SweepPlan PlanFaults(const ReferenceRun &reference, const SweepSettings &settings) {
    SweepPlan plan;
    const auto add = [&](std::vector<SimFault> faults) {
        SweepCase what;
        what.faults = std::move(faults);
        plan.cases.push_back(std::move(what));
    };
    for (std::uint32_t i = 0; i < kRequestKinds; ++i) {
        const auto kind = static_cast<RequestKind>(i);
        plan.places += static_cast<std::size_t>(reference.requests[i]);
        for (std::uint64_t nth = 1; nth <= reference.requests[i]; nth += settings.every)
            add({{kind, nth, RowOf(kind).usualError}});
    }
    for (const auto &chain : kFallbacks) {
        if (reference.requests[static_cast<std::size_t>(chain[0])] == 0)
            continue;
        add({{chain[0], 0, ENOTTY}});
        std::vector<SimFault> all;
        for (const RequestKind kind : chain)
            all.push_back({kind, 0, RowOf(kind).usualError});
        all.erase(std::unique(all.begin(), all.end(),
                              [](const SimFault &one, const SimFault &other) { return one.kind == other.kind; }),
                  all.end());
        add({all[0]});
        add(all);
    }
    return plan;
}

CaseResult TryFault(const SweepCase &what, const SweepTools &tools) {
    RigRun run;
    run.faults = what.faults;
    const RunOutcome outcome = RunWhole(tools.rig, run);
    const std::size_t line = what.faults.size() == 1 ? tools.judge.Reference().LineOfFault(what.faults.front()) : 0;
    return {tools.judge.JudgeFault(tools.rig.Chip(), outcome, line)};
}

std::string FaultHeading(const SweepResult &result) {
    return WalkedPlaces(result, "request") + " failing once, then kinds of requests failing always";
}
