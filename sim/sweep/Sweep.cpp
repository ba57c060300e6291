#include "sweep/Sweep.h"

#include "base/Text.h"
#include "base/Workers.h"
#include "chip/ChipFile.h"
#include "sweep/Rig.h"
#include "sweep/SweepJudge.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <utility>

namespace {

/// Disables the notify script; the updater does the same on flash.
constexpr const char *kWithoutNotify = "quiet";
/// A run that takes this many times as long as the reference run, on a busy machine, hangs.
constexpr int kPatience = 20;
constexpr int kLeastPatienceMilliseconds = 60000;

constexpr std::int64_t kMostMilliseconds = 3600000;

using Clock = std::chrono::steady_clock;

CaseResult TryCase(const SweepKind &kind, const SweepCase &what, Rig &rig, const SweepJudge &judge) {
    rig.LayStart(what.badBlocks);
    return kind.tryCase(what, rig, judge);
}

/// A worker's message: the unsealed line and, of a failure, the line, what happens and the advice.
std::string Pack(const CaseResult &result) {
    std::string packed = std::to_string(result.unsealedLine);
    if (result.complaint)
        packed += " " + std::to_string(result.complaint->line) + " " + result.complaint->happens + '\0' +
                  result.complaint->advice;
    return packed;
}

CaseResult Unpack(const std::string &packed) {
    CaseResult result;
    char *rest = nullptr;
    result.unsealedLine = std::strtoul(packed.c_str(), &rest, 10);
    if (*rest == '\0')
        return result;
    result.complaint.emplace();
    result.complaint->line = std::strtoul(rest, &rest, 10);
    result.complaint->happens = rest + 1;
    result.complaint->advice = packed.substr(std::min(packed.find('\0') + 1, packed.size()));
    return result;
}

RunSettings ForSweeps(RunSettings settings) {
    settings.passOut = settings.passErr = -1;
    settings.isConsole = false;
    settings.sim.traceLimit = 0;
    settings.sim.cutAtChange = 0;
    if (settings.arguments.empty())
        settings.arguments.emplace_back(kWithoutNotify);
    return settings;
}

} // namespace

const SweepKind *FindSweepKind(const std::string &name) {
    const auto *found = std::find_if(std::begin(kSweepKinds), std::end(kSweepKinds),
                                     [&](const SweepKind &kind) { return name == kind.name; });
    return found == std::end(kSweepKinds) ? nullptr : found;
}

std::vector<std::string> SweepNames() {
    std::vector<std::string> names;
    for (const SweepKind &kind : kSweepKinds)
        names.emplace_back(kind.name);
    return names;
}

bool UsesOption(const SweepKind &kind, const std::string &option) {
    const std::vector<std::string> options = SplitList(kind.options);
    return std::find(options.begin(), options.end(), option) != options.end();
}

/// What all runs of all sweeps start from and are compared with.
struct Sweeper::Base {
    Base(const RunSettings &run, const std::string &path, const HeldSignals &held)
        : settings(ForSweeps(run)), startPath(path), signals(held), start(path) {}

    /// @return the path of a copy of the start.
    std::string CopyStart(const std::string &name) const {
        std::string path = startPath + "." + name;
        ChipFile::Copy(startPath, path);
        return path;
    }

    RunSettings settings;
    std::string startPath;
    const HeldSignals &signals;
    ChipFile start;
    std::unique_ptr<const ChipFile> end;
    std::unique_ptr<const ReferenceRun> reference; ///< null when interrupted
    RigHabit habit;
};

namespace {

/// @return the command for a sandbox in which the update has run and is unpacked.
std::vector<std::string> CommandAgain(const RunSettings &settings, const std::string &handOver) {
    std::vector<std::string> command = UpdaterCommand(settings);
    if (!IsImage(settings))
        return command;
    const std::string name = command[0].substr(command[0].rfind('/') + 1);
    if (!handOver.empty())
        command[0] = std::string(kUnpackedUpdate) + "/" + name;
    command[1] = kUnpackedUpdate;
    return command;
}

/// @return whether a second run in the same sandbox made the same requests with the same result, so that one sandbox
/// serves all runs.
bool IsSame(const ReferenceRun &first, Rig &rig, const RunOutcome &second) {
    return CountRequests(rig.State()) == first.requests && rig.State().Changes() == first.changes &&
           !SweepJudge(first).JudgeCut(rig.Chip(), second, second);
}

} // namespace

