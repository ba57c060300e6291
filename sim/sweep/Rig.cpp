#include "sweep/Rig.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace {

/// Room for the record of a run that programs every page three times. Only used room takes memory.
std::uint64_t RecordLimit(const NandGeometry &geometry) {
    constexpr std::uint64_t kPasses = 3;
    constexpr std::uint64_t kStepBytes = 256;
    return kPasses * (geometry.RawSize() + geometry.Pages() * kStepBytes) + (std::uint64_t{1} << 24);
}

} // namespace

std::string MakeRigState(const std::string &chip, SimSettings settings, const NandGeometry &geometry) {
    settings.traceLimit = RecordLimit(geometry);
    SimState::Create(RigStatePath(chip), settings);
    return RigStatePath(chip);
}

std::string RigStatePath(const std::string &chip) { return chip + ".state"; }

Rig::Rig(const RunSettings &settings, const ChipFile &start, const std::string &path, const HeldSignals &signals)
    : m_settings(settings), m_start(start.Chip()), m_signals(signals), m_sPath(path), m_chip(path),
      m_state(MakeRigState(path, settings.sim, start.Chip().Geometry())) {
    for (std::uint32_t block = 0; block < m_start.Geometry().Blocks(); ++block) {
        if (m_start.IsUnstable(block))
            m_unstable.push_back(block);
    }
}

void Rig::LayStart(const std::vector<std::uint32_t> &badBlocks) {
    Lay(m_start);
    for (const std::uint32_t block : badBlocks)
        Chip().MarkBad(block);
}

void Rig::Lay(const NandChip &chip) {
    NandChip &own = Chip();
    for (std::uint32_t block = 0; block < own.Geometry().Blocks(); ++block) {
        if (own.IsTouched(block) || chip.IsTouched(block) || own.BlockTraits(block) != chip.BlockTraits(block))
            own.CopyBlock(chip, block);
    }
    for (const std::uint32_t block : m_unstable)
        own.CopyBlock(chip, block);
    for (std::vector<std::uint32_t> *further : {&m_worn, &m_misfits}) {
        for (const std::uint32_t block : *further)
            own.CopyBlock(chip, block);
        further->clear();
    }
}

void Rig::WearOut(const std::vector<std::uint32_t> &eraseFails, const std::vector<std::uint32_t> &programFails) {
    for (const std::uint32_t block : eraseFails)
        Chip().MakeWeakBlock(block);
    for (const std::uint32_t block : programFails)
        Chip().MakeWeakPages(block);
    m_worn = programFails;
}

RunOutcome Rig::Run(const RigRun &run) { return RunIn(run, nullptr); }

RunOutcome Rig::RunCommand(const std::vector<std::string> &command, SimSettings::Record record) {
    RigRun run;
    run.record = record;
    return RunIn(run, &command);
}

/// @param command null for the update
RunOutcome Rig::RunIn(const RigRun &run, const std::vector<std::string> *command) {
    SimSettings settings = m_settings.sim;
    settings.cutAtChange = run.cutAtChange;
    settings.cutExtent = run.cutExtent;
    settings.record = run.record;
    settings.faults.insert(settings.faults.end(), run.faults.begin(), run.faults.end());
    m_state.Restart(settings);
    // Each run is a start of the device: the kernel looks for bad-block markers again.
    Chip().ScanForBadBlocks();
    const bool isNew = !m_sandbox;
    const bool isUpdate = command == nullptr;
    // What the update holds is the same in every sandbox.
    const bool isFirst = isUpdate && isNew && std::exchange(m_bIsFirst, false);
    if (isNew)
        m_sandbox = std::make_unique<Sandbox>(m_settings, m_sPath, RigStatePath(m_sPath), isFirst);
    const std::vector<std::string> update = isNew ? UpdaterCommand(m_settings) : m_habit.command;
    RunOutcome outcome =
        m_sandbox->Run(isUpdate ? update : *command, isFirst, m_signals, m_habit.milliseconds, m_habit.sharesSandbox);
    if (!m_chip.IsWhole())
        throw std::runtime_error("a program of the update cut or lengthened the files of the chip");
    const bool hasEnded = outcome.isInterrupted || outcome.isOverdue;
    // Only after the update a sandbox is ready for the habit's command.
    const bool isReady = isUpdate || !isNew;
    if (!m_habit.sharesSandbox || outcome.leavesProcesses || hasEnded || !isReady || !IsReusable(outcome, isUpdate))
        m_sandbox.reset();
    outcome.isBypassed = FindMisfits();
    return outcome;
}

/// @return whether the sandbox of a run is as after any other run, although the run may have gone another way.
bool Rig::IsReusable(const RunOutcome &outcome, bool isUpdate) const {
    if (!m_habit.ownFiles.empty())
        // No file in memory outlives a power cut.
        return outcome.ownAfter == m_habit.ownFiles && (m_habit.leavesNoFiles || !m_state.PowerWasCut());
    const auto &usual = m_habit.usualErr;
    return !isUpdate || (!m_state.PowerWasCut() && outcome.status == 0 &&
                         (usual.empty() || std::find(usual.begin(), usual.end(), outcome.err) != usual.end()));
}

/// Notes the blocks that were changed other than by requests, of those that the judge looks at.
/// @return whether there are any.
bool Rig::FindMisfits() {
    const NandChip &chip = m_chip.Chip();
    const auto look = [&](std::uint32_t block, bool isTouched) {
        if (chip.IsTouched(block) == isTouched && chip.HasMisfits(block))
            m_misfits.push_back(block);
    };
    for (std::uint32_t block = 0; block < chip.Geometry().Blocks(); ++block)
        look(block, true);
    for (const std::uint32_t block : m_habit.watched)
        look(block, false);
    return !m_misfits.empty();
}
