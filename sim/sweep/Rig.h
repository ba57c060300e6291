#pragma once

#include "base/HeldSignals.h"
#include "chip/ChipFile.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// How runs follow each other on a rig.
struct RigHabit {
    bool sharesDevice = false;            ///< runs leave nothing behind in their device: one serves them all
    std::vector<std::string> command;     ///< for a device in which the update has run as given
    int milliseconds = Sandbox::kNoLimit; ///< what a run may take
};

/// A chip and a device on which an update is run many times.
class Rig {
public:
    /// @param start the chip that runs start from; it outlives the rig
    /// @param path of the chip's files, which are there and hold what `start` holds; the state file is made beside them
    /// @param settings without a trace; they outlive the rig too
    Rig(const RunSettings &settings, const ChipFile &start, const std::string &path, const HeldSignals &signals);

    void Adopt(const RigHabit &habit) { m_habit = habit; }

    /// Lays the chip as it was at the start, with further bad blocks.
    void LayStart(const std::vector<std::uint32_t> &badBlocks = {});

    /// Runs the update on the chip as it lies there.
    RunOutcome Run(std::uint64_t cutAtChange = 0, const std::vector<SimFault> &faults = {});

    NandChip &Chip() { return m_chip.Chip(); }
    const SimState &State() const { return m_state; }

private:
    const RunSettings &m_settings;
    const NandChip &m_start;
    const HeldSignals &m_signals;
    std::string m_sPath;
    ChipFile m_chip;
    SimState m_state;
    std::unique_ptr<Sandbox> m_device;
    RigHabit m_habit;
};
