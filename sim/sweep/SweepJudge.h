#pragma once

#include "chip/ChipFile.h"
#include "sandbox/UpdateRun.h"
#include "sweep/ReferenceRun.h"
#include "ubi/UbiAttach.h"
#include "verdict/FlashRanges.h"
#include "verdict/RunStory.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// Why a run failed.
struct SweepComplaint {
    std::size_t line = 0;       ///< number in the script; 0 for a failure of no line
    std::string happens;        ///< equal for equal failures
    std::string advice = {};    ///< what to change in the update; may be empty
    bool isOfSecondRun = false; ///< a run after the one with the trouble shows the failure

    bool operator==(const SweepComplaint &other) const {
        return line == other.line && happens == other.happens && advice == other.advice &&
               isOfSecondRun == other.isOfSecondRun;
    }
};

/// What went wrong before a second run of the update.
enum class FirstRun { Cut, Failed };

/// @return what the kernel finds when UBI is attached to a partition.
UbiAttachment AttachRange(const NandChip &chip, const WholeFlash &flash, const FlashRange &range);

/// Judges runs of the same update from the same start. See Sweep.h for what passes.
class SweepJudge {
public:
    /// @param reference outlives the judge
    explicit SweepJudge(const ReferenceRun &reference);

    const ReferenceRun &Reference() const { return m_reference; }

    /// @param chip as the run left it, marks since the start included
    /// @return nothing when the run passed
    std::optional<SweepComplaint> JudgeBad(const NandChip &chip, const RunOutcome &run) const;
    /// @param line of the request that fails, else 0
    std::optional<SweepComplaint> JudgeFault(const NandChip &chip, const RunOutcome &run, std::size_t line) const;
    /// @param line in which the first run went wrong
    /// @param again the run after it
    std::optional<SweepComplaint> JudgeCut(const NandChip &chip, std::size_t line, const RunOutcome &again,
                                           FirstRun first = FirstRun::Cut) const;
    /// @return whether a run reports a failure: the exit status or the messages of a line differ from the reference.
    bool IsReported(const RunOutcome &run) const;

    /// @return the number of the line in which power was lost, from the output of the updater; 0 when unknown.
    std::size_t LineInProgress(const RunOutcome &cut) const;

    /// @return whether a setenv line's environment had a valid CRC and has none on a chip.
    bool HasUnsealed(const NandChip &chip) const;
    /// @return whether a block is in the range of an environment that a setenv line wrote.
    bool IsInEnvironment(std::uint32_t block) const { return m_isEnvironment[block]; }

    // The parts of JudgeCut, in this order.
    std::optional<SweepComplaint> JudgeEnd(const RunOutcome &run) const;
    std::optional<SweepComplaint> JudgeOutside(std::optional<std::uint32_t> block) const;
    std::optional<SweepComplaint> JudgeLines(const RunOutcome &run) const;
    /// @param block that differs from the reference; its environment is read from `chip`
    SweepComplaint JudgeLoss(const NandChip &chip, std::size_t line, std::uint32_t block, FirstRun first) const;

    /// @return whether a block was touched that the update must not touch.
    bool IsOutside(const NandChip &chip, std::uint32_t block) const {
        return chip.IsTouched(block) && !m_mayChange[block];
    }
    /// @return whether a block differs from the reference; only blocks that either run touched can.
    bool Differs(const NandChip &chip, std::uint32_t block) const;

private:
    RunStory Follow(const RunOutcome &run, bool wasCut) const;
    bool HasAllData(const NandChip &chip) const;
    std::size_t LineOf(std::uint32_t block) const;
    std::optional<SweepComplaint> JudgeOrder(const NandChip &chip, std::size_t line) const;
    std::optional<SweepComplaint> JudgeRest(const NandChip &chip) const;
    std::string LossIn(const NandChip &chip, std::uint32_t block, FirstRun first) const;
    std::optional<SweepComplaint> JudgeUbi(const NandChip &chip) const;
    std::optional<std::uint32_t> FirstOutside(const NandChip &chip) const;
    std::optional<std::uint32_t> FirstDifference(const NandChip &chip) const;

    const ReferenceRun &m_reference;
    WholeFlash m_flash;
    std::vector<bool>
        m_mayChange; ///< by block: in a range of the script, or changed by a program that the updater starts
    std::vector<bool> m_isEnvironment; ///< by block
    /// Partitions that the reference gave to UBI, with the numbers of their lines. Their erase counters and the place
    /// of each LEB depend on the state before: they are compared as UBI reads them.
    struct GivenToUbi {
        std::size_t line;
        FlashRange range;
        UbiAttachment attachment;
    };
    std::vector<GivenToUbi> m_ubi;
    std::vector<bool> m_isUbi; ///< by block
};
