#include "sweep/SecondRuns.h"

#include "sweep/SweepTable.h"

#include <algorithm>

namespace {

/// Most recorded runs that a worker remembers.
constexpr std::size_t kMostSecondRuns = 256;

} // namespace

bool ReadLastRun(const Rig &rig, std::vector<RunStep> &steps) {
    std::size_t length = 0;
    const std::uint8_t *record = rig.Record(length);
    return length > 0 && ReadSteps(record, length, rig.Chip().Geometry(), steps) &&
           std::none_of(steps.begin(), steps.end(),
                        [](const RunStep &step) { return step.kind == RunStep::Kind::MarkBad; });
}

void SecondRuns::Follow(const NandChip &chip, std::uint32_t block) {
    for (KnownRun &known : m_known)
        known.Follow(chip, block);
    // The kernel takes such a block for bad from the next start on.
    if (chip.HasBadBlockMarker(block) && !chip.IsBad(block))
        m_marked.insert(block);
    else
        m_marked.erase(block);
}

std::optional<SweepComplaint> SecondRuns::Judge(const NandChip &chip, std::size_t line,
                                                std::optional<std::uint32_t> outside) {
    const auto known =
        HasMarked() ? m_known.end()
                    : std::find_if(m_known.begin(), m_known.end(), [](const KnownRun &run) { return run.Applies(); });
    std::optional<SweepComplaint> complaint;
    const bool isJudged = known != m_known.end() && known->Judge(chip, line, outside, complaint);
    return isJudged ? complaint : RunForReal(chip, line);
}

std::optional<SweepComplaint> SecondRuns::RunForReal(const NandChip &chip, std::size_t line) {
    m_rig.Lay(chip);
    RigRun run;
    run.record = SimSettings::Record::Steps;
    const RunOutcome again = RunWhole(m_rig, run);
    std::vector<RunStep> steps;
    if (!HasMarked() && ReadLastRun(m_rig, steps) && !again.isOverdue && !again.leavesProcesses && !again.isBypassed) {
        m_known.emplace_front(steps, again, chip, m_rig.Chip(), m_judge, m_first);
        if (m_known.size() > kMostSecondRuns)
            m_known.pop_back();
    }
    return m_judge.JudgeCut(m_rig.Chip(), line, again, m_first);
}
