#include "sweep/BranchingRun.h"

#include "sweep/Rig.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <sys/wait.h>
#include <utility>

namespace {

/// How often output is taken: a pipe that is full holds up the run.
constexpr int kLookMilliseconds = 20;

std::string CopyWithSums(const std::string &start, const std::string &path) {
    ChipFile::Copy(start, path);
    ChipFile::AddSums(path);
    return path;
}

SimSettings WithSteps(SimSettings settings) {
    settings.record = SimSettings::Record::Steps;
    return settings;
}

} // namespace

BranchingRun::BranchingRun(const RunSettings &settings, const HeldSignals &signals, const std::string &start,
                           const std::string &path, int milliseconds)
    : m_signals(signals), m_nMilliseconds(milliseconds), m_chip(CopyWithSums(start, path)),
      m_state(MakeRigState(path, WithSteps(settings.sim), Chip().Geometry())), m_command(UpdaterCommand(settings)),
      m_kept() {
    m_chip.Chip().ScanForBadBlocks();
    m_sandbox = std::make_unique<Sandbox>(settings, path, RigStatePath(path), false);
}

bool BranchingRun::GoTo(RequestKind kind, std::uint64_t nth, std::vector<RunStep> &steps) {
    if (!m_sandbox)
        return false;
    m_state.Stop().GoOnTo(kind, nth);
    if (!m_command.empty())
        m_sandbox->Start(std::exchange(m_command, {}));
    if (!Await(StopPlace::Phase::Stopped, m_output) || !ReadNewSteps(steps)) {
        m_sandbox.reset();
        return false;
    }
    m_kept = m_state.Keep();
    return true;
}

std::optional<RunOutcome> BranchingRun::Branch(int error) {
    RunOutcome outcome = m_output;
    m_state.Stop().Branch(error);
    std::vector<RunStep> steps;
    m_changed.clear();
    if (!Await(StopPlace::Phase::BranchEnded, outcome) || !ReadNewSteps(steps)) {
        m_sandbox.reset();
        return std::nullopt;
    }
    for (const RunStep &step : steps) {
        if (step.IsChange())
            m_changed.push_back(BlockOf(step, Chip().Geometry()));
    }
    std::sort(m_changed.begin(), m_changed.end());
    m_changed.erase(std::unique(m_changed.begin(), m_changed.end()), m_changed.end());
    outcome.status = m_state.Stop().BranchStatus();
    outcome.isBypassed = std::any_of(m_changed.begin(), m_changed.end(),
                                     [this](std::uint32_t block) { return Chip().HasMisfits(block); });
    // The kernel ends a branch by the first when it would start a program or write a file, by the other for want of
    // memory.
    const int signal = WIFSIGNALED(outcome.status) ? WTERMSIG(outcome.status) : 0;
    return signal == SIGSYS || signal == SIGKILL ? std::nullopt : std::make_optional(std::move(outcome));
}

void BranchingRun::TakeBack(const NandChip &before) {
    for (const std::uint32_t block : m_changed)
        m_chip.Chip().CopyBlock(before, block);
    m_state.TakeBack(m_kept);
}

/// @param outcome gets what is printed meanwhile
bool BranchingRun::Await(StopPlace::Phase phase, RunOutcome &outcome) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(m_nMilliseconds);
    while (!m_state.Stop().Await(phase, kLookMilliseconds)) {
        if (m_signals.HasCome())
            throw std::runtime_error("a worker process was interrupted");
        if (!m_sandbox->TakeOutput(outcome) || Clock::now() > end)
            return false;
    }
    return m_sandbox->TakeOutput(outcome);
}

/// Reads what is recorded since the request at which the run stands.
bool BranchingRun::ReadNewSteps(std::vector<RunStep> &steps) const {
    std::size_t length = 0;
    const std::uint8_t *record = m_state.RecordBytes(length);
    return m_kept.traceEnd <= length &&
           ReadSteps(record + m_kept.traceEnd, length - static_cast<std::size_t>(m_kept.traceEnd), Chip().Geometry(),
                     steps);
}
