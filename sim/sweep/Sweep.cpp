#include "sweep/Sweep.h"

#include "base/Workers.h"
#include "chip/ChipFile.h"
#include "sweep/Rig.h"
#include "sweep/SweepJudge.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <stdexcept>
#include <utility>

namespace {

/// The updater makes no notify calls with it, and does the same on flash.
constexpr const char *kWithoutNotify = "quiet";
/// A run that takes this much longer than one without trouble, on a busy machine, has no end.
constexpr int kPatience = 20;
constexpr int kLeastPatienceMilliseconds = 60000;

constexpr std::int64_t kMostMilliseconds = 3600000;

using Clock = std::chrono::steady_clock;

/// @return what a device gives to a request of a kind that fails.
int ErrorOf(RequestKind kind) {
    switch (kind) {
    case RequestKind::Open:
        return ENODEV;
    case RequestKind::Lseek:
        return EINVAL;
    default:
        return EIO;
    }
}

/// What a sweep goes by and the runs that it comes to.
struct Plan {
    std::size_t places = 0;
    std::vector<SweepCase> cases;
};

/// Draws sets of bad blocks, the same for the same seed.
class SetDrawer {
public:
    explicit SetDrawer(const ReferenceRun &run, std::uint64_t seed) : m_random(seed) {
        const WholeFlash flash(run.chip, run.devices);
        for (std::size_t i = 0; i < run.lines.size(); ++i) {
            const auto range = run.DoneRange(i);
            const auto file = run.files.find(run.lines[i].image);
            if (!range || !run.lines[i].WritesImage() || file == run.files.end() || file->second < 0)
                continue;
            const NandGeometry &geometry = run.chip.Geometry();
            const bool hasOob = run.lines[i].kind == LineKind::WriteOob;
            const std::uint64_t blockBytes =
                std::uint64_t{geometry.PagesPerBlock()} * (hasOob ? geometry.RawPageSize() : geometry.pageSize);
            const std::uint64_t needed = (static_cast<std::uint64_t>(file->second) + blockBytes - 1) / blockBytes;
            std::vector<std::uint32_t> blocks = flash.GoodBlocks(*range);
            if (needed < blocks.size())
                m_ranges.push_back({static_cast<std::size_t>(blocks.size() - needed), std::move(blocks)});
        }
    }

    /// @return whether there is a block to be drawn.
    bool HasRoom() const { return !m_ranges.empty(); }

    std::vector<std::uint32_t> Draw() {
        std::vector<std::uint32_t> set;
        while (set.empty()) {
            for (Range &range : m_ranges) {
                const std::size_t count = Below(range.spare + 1);
                for (std::size_t i = 0; i < count; ++i) {
                    std::swap(range.blocks[i], range.blocks[i + Below(range.blocks.size() - i)]);
                    set.push_back(range.blocks[i]);
                }
            }
        }
        std::sort(set.begin(), set.end());
        set.erase(std::unique(set.begin(), set.end()), set.end());
        return set;
    }

private:
    struct Range {
        std::size_t spare;
        std::vector<std::uint32_t> blocks;
    };

    std::size_t Below(std::size_t bound) { return static_cast<std::size_t>(m_random() % bound); }

