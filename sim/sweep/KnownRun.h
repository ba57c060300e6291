#pragma once

#include "chip/NandChip.h"
#include "mtd/RunSteps.h"
#include "sandbox/UpdateRun.h"
#include "sweep/ChipNeeds.h"
#include "sweep/SweepJudge.h"

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

/// A recorded run of the update that stands for every run from a chip that meets its needs. The object follows a chip
/// on which one block after the other changes, and knows how the run would end from there.
class KnownRun {
public:
    /// @param steps of the run; without bad-block marks
    /// @param outcome of the run
    /// @param before the chip at the run's start, which Follow goes on with
    /// @param after the chip as the run left it
    /// @param first what the run before it was
    KnownRun(const std::vector<RunStep> &steps, const RunOutcome &outcome, const NandChip &before,
             const NandChip &after, const SweepJudge &judge, FirstRun first);

    /// Takes note of a block of the chip that has changed.
    void Follow(const NandChip &chip, std::uint32_t block);

    /// @return whether a run from the chip would be this one.
    bool Applies() const { return m_needs.AreMet(); }

    /// Judges the run from the chip; Applies holds.
    /// @param line in which the run before it went wrong
    /// @param outside the first block outside the update that was touched before the run
    /// @param complaint gets the complaint, or nothing when the run passed
    /// @return false when only a real run shows what there is to complain about.
    bool Judge(const NandChip &chip, std::size_t line, std::optional<std::uint32_t> outside,
               std::optional<SweepComplaint> &complaint) const;

private:
    const SweepJudge &m_judge;
    FirstRun m_first;
    ChipNeeds m_needs;
    std::optional<SweepComplaint> m_end;
    std::optional<SweepComplaint> m_lines;
    std::optional<std::uint32_t> m_outside;    ///< the first block that the run touches outside the update
    std::optional<std::uint32_t> m_loss;       ///< the first changed block that differs from the reference in the end
    std::optional<SweepComplaint> m_lossWords; ///< of that block, but for the line
    bool m_bHasSureWords = false;              ///< these words depend on nothing but the run
    std::set<std::uint32_t> m_left;            ///< blocks that the run leaves alone and that differ from the reference
};
