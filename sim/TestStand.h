#pragma once

#include "ChipFile.h"
#include "HeldSignals.h"
#include "SimRun.h"
#include "SimState.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// How runs follow each other on a stand.
struct StandHabit {
    bool sharesDevice = false;                 ///< runs leave nothing behind in their device: one serves them all
    std::vector<std::string> command;          ///< for a device in which the update has run as given
    int milliseconds = UpdateDevice::kNoLimit; ///< what a run may take
};

/// A chip and a device on which an update is run many times.
class TestStand {
public:
    /// @param start the chip that runs start from; it outlives the stand
    /// @param path of the chip's files, which are there and hold what `start` holds; the state file is made beside them
    /// @param settings without a trace; they outlive the stand too
    TestStand(const RunSettings &settings, const ChipFile &start, const std::string &path, const HeldSignals &signals);

    void Adopt(const StandHabit &habit) { m_habit = habit; }

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
    std::unique_ptr<UpdateDevice> m_device;
    StandHabit m_habit;
};
