#include "sweep/Rig.h"

namespace {

std::string MakeState(const std::string &path, const SimSettings &settings) {
    SimState::Create(path, settings);
    return path;
}

} // namespace

Rig::Rig(const RunSettings &settings, const ChipFile &start, const std::string &path, const HeldSignals &signals)
    : m_settings(settings), m_start(start.Chip()), m_signals(signals), m_sPath(path), m_chip(path),
      m_state(MakeState(path + ".state", settings.sim)) {}

void Rig::LayStart(const std::vector<std::uint32_t> &badBlocks) {
    NandChip &chip = Chip();
    for (std::uint32_t block = 0; block < chip.Geometry().Blocks(); ++block) {
        if (chip.IsTouched(block) || chip.IsBad(block) != m_start.IsBad(block))
            chip.CopyBlock(m_start, block);
    }
    for (const std::uint32_t block : badBlocks)
        chip.MarkBad(block);
}

RunOutcome Rig::Run(std::uint64_t cutAtChange, const std::vector<SimFault> &faults) {
    SimSettings run = m_settings.sim;
    run.cutAtChange = cutAtChange;
    run.faults.insert(run.faults.end(), faults.begin(), faults.end());
    m_state.Restart(run);
    // Each run is a start of the device: the kernel looks for bad-block markers again.
    Chip().ScanForBadBlocks();
    const bool isNew = !m_sandbox;
    if (isNew)
        m_sandbox = std::make_unique<Sandbox>(m_settings, m_sPath, m_sPath + ".state");
    RunOutcome outcome =
        m_sandbox->Run(isNew ? UpdaterCommand(m_settings) : m_habit.command, isNew, m_signals, m_habit.milliseconds);
    const bool hasEnded = outcome.isInterrupted || outcome.isOverdue;
    if (!m_habit.sharesSandbox || outcome.leavesProcesses || hasEnded)
        m_sandbox.reset();
    return outcome;
}