    std::mt19937_64 m_random;
    std::vector<Range> m_ranges;
};

/// @return the good blocks of all ranges in which the reference changed flash, ascending.
std::vector<std::uint32_t> UsedBlocks(const ReferenceRun &run) {
    const WholeFlash flash(run.chip, run.devices);
    std::vector<std::uint32_t> used;
    for (std::size_t i = 0; i < run.lines.size(); ++i) {
        const auto range = run.DoneRange(i);
        const std::vector<std::uint32_t> blocks = range ? flash.GoodBlocks(*range) : std::vector<std::uint32_t>();
        if (std::any_of(blocks.begin(), blocks.end(), [&](std::uint32_t block) { return run.chip.IsTouched(block); }))
            used.insert(used.end(), blocks.begin(), blocks.end());
    }
    std::sort(used.begin(), used.end());
    used.erase(std::unique(used.begin(), used.end()), used.end());
    return used;
}

Plan PlanBad(const ReferenceRun &run, const SweepSettings &settings) {
    Plan plan;
    for (const std::uint32_t block : UsedBlocks(run))
        plan.cases.push_back({{block}, 0, {}});
    plan.places = plan.cases.size();
    SetDrawer drawer(run, settings.seed);
    for (std::uint64_t i = 0; drawer.HasRoom() && i < settings.sets; ++i)
        plan.cases.push_back({drawer.Draw(), 0, {}});
    return plan;
}

Plan PlanCut(const ReferenceRun &run, const SweepSettings &settings) {
    Plan plan;
    plan.places = static_cast<std::size_t>(run.changes);
    for (std::uint64_t change = 1; change <= run.changes; change += settings.every)
        plan.cases.push_back({{}, change, {}});
    return plan;
}

Plan PlanFaults(const ReferenceRun &run, const SweepSettings &settings) {
    Plan plan;
    for (std::uint32_t i = 0; i < kRequestKinds; ++i) {
        const auto kind = static_cast<RequestKind>(i);
        plan.places += static_cast<std::size_t>(run.requests[i]);
        for (std::uint64_t nth = 1; nth <= run.requests[i]; nth += settings.every)
            plan.cases.push_back({{}, 0, {{kind, nth, ErrorOf(kind)}}});
    }
    return plan;
}

Plan MakePlan(const ReferenceRun &run, const SweepSettings &settings) {
    constexpr Plan (*kPlanners[])(const ReferenceRun &, const SweepSettings &) = {PlanBad, PlanCut, PlanFaults};
    return kPlanners[static_cast<std::size_t>(settings.kind)](run, settings);
}

RunOutcome RunWhole(Rig &rig, const SweepCase &what) {
    RunOutcome run = rig.Run(what.cutAtChange, what.faults);
    if (run.isInterrupted)
        throw std::runtime_error("a worker process was interrupted");
    return run;
}

/// What a worker tells of a case.
struct CaseResult {
    std::optional<SweepComplaint> complaint;
    std::size_t unsealedLine = 0; ///< as SweepJudge::FindUnsealed gives it
};

CaseResult TryCase(SweepKind kind, const SweepCase &what, Rig &rig, const SweepJudge &judge) {
    rig.LayStart(what.badBlocks);
    const RunOutcome run = RunWhole(rig, what);
    switch (kind) {
    case SweepKind::Bad:
        return {judge.JudgeBad(rig.Chip(), run)};
    case SweepKind::Cut: {
        const std::size_t unsealedLine = judge.FindUnsealed(rig.Chip(), run);
        const RunOutcome again = RunWhole(rig, {});
        return {judge.JudgeCut(rig.Chip(), run, again), unsealedLine};
    }
    default:
        return {judge.JudgeFault(rig.Chip(), run)};
    }
}

/// On its way from the worker: the unsealed line and, of a case that didn't hold, the line and what happens.
std::string Pack(const CaseResult &result) {
    std::string packed = std::to_string(result.unsealedLine);
    if (result.complaint)
        packed += " " + std::to_string(result.complaint->line) + " " + result.complaint->happens;
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
    return result;
}

std::string TextOf(std::size_t line, const ReferenceRun &run) {
    const auto found =
        std::find_if(run.lines.begin(), run.lines.end(), [line](const UpdateLine &it) { return it.number == line; });
    return found == run.lines.end() ? "" : found->text;
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

const char *SweepName(SweepKind kind) {
    constexpr const char *kNames[] = {"bad", "cut", "faults"};
    return kNames[static_cast<std::size_t>(kind)];
}

/// What all runs of all sweeps start from and are measured by.
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
    std::unique_ptr<const ReferenceRun> reference; ///< none when it was interrupted
    RigHabit habit;
};

namespace {

std::array<std::uint64_t, kRequestKinds> CountRequests(const SimState &state) {
    std::array<std::uint64_t, kRequestKinds> counts;
    for (std::uint32_t i = 0; i < kRequestKinds; ++i)
        counts[i] = state.Requests(static_cast<RequestKind>(i));
    return counts;
}

/// @return the command for a device in which the update has run and is unpacked.
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

/// @return whether a second run in the same device asked for the same and left the same: one serves all runs then.
bool IsSame(const ReferenceRun &first, Rig &rig, const RunOutcome &second) {
    return CountRequests(rig.State()) == first.requests && rig.State().Changes() == first.changes &&
           !SweepJudge(first).JudgeCut(rig.Chip(), second, second);
}

} // namespace

Sweeper::Sweeper(const RunSettings &settings, const std::string &start, const HeldSignals &signals) {
    auto base = std::make_unique<Base>(settings, start, signals);
    const std::string path = base->CopyStart("0"); // the first worker's, later
    Rig rig(base->settings, base->start, path, signals);
    base->habit.sharesDevice = settings.starts.empty();
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
    base->habit.sharesDevice = base->habit.sharesDevice && !first.leavesProcesses && !second.leavesProcesses &&
                               IsSame(*reference, rig, second);
    if (!first.isInterrupted && !second.isInterrupted)
        base->reference = std::move(reference);
    m_base = std::move(base);
}

Sweeper::~Sweeper() = default;

std::size_t Sweeper::Places(SweepKind kind) const {
    SweepSettings all;
    all.kind = kind;
    return m_base->reference ? MakePlan(*m_base->reference, all).places : 0;
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
    const Plan plan = MakePlan(*base.reference, settings);
    result.places = plan.places;
    result.planned = plan.cases.size();
    const auto setUp = [&](unsigned worker) -> WorkerJob {
        const auto rig =
            std::make_shared<Rig>(base.settings, base.start, base.CopyStart(std::to_string(worker)), base.signals);
        rig->Adopt(base.habit);
        return [&, rig](std::size_t number) { return Pack(TryCase(settings.kind, plan.cases[number], *rig, judge)); };
    };
    std::map<std::size_t, std::size_t> unsealed;
    const auto take = [&](std::size_t number, const std::string &packed) {
        const CaseResult tried = Unpack(packed);
        ++result.done;
        if (tried.unsealedLine != 0)
            ++unsealed[tried.unsealedLine];
        if (tried.complaint)
            result.failures.push_back({number + 1, plan.cases[number], tried.complaint->line,
                                       TextOf(tried.complaint->line, *base.reference), tried.complaint->happens});
        progress(result);
    };
    result.isInterrupted = !DoInWorkers(plan.cases.size(), settings.workers, base.signals, setUp, take);
    for (const auto &[line, runs] : unsealed)
        result.unsealed.push_back({line, TextOf(line, *base.reference), runs});
    std::sort(result.failures.begin(), result.failures.end(),
              [](const SweepFailure &a, const SweepFailure &b) { return a.number < b.number; });
    return result;
}
