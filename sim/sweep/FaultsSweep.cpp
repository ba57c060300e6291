// Requests that fail.

#include "sweep/SecondRuns.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

/// Where a failure is answered with older requests: these also fail permanently, alone (an old kernel) and together.
constexpr RequestKind kFallbacks[][3] = {{RequestKind::Erase64, RequestKind::Erase, RequestKind::Erase},
                                         {RequestKind::WritePage, RequestKind::WriteOob, RequestKind::Write}};

std::size_t LineOf(const SweepCase &what, const SweepJudge &judge) {
    return what.faults.size() == 1 ? judge.Reference().LineOfFault(what.faults.front()) : 0;
}

/// Runs the update with the faults of a case.
/// @param isToRepair becomes true when a second run has to repair what a reported failure left; one without the fault
void RunWithFaults(const SweepCase &what, const SweepTools &tools, CaseResult &result, bool &isToRepair) {
    RigRun run;
    run.faults = what.faults;
    const RunOutcome outcome = RunWhole(tools.rig, run);
    result.complaint = tools.judge.JudgeFault(tools.rig.Chip(), outcome, LineOf(what, tools.judge));
    const bool isOnce = what.faults.size() == 1 && what.faults.front().nth != 0;
    isToRepair = isOnce && !result.complaint && tools.judge.IsReported(outcome);
}

CaseResult OfSecondRun(std::optional<SweepComplaint> complaint) {
    if (complaint)
        complaint->isOfSecondRun = true;
    return {complaint};
}

/// Real runs with faults, and as few runs after them as the answers of the chip allow.
class FaultReplay : public CaseReplay {
public:
    explicit FaultReplay(const SweepTools &tools)
        : m_tools(tools), m_failed(ChipFile::OpenPrivate(tools.startPath)),
          m_runs(tools.rig, tools.judge, FirstRun::Failed) {}

    CaseResult Try(const SweepCase &what) override {
        m_tools.rig.LayStart();
        CaseResult result;
        bool isToRepair = false;
        RunWithFaults(what, m_tools, result, isToRepair);
        if (!isToRepair)
            return result;
        const NandChip &found = m_tools.rig.Chip();
        NandChip &chip = m_failed.Chip();
        for (std::uint32_t block = 0; block < chip.Geometry().Blocks(); ++block) {
            if (!found.IsTouched(block) && !chip.IsTouched(block) &&
                found.BlockTraits(block) == chip.BlockTraits(block) && !found.IsUnstable(block))
                continue;
            chip.CopyBlock(found, block);
            m_runs.Follow(chip, block);
        }
        return OfSecondRun(m_runs.Judge(chip, LineOf(what, m_tools.judge), std::nullopt));
    }

private:
    const SweepTools &m_tools;
    ChipFile m_failed; ///< the chip after a run with a fault
    SecondRuns m_runs;
};

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
    CaseResult result;
    bool isToRepair = false;
    RunWithFaults(what, tools, result, isToRepair);
    if (!isToRepair)
        return result;
    const RunOutcome again = RunWhole(tools.rig);
    return OfSecondRun(tools.judge.JudgeCut(tools.rig.Chip(), LineOf(what, tools.judge), again, FirstRun::Failed));
}

std::string FaultHeading(const SweepResult &result) {
    return WalkedPlaces(result, "request") +
           " failing once, then the update run again, and kinds of requests failing always";
}

std::unique_ptr<CaseReplay> ReplayFaults(const SweepTools &tools) { return std::make_unique<FaultReplay>(tools); }