Sweeper::Sweeper(const RunSettings &settings, const std::string &start, const HeldSignals &signals) {
    auto base = std::make_unique<Base>(settings, start, signals);
    const std::string path = base->CopyStart("0"); // the first worker's, later
    Rig rig(base->settings, base->start, path, signals);
    base->habit.sharesSandbox = settings.starts.empty();
    rig.Adopt(base->habit);
    const Clock::time_point begin = Clock::now();
    const RunOutcome first = rig.Run();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    ChipFile::Copy(path, start + ".end");
    base->end = std::make_unique<ChipFile>(start + ".end");
    const std::vector<UpdateLine> lines = ReadUpdateLines(VisibleScript(first.script));
    auto reference = std::make_unique<ReferenceRun>(ReferenceRun{
        base->settings.sim.devices, lines, first.files, first, FollowRun(lines, first.out, first.err, false),
        CountRequests(rig.State()), rig.State().Changes(), base->end->Chip()});
    base->habit.command = CommandAgain(base->settings, reference->story.handOver);
    base->habit.milliseconds =
        static_cast<int>(std::min<std::int64_t>(took, kMostMilliseconds)) * kPatience + kLeastPatienceMilliseconds;

    rig.Adopt(base->habit);
    rig.LayStart();
    const RunOutcome second = rig.Run();
    base->habit.sharesSandbox = base->habit.sharesSandbox && !first.leavesProcesses && !second.leavesProcesses &&
                                IsSame(*reference, rig, second);
    if (!first.isInterrupted && !second.isInterrupted)
        base->reference = std::move(reference);
    m_base = std::move(base);
}

Sweeper::~Sweeper() = default;

std::size_t Sweeper::Places(const SweepKind &kind) const {
    SweepSettings all;
    all.kind = &kind;
    return m_base->reference ? kind.plan(*m_base->reference, all).places : 0;
}

SweepResult Sweeper::Run(const SweepSettings &settings,
                         const std::function<void(const SweepResult &result)> &progress) const {
    SweepResult result;
    result.settings = settings;
    result.isInterrupted = true;
    if (!m_base->reference)
        return result;
    const Base &base = *m_base;
    const SweepJudge judge(*base.reference);
    const SweepPlan plan = settings.kind->plan(*base.reference, settings);
    result.places = plan.places;
    result.planned = plan.cases.size();
    const auto setUp = [&](unsigned worker) -> WorkerJob {
        const auto rig =
            std::make_shared<Rig>(base.settings, base.start, base.CopyStart(std::to_string(worker)), base.signals);
        rig->Adopt(base.habit);
        return [&, rig](std::size_t number) { return Pack(TryCase(*settings.kind, plan.cases[number], *rig, judge)); };
    };
    std::map<std::size_t, std::size_t> unsealed;
    const auto take = [&](std::size_t number, const std::string &packed) {
        const CaseResult tried = Unpack(packed);
        ++result.done;
        if (tried.unsealedLine != 0)
            ++unsealed[tried.unsealedLine];
        if (tried.complaint)
            result.failures.push_back({number + 1, plan.cases[number], tried.complaint->line,
                                       base.reference->TextOf(tried.complaint->line), tried.complaint->happens,
                                       tried.complaint->advice});
        progress(result);
    };
    result.isInterrupted = !DoInWorkers(plan.cases.size(), settings.workers, base.signals, setUp, take);
    for (const auto &[line, runs] : unsealed)
        result.unsealed.push_back({line, base.reference->TextOf(line), runs});
    std::sort(result.failures.begin(), result.failures.end(),
              [](const SweepFailure &a, const SweepFailure &b) { return a.number < b.number; });
    return result;
}
