#include "sweep/KnownRun.h"

#include <algorithm>

KnownRun::KnownRun(const std::vector<RunStep> &steps, const RunOutcome &outcome, const NandChip &before,
                   const NandChip &after, const SweepJudge &judge, FirstRun first)
    : m_judge(judge), m_first(first), m_needs(steps, before), m_end(judge.JudgeEnd(outcome)),
      m_lines(judge.JudgeLines(outcome)) {
    bool isWholeEnvironmentErased = true;
    for (std::uint32_t block = 0; block < before.Geometry().Blocks(); ++block) {
        const bool isChanged = m_needs.Changes(block);
        const bool isConstant = !judge.Reference().chip.IsTouched(block) && !before.IsTouched(block);
        isWholeEnvironmentErased =
            isWholeEnvironmentErased && (isChanged || isConstant || !judge.IsInEnvironment(block));
        if (isChanged && !m_outside && judge.IsOutside(after, block))
            m_outside = block;
        if (isChanged && !m_loss && judge.Differs(after, block))
            m_loss = block;
        if (!isChanged && judge.Differs(before, block))
            m_left.insert(block);
    }
    if (m_loss)
        m_lossWords = judge.JudgeLoss(after, 0, *m_loss, first);
    m_bHasSureWords = m_loss && (isWholeEnvironmentErased || !judge.IsInEnvironment(*m_loss));
}

void KnownRun::Follow(const NandChip &chip, std::uint32_t block) {
    m_needs.Follow(chip, block);
    if (m_needs.Changes(block))
        return;
    if (m_judge.Differs(chip, block))
        m_left.insert(block);
    else
        m_left.erase(block);
}

bool KnownRun::Judge(const NandChip &chip, std::size_t line, std::optional<std::uint32_t> outside,
                     std::optional<SweepComplaint> &complaint) const {
    complaint = m_end;
    if (!complaint)
        complaint = m_judge.JudgeOutside(outside && m_outside ? std::min(outside, m_outside)
                                         : outside            ? outside
                                                              : m_outside);
    if (!complaint)
        complaint = m_lines;
    if (complaint)
        return true;
    const std::optional<std::uint32_t> left = m_left.empty() ? std::nullopt : std::make_optional(*m_left.begin());
    if (m_loss && (!left || *m_loss < *left)) {
        complaint = m_lossWords;
        complaint->line = line;
        return m_bHasSureWords;
    }
    if (!left)
        return true;
    // The words about an environment show the whole of the range, which the run may have changed in part.
    if (m_judge.IsInEnvironment(*left))
        return false;
    complaint = m_judge.JudgeLoss(chip, line, *left, m_first);
    return true;
}
