// Requests that fail.

#include "sweep/BranchingRun.h"
#include "sweep/ChangeReplay.h"
#include "sweep/SecondRuns.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
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

/// Faults of the requests of one kind, each in a branch of one run.
class FaultBranches {
public:
    FaultBranches(const SweepTools &tools, RequestKind kind)
        : m_judge(tools.judge), m_kind(kind),
          m_run(tools.run, tools.signals, tools.startPath, tools.rig.Path() + ".branch", tools.rig.Patience()),
          m_replay(tools.startPath, tools.judge.Reference().steps), m_runs(tools.rig, tools.judge, FirstRun::Failed) {}

    /// @return whether the fault's request comes later than all others so far.
    bool IsAhead(const SimFault &fault) const { return fault.kind == m_kind && fault.nth > m_nth; }

    /// @param result gets the result
    /// @return false when only a run of its own gives it.
    bool Try(const SweepCase &what, CaseResult &result) {
        const SimFault &fault = what.faults.front();
        m_nth = fault.nth;
        std::vector<RunStep> steps;
        m_isLost = !m_run.GoTo(m_kind, m_nth, steps) || !Follow(steps);
        if (m_isLost)
            return false;
        const std::optional<RunOutcome> outcome = m_run.Branch(fault.error);
        if (outcome)
            result = Judge(*outcome, LineOf(what, m_judge));
        m_run.TakeBack(m_replay.Chip());
        return outcome.has_value();
    }

    /// @return whether the run did not get to the last request, or got there in another way than the reference.
    bool IsLost() const { return m_isLost; }

private:
    /// Lets the replayed chip go on with the run.
    /// @return whether the steps are those of the reference.
    bool Follow(const std::vector<RunStep> &steps) {
        const std::vector<RunStep> &wanted = m_judge.Reference().steps;
        if (steps.size() > wanted.size() - m_nSteps ||
            !std::equal(steps.begin(), steps.end(), wanted.begin() + static_cast<std::ptrdiff_t>(m_nSteps)))
            return false;
        m_nSteps += steps.size();
        m_nChanges += static_cast<std::uint64_t>(
            std::count_if(steps.begin(), steps.end(), [](const RunStep &step) { return step.IsChange(); }));
        std::vector<std::uint32_t> changed;
        m_replay.AdvanceTo(m_nChanges + 1, [&changed](std::uint32_t block) {
            if (changed.empty() || changed.back() != block)
                changed.push_back(block);
        });
        FollowAll(changed);
        return true;
    }

    void FollowAll(const std::vector<std::uint32_t> &blocks) {
        for (const std::uint32_t block : blocks)
            m_runs.Follow(m_replay.Chip(), block);
    }

    CaseResult Judge(const RunOutcome &outcome, std::size_t line) {
        const auto complaint = m_judge.JudgeFault(m_run.Chip(), outcome, line);
        if (complaint || !m_judge.IsReported(outcome))
            return {complaint};
        m_replay.Put(m_run.Chip(), m_run.Changed());
        FollowAll(m_run.Changed());
        CaseResult result = OfSecondRun(m_runs.Judge(m_replay.Chip(), line, std::nullopt));
        m_replay.Restore();
        FollowAll(m_run.Changed());
        return result;
    }

    const SweepJudge &m_judge;
    RequestKind m_kind;
    std::uint64_t m_nth = 0;
    BranchingRun m_run;
    ChangeReplay m_replay; ///< the chip where the run stands
    SecondRuns m_runs;
    std::size_t m_nSteps = 0; ///< of the reference, that the run has made
    std::uint64_t m_nChanges = 0;
    bool m_isLost = false;
};

/// Runs with faults that branch from one run where possible, and as few runs after them as the answers of the chip
/// allow.
class FaultReplay : public CaseReplay {
public:
    explicit FaultReplay(const SweepTools &tools)
        : m_tools(tools), m_failed(ChipFile::OpenPrivate(tools.startPath)),
          m_runs(tools.rig, tools.judge, FirstRun::Failed), m_mayBranch(tools.run.starts.empty()) {
        const NandChip &start = tools.start.Chip();
        // Reads of unstable pages change the chip, and no step tells of it.
        for (std::uint32_t block = 0; block < start.Geometry().Blocks(); ++block)
            m_mayBranch = m_mayBranch && !start.IsUnstable(block);
        for (const RunStep &step : tools.judge.Reference().steps) {
            if (step.kind == RunStep::Kind::Request)
                m_isByUpdater[step.place].push_back(step.isByProgram);
        }
    }

    CaseResult Try(const SweepCase &what) override {
        CaseResult result;
        return TryBranch(what, result) ? result : TryAlone(what);
    }

private:
    bool TryBranch(const SweepCase &what, CaseResult &result) {
        const SimFault &fault = what.faults.front();
        if (!m_mayBranch || what.faults.size() != 1 || fault.nth == 0 ||
            !m_isByUpdater[static_cast<std::size_t>(fault.kind)].at(static_cast<std::size_t>(fault.nth - 1)))
            return false;
        if (!m_branches || !m_branches->IsAhead(fault)) {
            m_branches.reset(); // the next one uses the same files
            m_branches = std::make_unique<FaultBranches>(m_tools, fault.kind);
        }
        const bool isTried = m_branches->Try(what, result);
        m_mayBranch = !m_branches->IsLost();
        return isTried;
    }

    CaseResult TryAlone(const SweepCase &what) {
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

    const SweepTools &m_tools;
    std::array<std::vector<bool>, kRequestKinds> m_isByUpdater; ///< by kind and number in the run
    std::unique_ptr<FaultBranches> m_branches;
    ChipFile m_failed; ///< the chip after a run of its own with a fault
    SecondRuns m_runs;
    bool m_mayBranch; ///< background programs would go on while the updater waits
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
