#pragma once

#include "chip/ChipFile.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"
#include "verdict/FlashRanges.h"
#include "verdict/RunStory.h"
#include "verdict/UpdateLines.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// The run that others are measured by.
struct ReferenceRun {
    std::vector<SimDevice> devices;
    std::vector<UpdateLine> lines;
    std::map<std::string, std::int64_t> files; ///< of the update, with their sizes
    RunOutcome outcome;
    RunStory story;
    std::array<std::uint64_t, kRequestKinds> requests;
    std::uint64_t changes;
    const NandChip &chip; ///< as it left it, with its marks

    /// @return the range of a line that it carried out on whole blocks of the flash.
    std::optional<FlashRange> DoneRange(std::size_t line) const;
};

/// Why a run didn't hold.
struct SweepComplaint {
    std::size_t line = 0; ///< number in the script, 0 when it is about none
    std::string happens;  ///< the same words for the same trouble
};

/// Measures runs of the same update from the same start. See Sweep.h for what holds.
class SweepJudge {
public:
    /// @param reference outlives the judge
    explicit SweepJudge(const ReferenceRun &reference);

    /// @param chip as the run left it, marks since the start included
    /// @return nothing when it held
    std::optional<SweepComplaint> JudgeBad(const NandChip &chip, const RunOutcome &run) const;
    std::optional<SweepComplaint> JudgeFault(const NandChip &chip, const RunOutcome &run) const;
    /// @param cut the run in which the power went
    /// @param again the run behind it
    std::optional<SweepComplaint> JudgeCut(const NandChip &chip, const RunOutcome &cut, const RunOutcome &again) const;

    /// @param chip as a run left it in which the power went
    /// @return number of the line that the power went in, when an environment has lost its seal; 0 when none has
    std::size_t FindUnsealed(const NandChip &chip, const RunOutcome &cut) const;

private:
    std::size_t LineInProgress(const RunOutcome &cut) const;
    RunStory Follow(const RunOutcome &run, bool wasCut) const;
    bool IsTold(const RunOutcome &run) const;
    std::size_t LineOf(std::uint32_t block) const;
    std::optional<SweepComplaint> JudgeEnd(const RunOutcome &run) const;
    std::optional<SweepComplaint> JudgeOutside(const NandChip &chip) const;
    std::optional<SweepComplaint> JudgeLines(const RunOutcome &run) const;
    std::optional<SweepComplaint> JudgeOrder(const NandChip &chip, std::size_t line) const;
    std::string LossIn(const NandChip &chip, std::uint32_t block) const;
    std::optional<std::uint32_t> FirstDifference(const NandChip &chip) const;

    const ReferenceRun &m_reference;
    WholeFlash m_flash;
    std::vector<bool> m_mayChange; ///< by block: in a range of the script, or changed by what it starts
};
