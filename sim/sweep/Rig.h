#pragma once

#include "base/HeldSignals.h"
#include "chip/ChipFile.h"
#include "mtd/RunSteps.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// How the runs of a rig follow each other.
struct RigHabit {
    bool sharesSandbox = false;           ///< runs leave nothing in their sandbox, so one sandbox serves all of them
    std::vector<std::string> command;     ///< for a sandbox in which the update has already run
    int milliseconds = Sandbox::kNoLimit; ///< time limit of a run
    std::vector<std::uint32_t> watched;   ///< blocks of which the judge looks at the bytes, touched or not
    std::vector<std::string> usualErr;    ///< error output of runs without trouble; empty while none is known
    std::string ownFiles = {};            ///< what each run leaves of the sandbox's own files; empty when that differs
    bool leavesNoFiles = false;           ///< these are as before the first run
};

/// The trouble and the record of one run.
struct RigRun {
    std::uint64_t cutAtChange = 0; ///< 0 for no cut
    Extent cutExtent = Extent::FirstHalf;
    std::vector<SimFault> faults = {};
    SimSettings::Record record = SimSettings::Record::None;
};

/// Makes the state file of runs on a chip, with room for the record of a run.
/// @param chip path of the chip's files
/// @return RigStatePath(chip)
std::string MakeRigState(const std::string &chip, SimSettings settings, const NandGeometry &geometry);
std::string RigStatePath(const std::string &chip);

/// A chip and a sandbox in which an update is run many times.
class Rig {
public:
    /// @param settings without a trace; they outlive the rig
    /// @param start the chip that runs start from; it outlives the rig
    /// @param path of the chip's files, which exist and equal `start`, with checksums; the state file is made beside
    ///        them
    Rig(const RunSettings &settings, const ChipFile &start, const std::string &path, const HeldSignals &signals);

    void Adopt(const RigHabit &habit) { m_habit = habit; }

    /// Makes the chip what it was at the start, with further bad blocks.
    void LayStart(const std::vector<std::uint32_t> &badBlocks = {});

    /// Wears out blocks, until the chip is laid the next time.
    void WearOut(const std::vector<std::uint32_t> &eraseFails, const std::vector<std::uint32_t> &programFails);

    /// Makes the chip equal to one that was made from the start, marks included.
    void Lay(const NandChip &chip);

    /// Runs the update on the chip as it is.
    RunOutcome Run(const RigRun &run = {});

    /// Runs another program in the sandbox.
    RunOutcome RunCommand(const std::vector<std::string> &command, SimSettings::Record record);

    /// @return how long a run may take, in milliseconds.
    int Patience() const { return m_habit.milliseconds; }
    /// @return the path of the chip's files.
    const std::string &Path() const { return m_sPath; }
    NandChip &Chip() { return m_chip.Chip(); }
    const NandChip &Chip() const { return m_chip.Chip(); }
    const SimState &State() const { return m_state; }

    /// @return the record of the last run, as ReadSteps takes it; valid until the next run. Empty when not whole.
    const std::uint8_t *Record(std::size_t &length) const { return m_state.RecordBytes(length); }

private:
    RunOutcome RunIn(const RigRun &run, const std::vector<std::string> *command);
    bool IsReusable(const RunOutcome &outcome, bool isUpdate) const;
    bool FindMisfits();

    const RunSettings &m_settings;
    const NandChip &m_start;
    const HeldSignals &m_signals;
    std::string m_sPath;
    ChipFile m_chip;
    SimState m_state;
    std::unique_ptr<Sandbox> m_sandbox;
    RigHabit m_habit;
    bool m_bIsFirst = true;
    std::vector<std::uint32_t> m_unstable; ///< blocks with unstable pages at the start, which reads change
    std::vector<std::uint32_t> m_worn;     ///< blocks with worn-out pages
    std::vector<std::uint32_t> m_misfits;  ///< blocks that the last run changed other than by requests
};
