// Power cuts, each followed by a run of the update from its start.

#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "sweep/BootCheck.h"
#include "sweep/ChangeReplay.h"
#include "sweep/SecondRuns.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>

namespace {

/// Most recorded runs of the boot command that a worker remembers.
constexpr std::size_t kMostKnown = 256;

/// Power cuts without the run that they cut, and with as few runs after them as the answers of the chip allow.
class CutReplay : public CaseReplay {
public:
    explicit CutReplay(const SweepTools &tools)
        : m_rig(tools.rig), m_judge(tools.judge), m_boot(tools.settings.boot),
          m_replay(tools.startPath, tools.judge.Reference().steps),
          m_check(m_boot, tools.judge.Reference(), tools.start.Chip(), m_replay.Chip()),
          m_runs(tools.rig, tools.judge, FirstRun::Cut) {}

    CaseResult Try(const SweepCase &what) override {
        m_replay.AdvanceTo(what.cutAtChange, [this](std::uint32_t block) { Note(block); });
        FollowNoted();
        const std::uint32_t block = m_replay.Tear(what.cutExtent);
        FollowAll(block);
        CaseResult result = TryTorn(m_judge.Reference().LineOfChange(what.cutAtChange), block);
        m_replay.Restore();
        FollowAll(block);
        return result;
    }

private:
    /// Takes note of a block that the run has changed for good.
    void Note(std::uint32_t block) {
        if (m_noted.empty() || m_noted.back() != block)
            m_noted.push_back(block);
    }

    void FollowNoted() {
        for (const std::uint32_t block : m_noted) {
            FollowAll(block);
            if (m_judge.IsOutside(m_replay.Chip(), block))
                m_outside = std::min(m_outside.value_or(block), block);
            if (m_judge.IsInEnvironment(block))
                m_isUnsealed = m_judge.HasUnsealed(m_replay.Chip());
        }
        m_noted.clear();
    }

    void FollowAll(std::uint32_t block) {
        m_runs.Follow(m_replay.Chip(), block);
        for (KnownBoot &known : m_boots)
            known.needs.Follow(m_replay.Chip(), block);
        m_check.Follow(m_replay.Chip(), block);
    }

    /// Judges the run after a cut in a line, which tore a block.
    CaseResult TryTorn(std::size_t line, std::uint32_t block) {
        CaseResult result;
        const NandChip &chip = m_replay.Chip();
        const bool isUnsealed = m_judge.IsInEnvironment(block) ? m_judge.HasUnsealed(chip) : m_isUnsealed;
        result.unsealedLine = isUnsealed ? line : 0;
        result.noBoot = m_check.Problem();
        if (result.noBoot.empty() && !m_boot.command.empty())
            result.noBoot = ProblemOfCommand();
        std::optional<std::uint32_t> outside = m_outside;
        if (m_judge.IsOutside(chip, block))
            outside = std::min(m_outside.value_or(block), block);
        result.complaint = m_runs.Judge(chip, line, outside);
        return result;
    }

    /// @return why the boot command fails, from a recorded run of it when there is one.
    std::string ProblemOfCommand() {
        const auto known = m_runs.HasMarked() ? m_boots.end()
                                              : std::find_if(m_boots.begin(), m_boots.end(),
                                                             [](const KnownBoot &boot) { return boot.needs.AreMet(); });
        if (known != m_boots.end())
            return known->problem;
        m_rig.Lay(m_replay.Chip());
        std::string problem = RunBootCommand(m_rig, m_boot.command, SimSettings::Record::Steps);
        std::vector<RunStep> steps;
        if (!m_runs.HasMarked() && ReadLastRun(m_rig, steps)) {
            m_boots.push_front({ChipNeeds(steps, m_replay.Chip()), problem});
            if (m_boots.size() > kMostKnown)
                m_boots.pop_back();
        }
        return problem;
    }

    struct KnownBoot {
        ChipNeeds needs;
        std::string problem;
    };

    Rig &m_rig;
    const SweepJudge &m_judge;
    const BootRules &m_boot;
    ChangeReplay m_replay;
    BootCheck m_check;
    std::deque<KnownBoot> m_boots;
    SecondRuns m_runs;
    std::vector<std::uint32_t> m_noted;
    std::optional<std::uint32_t> m_outside; ///< the first block outside the update that was touched before the cut
    bool m_isUnsealed = false;              ///< before the change that is cut
};

} // namespace

SweepPlan PlanCuts(const ReferenceRun &reference, const SweepSettings &settings) {
    SweepPlan plan;
    plan.places = static_cast<std::size_t>(reference.changes);
    for (std::uint64_t change = 1; change <= reference.changes; change += settings.every) {
        for (const Extent extent : settings.torn) {
            SweepCase what;
            what.cutAtChange = change;
            what.cutExtent = extent;
            plan.cases.push_back(what);
        }
    }
    return plan;
}

CaseResult TryCut(const SweepCase &what, const SweepTools &tools) {
    Rig &rig = tools.rig;
    const SweepJudge &judge = tools.judge;
    RigRun run;
    run.cutAtChange = what.cutAtChange;
    run.cutExtent = what.cutExtent;
    const RunOutcome cut = RunWhole(rig, run);
    if (cut.isOverdue || cut.isBypassed)
        return {judge.JudgeEnd(cut)};
    CaseResult result;
    const bool hasLines = !judge.Reference().steps.empty();
    const std::size_t line = hasLines ? judge.Reference().LineOfChange(what.cutAtChange) : judge.LineInProgress(cut);
    result.unsealedLine = judge.HasUnsealed(rig.Chip()) ? line : 0;
    const BootRules &boot = tools.settings.boot;
    result.noBoot = BootCheck(boot, judge.Reference(), tools.start.Chip(), rig.Chip()).Problem();
    if (result.noBoot.empty() && !boot.command.empty()) {
        result.noBoot = RunBootCommand(rig, boot.command, SimSettings::Record::None);
        // Reads age unstable pages.
        rig.LayStart();
        RunWhole(rig, run);
    }
    const RunOutcome again = RunWhole(rig);
    result.complaint = judge.JudgeCut(rig.Chip(), line, again);
    return result;
}

std::string CutHeading(const SweepResult &result) {
    if (!result.settings.board.empty())
        return "power cut on the board at " + std::to_string(result.whole) + " of " +
               Count(static_cast<std::int64_t>(result.places), "change") + " (" + ExtentsText(result.settings.torn) +
               "), then the update run again, both as on the simulator";
    return "power cut at " + WalkedPlaces(result, "change") + " (" + ExtentsText(result.settings.torn) +
           "), then the update run again";
}

std::unique_ptr<CaseReplay> ReplayCuts(const SweepTools &tools) { return std::make_unique<CutReplay>(tools); }
