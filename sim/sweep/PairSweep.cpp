// Two troubles at a time: a power cut in the run after a power cut, a bad or worn-out block and a power cut.

#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <random>

namespace {

/// All pairs of a reference run, by number.
class Pairs {
public:
    Pairs(const ReferenceRun &reference, const SweepSettings &settings)
        : m_changes(reference.changes), m_blocks(reference.UsedBlocks()), m_torn(settings.torn) {}

    std::uint64_t Count() const { return (m_changes + 3 * m_blocks.size()) * m_changes * m_torn.size(); }

    SweepCase Pair(std::uint64_t number) const {
        SweepCase what;
        what.cutExtent = m_torn[static_cast<std::size_t>(number % m_torn.size())];
        number /= m_torn.size();
        what.cutAtChange = number % m_changes + 1;
        number /= m_changes;
        if (number < m_changes) {
            what.secondCutAtChange = number + 1;
            return what;
        }
        number -= m_changes;
        const std::vector<std::uint32_t> block = {m_blocks[static_cast<std::size_t>(number / 3)]};
        std::vector<std::uint32_t> *const troubles[] = {&what.badBlocks, &what.eraseFails, &what.programFails};
        *troubles[number % 3] = block;
        return what;
    }

private:
    std::uint64_t m_changes;
    std::vector<std::uint32_t> m_blocks;
    std::vector<Extent> m_torn;
};

} // namespace

SweepPlan PlanPairs(const ReferenceRun &reference, const SweepSettings &settings) {
    const Pairs pairs(reference, settings);
    const std::uint64_t count = pairs.Count();
    SweepPlan plan;
    plan.places = static_cast<std::size_t>(count);
    std::mt19937_64 random(settings.seed);
    for (std::uint64_t i = 0; i < std::min(count, settings.sets); ++i)
        plan.cases.push_back(pairs.Pair(count <= settings.sets ? i : random() % count));
    return plan;
}

CaseResult TryPair(const SweepCase &what, const SweepTools &tools) {
    Rig &rig = tools.rig;
    const SweepJudge &judge = tools.judge;
    for (const std::uint64_t cutAtChange : {what.cutAtChange, what.secondCutAtChange}) {
        RigRun run;
        run.cutAtChange = cutAtChange;
        run.cutExtent = what.cutExtent;
        if (cutAtChange == 0)
            continue;
        const RunOutcome cut = RunWhole(rig, run);
        if (cut.isOverdue || cut.isBypassed)
            return {judge.JudgeEnd(cut)};
    }
    const RunOutcome last = RunWhole(rig);
    const std::size_t line = judge.Reference().LineOfChange(what.cutAtChange);
    if (!what.badBlocks.empty())
        return {judge.JudgeBad(rig.Chip(), last)};
    if (what.secondCutAtChange == 0)
        return {judge.JudgeFault(rig.Chip(), last, line)};
    return {judge.JudgeCut(rig.Chip(), line, last)};
}

std::string PairHeading(const SweepResult &result) {
    const bool isWhole = result.settings.sets >= result.places;
    return (isWhole ? "each of " : std::to_string(result.settings.sets) + " of ") +
           Count(static_cast<std::int64_t>(result.places), "pair") +
           " of cuts, or of a bad or worn-out block and a cut (" + ExtentsText(result.settings.torn) +
           (isWhole ? ")" : "; seed " + std::to_string(result.settings.seed) + ")");
}
