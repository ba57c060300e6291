#pragma once

#include "base/HeldSignals.h"
#include "chip/ChipFile.h"
#include "mtd/RunSteps.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A run of the update that goes from request to request. At each, a copy of the updater can go on with the request
/// failing, as a run in which it fails would; then the chip is what it was, and the run goes on. See StopPlace.
class BranchingRun {
public:
    /// Begins the run.
    /// @param settings,signals outlive the object
    /// @param start path of the chip that the run starts from
    /// @param path of the files of a chip and a state that are made for the run
    /// @param milliseconds time limit for each part of the run
    BranchingRun(const RunSettings &settings, const HeldSignals &signals, const std::string &start,
                 const std::string &path, int milliseconds);

    /// Goes on to a request of the updater's own that comes later. The first call also starts the updater.
    /// @param steps gets what the run did since the last call, the request included
    /// @return false when the run did not get there. No other call may follow.
    /// @throws std::runtime_error when a signal interrupts the run
    bool GoTo(RequestKind kind, std::uint64_t nth, std::vector<RunStep> &steps);

    /// Lets a branch go on from here.
    /// @param error errno value with which the request fails
    /// @return the outcome of the whole run; nothing when only a run of its own shows that: the branch would change
    /// more
    ///         than flash
    std::optional<RunOutcome> Branch(int error);

    /// The chip, after a branch as the branch left it.
    const NandChip &Chip() const { return m_chip.Chip(); }
    /// The blocks that the branch has changed.
    const std::vector<std::uint32_t> &Changed() const { return m_changed; }

    /// Takes back what the branch did. To be called after each branch, whatever became of it.
    /// @param before the chip as it was before the branch
    void TakeBack(const NandChip &before);

private:
    bool Await(StopPlace::Phase phase, RunOutcome &outcome);
    bool ReadNewSteps(std::vector<RunStep> &steps) const;

    const HeldSignals &m_signals;
    int m_nMilliseconds;
    ChipFile m_chip;
    SimState m_state;
    std::unique_ptr<Sandbox> m_sandbox; ///< null once the run can't go on
    std::vector<std::string> m_command; ///< of the updater; empty once it is started
    RunOutcome m_output;                ///< so far, without branches
    SimState::Kept m_kept;              ///< at the request
    std::vector<std::uint32_t> m_changed;
};
