#pragma once

#include "sweep/KnownRun.h"
#include "sweep/Rig.h"
#include "sweep/SweepJudge.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <vector>

/// Reads the record of a rig's last run.
/// @return whether the record can stand for other runs: it is whole and marks no block as bad.
bool ReadLastRun(const Rig &rig, std::vector<RunStep> &steps);

/// Runs of the update after a first run that went wrong. Recorded runs stand for all runs from chips that give the same
/// answers. The object follows a chip on which one block after the other changes.
class SecondRuns {
public:
    /// @param rig,judge outlive the object
    SecondRuns(Rig &rig, const SweepJudge &judge, FirstRun first) : m_rig(rig), m_judge(judge), m_first(first) {}

    /// Takes note of a block of the chip that has changed.
    void Follow(const NandChip &chip, std::uint32_t block);

    /// @return whether good blocks of the chip have bad-block markers; runs from such a chip are not replayed.
    bool HasMarked() const { return !m_marked.empty(); }

    /// Judges a run from the chip, which is made for real when no recorded one is the same.
    /// @param line in which the first run went wrong
    /// @param outside the first block outside the update that the first run touched
    std::optional<SweepComplaint> Judge(const NandChip &chip, std::size_t line, std::optional<std::uint32_t> outside);

private:
    std::optional<SweepComplaint> RunForReal(const NandChip &chip, std::size_t line);

    Rig &m_rig;
    const SweepJudge &m_judge;
    FirstRun m_first;
    std::deque<KnownRun> m_known;
    std::set<std::uint32_t> m_marked;
};
