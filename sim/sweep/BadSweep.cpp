// Blocks that are bad from the factory.

#include "base/Text.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <random>
#include <utility>

namespace {

/// Draws sets of bad blocks, the same for the same seed.
class SetDrawer {
public:
    SetDrawer(const ReferenceRun &run, std::uint64_t seed) : m_random(seed) {
        const WholeFlash flash(run.chip, run.devices);
        for (std::size_t i = 0; i < run.lines.size(); ++i) {
            const auto range = run.DoneRange(i);
            const auto file = run.files.find(run.lines[i].image);
            const bool isUbi = run.lines[i].kind == LineKind::Ubiformat;
            if (!range || (!run.lines[i].WritesImage() && !isUbi) || file == run.files.end() || file->second < 0)
                continue;
            const NandGeometry &geometry = run.chip.Geometry();
            const bool hasOob = run.lines[i].kind == LineKind::WriteOob;
            const std::uint64_t blockBytes =
                std::uint64_t{geometry.PagesPerBlock()} * (hasOob ? geometry.RawPageSize() : geometry.pageSize);
            const std::uint64_t needed = (static_cast<std::uint64_t>(file->second) + blockBytes - 1) / blockBytes;
            std::vector<std::uint32_t> blocks = flash.GoodBlocks(*range);
            std::uint64_t spare = needed < blocks.size() ? blocks.size() - needed : 0;
            if (isUbi)
                spare = std::min<std::uint64_t>(spare, AttachRange(run.chip, flash, *range).SpareBlocks());
            if (spare > 0)
                m_ranges.push_back({static_cast<std::size_t>(spare), std::move(blocks)});
        }
    }

    /// @return whether any range has a block to spare.
    bool HasRoom() const { return !m_ranges.empty(); }

    /// @return up to as many blocks of each range as the range has to spare; at least one in all.
    std::vector<std::uint32_t> Draw() {
        std::vector<std::uint32_t> set;
        while (set.empty()) {
            for (Range &range : m_ranges) {
                const std::size_t count = Below(range.spare + 1);
                for (std::size_t i = 0; i < count; ++i) {
                    std::swap(range.blocks[i], range.blocks[i + Below(range.blocks.size() - i)]);
                    set.push_back(range.blocks[i]);
                }
            }
        }
        std::sort(set.begin(), set.end());
        set.erase(std::unique(set.begin(), set.end()), set.end());
        return set;
    }

private:
    struct Range {
        std::size_t spare;
        std::vector<std::uint32_t> blocks;
    };

    std::size_t Below(std::size_t bound) { return static_cast<std::size_t>(m_random() % bound); }

    std::mt19937_64 m_random;
    std::vector<Range> m_ranges;
};

} // namespace

SweepPlan PlanBad(const ReferenceRun &reference, const SweepSettings &settings) {
    SweepPlan plan;
    for (const std::uint32_t block : reference.UsedBlocks())
        plan.cases.push_back({{block}});
    plan.places = plan.cases.size();
    SetDrawer drawer(reference, settings.seed);
    for (std::uint64_t i = 0; drawer.HasRoom() && i < settings.sets; ++i)
        plan.cases.push_back({drawer.Draw()});
    return plan;
}

CaseResult TryBad(const SweepCase &, const SweepTools &tools) {
    const RunOutcome run = RunWhole(tools.rig);
    return {tools.judge.JudgeBad(tools.rig.Chip(), run)};
}

std::string BadHeading(const SweepResult &result) {
    return "each of " + Count(static_cast<std::int64_t>(result.places), "block") + " bad in turn, then " +
           Count(static_cast<std::int64_t>(result.whole - result.places), "set") + " of bad blocks (seed " +
           std::to_string(result.settings.seed) + ")";
}
