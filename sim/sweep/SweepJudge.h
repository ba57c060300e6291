#pragma once

#include "chip/ChipFile.h"
#include "sandbox/UpdateRun.h"
#include "sweep/ReferenceRun.h"
#include "verdict/FlashRanges.h"
#include "verdict/RunStory.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// Why a run failed.
struct SweepComplaint {
    std::size_t line = 0;    ///< number in the script; 0 for a failure of no line
    std::string happens;     ///< equal for equal failures
    std::string advice = {}; ///< what to change in the update; may be empty
};

/// Judges runs of the same update from the same start. See Sweep.h for what passes.
class SweepJudge {
public:
    /// @param reference outlives the judge
    explicit SweepJudge(const ReferenceRun &reference);

    /// @param chip as the run left it, marks since the start included
    /// @return nothing when the run passed
    std::optional<SweepComplaint> JudgeBad(const NandChip &chip, const RunOutcome &run) const;
    std::optional<SweepComplaint> JudgeFault(const NandChip &chip, const RunOutcome &run) const;
    /// @param cut the run in which power was lost
    /// @param again the run after that
    std::optional<SweepComplaint> JudgeCut(const NandChip &chip, const RunOutcome &cut, const RunOutcome &again) const;

    /// @param chip as a run with a power cut left it
    /// @return number of the line in which power was lost if the CRC of an environment has become invalid, else 0
    std::size_t FindUnsealed(const NandChip &chip, const RunOutcome &cut) const;

private:
    std::size_t LineInProgress(const RunOutcome &cut) const;
    RunStory Follow(const RunOutcome &run, bool wasCut) const;
    bool IsReported(const RunOutcome &run) const;
    std::size_t LineOf(std::uint32_t block) const;
    std::optional<SweepComplaint> JudgeEnd(const RunOutcome &run) const;
    std::optional<SweepComplaint> JudgeOutside(const NandChip &chip) const;
    std::optional<SweepComplaint> JudgeLines(const RunOutcome &run) const;
    std::optional<SweepComplaint> JudgeOrder(const NandChip &chip, std::size_t line) const;
    std::string LossIn(const NandChip &chip, std::uint32_t block) const;
    std::optional<std::uint32_t> FirstDifference(const NandChip &chip) const;

    const ReferenceRun &m_reference;
    WholeFlash m_flash;
    std::vector<bool>
        m_mayChange; ///< by block: in a range of the script, or changed by a program that the updater starts
};
