#include "sweep/Sweep.h"

#include "base/Places.h"
#include "base/Text.h"
#include "base/Workers.h"
#include "chip/ChipFile.h"
#include "sandbox/OwnFiles.h"
#include "sweep/BoardCuts.h"
#include "sweep/Rig.h"
#include "sweep/SweepJudge.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

/// Disables the notify script; the updater does the same on flash.
constexpr const char *kWithoutNotify = "quiet";
/// A run that takes this many times as long as the reference run, on a busy machine, hangs.
constexpr int kPatience = 20;
constexpr int kLeastPatienceMilliseconds = 60000;

constexpr std::int64_t kMostMilliseconds = 3600000;
/// Changes or requests of a run that is swept. The list of cases of more would fill the memory.
constexpr std::uint64_t kMostPlaces = std::uint64_t{1} << 23;

using Clock = std::chrono::steady_clock;

/// Cases that a worker takes at a time when runs are replayed: neighbours share what they learn.
constexpr std::size_t kReplayedAtATime = 32;

CaseResult TryForReal(const SweepCase &what, const SweepTools &tools) {
    tools.rig.LayStart(what.badBlocks);
    tools.rig.WearOut(what.eraseFails, what.programFails);
    return tools.settings.kind->tryCase(what, tools);
}

/// @return the rules with the ranges of the lines that they name.
/// @throws std::invalid_argument with one line for a range that is not whole blocks of the flash
BootRules ResolveRules(BootRules rules, const ReferenceRun &reference) {
    const WholeFlash flash(reference.chip, reference.devices);
    for (const std::size_t number : rules.keptLines) {
        const auto line = std::find_if(reference.lines.begin(), reference.lines.end(),
                                       [number](const UpdateLine &it) { return it.number == number; });
        const auto range = line == reference.lines.end() ? std::nullopt : flash.RangeOf(*line);
        if (!range)
            throw std::invalid_argument("line " + std::to_string(number) + " of the script has no range to keep");
        rules.kept.push_back(*range);
    }
    std::vector<FlashRange> all = rules.kept;
    all.insert(all.end(), rules.environments.begin(), rules.environments.end());
    for (const BootSlot &slot : rules.slots)
        all.push_back(slot.range);
    for (const FlashRange &range : all) {
        if (!flash.IsOnFlash(range))
            throw std::invalid_argument("the range at " + Hex(range.begin) +
                                        " that the device boots from is not whole "
                                        "blocks of the flash");
    }
    return rules;
}

/// @return the lines ahead of a line that make the boot loader select the slot which that line writes.
std::vector<std::size_t> SelectorsAhead(std::size_t number, const BootRules &boot, const ReferenceRun &reference) {
    const WholeFlash flash(reference.chip, reference.devices);
    const auto writer = std::find_if(reference.lines.begin(), reference.lines.end(),
                                     [number](const UpdateLine &line) { return line.number == number; });
    const auto written = writer == reference.lines.end() ? std::nullopt : flash.RangeOf(*writer);
    std::vector<std::size_t> selectors;
    for (auto line = reference.lines.begin(); written && line != writer; ++line) {
        const auto range = line->kind == LineKind::SetEnv ? flash.RangeOf(*line) : std::nullopt;
        const bool isForLoader = range && std::any_of(boot.environments.begin(), boot.environments.end(),
                                                      [&](const FlashRange &it) { return it.Overlaps(*range); });
        if (isForLoader && std::any_of(boot.slots.begin(), boot.slots.end(), [&](const BootSlot &slot) {
                return slot.range.Overlaps(*written) && line->Name() == slot.name && line->Value() == slot.value;
            }))
            selectors.push_back(line->number);
    }
    return selectors;
}

/// Texts as one message, and back.
std::string PackTexts(const std::vector<std::string> &texts) {
    std::string packed;
    for (const std::string &text : texts)
        packed += std::to_string(text.size()) + ":" + text;
    return packed;
}

std::vector<std::string> UnpackTexts(const std::string &packed) {
    std::vector<std::string> texts;
    for (std::size_t at = 0; at < packed.size();) {
        const std::size_t colon = packed.find(':', at);
        const std::size_t length = std::strtoul(packed.c_str() + at, nullptr, 10);
        texts.push_back(packed.substr(colon + 1, length));
        at = colon + 1 + length;
    }
    return texts;
}

std::string Pack(const CaseResult &result) {
    std::vector<std::string> texts = {std::to_string(result.unsealedLine), result.noBoot, PackTexts(result.sights)};
    if (result.complaint)
        texts.insert(texts.end(), {std::to_string(result.complaint->line), result.complaint->happens,
                                   result.complaint->advice, result.complaint->isOfSecondRun ? "2" : "1"});
    return PackTexts(texts);
}

CaseResult Unpack(const std::string &packed) {
    const std::vector<std::string> texts = UnpackTexts(packed);
    CaseResult result;
    result.unsealedLine = std::stoul(texts.at(0));
    result.noBoot = texts.at(1);
    result.sights = UnpackTexts(texts.at(2));
    if (texts.size() > 3)
        result.complaint = SweepComplaint{std::stoul(texts[3]), texts.at(4), texts.at(5), texts.at(6) == "2"};
    return result;
}

/// @return the numbers of the cases that are also tried for real, ascending.
std::vector<std::size_t> DrawSample(const SweepSettings &settings, std::size_t begin, std::size_t end) {
    std::mt19937_64 random(settings.seed);
    std::vector<std::size_t> sample;
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(settings.sample, end - begin); ++i)
        sample.push_back(begin + static_cast<std::size_t>(random() % (end - begin)));
    std::sort(sample.begin(), sample.end());
    sample.erase(std::unique(sample.begin(), sample.end()), sample.end());
    return sample;
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
        ChipFile::AddSums(path);
        return path;
    }

    RunSettings settings;
    std::string startPath;
    const HeldSignals &signals;
    ChipFile start;
    std::unique_ptr<const ChipFile> end;
    std::unique_ptr<const ReferenceRun> reference; ///< null until made, and when interrupted
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
           !SweepJudge(first).JudgeCut(rig.Chip(), 0, second);
}

/// Takes the record of the first run as the reference's steps, unless a replay of these might differ from a real run.
/// @param rig with the record of the second run
void TakeRecord(ReferenceRun &reference, const Rig &rig, bool leavesProcesses) {
    std::size_t length = 0;
    const std::uint8_t *record = rig.Record(length);
    std::vector<RunStep> first;
    std::vector<RunStep> second;
    const NandGeometry &geometry = reference.chip.Geometry();
    const bool isWhole = ReadSteps(reference.record.data(), reference.record.size(), geometry, first) &&
                         ReadSteps(record, length, geometry, second) && !first.empty();
    std::uint64_t changes = 0;
    std::array<std::uint64_t, kRequestKinds> requests = {};
    for (const RunStep &step : first) {
        changes += step.IsChange() ? 1 : 0;
        if (step.kind == RunStep::Kind::Request)
            ++requests[step.place];
    }
    const bool formatsUbi = std::any_of(reference.lines.begin(), reference.lines.end(),
                                        [](const UpdateLine &line) { return line.kind == LineKind::Ubiformat; });
    if (leavesProcesses)
        reference.whyNoSteps = "the update leaves processes running";
    else if (formatsUbi)
        reference.whyNoSteps = "what ubiformat writes depends on what it finds";
    else if (!isWhole || changes != reference.changes || requests != reference.requests)
        reference.whyNoSteps = "the record of the update is not complete";
    else if (first != second)
        reference.whyNoSteps = "two runs of the update access flash differently";
    else
        reference.TakeSteps(std::move(first));
}

} // namespace

Sweeper::Sweeper(const RunSettings &settings, const std::string &start, const HeldSignals &signals) {
    try {
        ChipFile::AddSums(start);
        auto base = std::make_unique<Base>(settings, start, signals);
        MakeReference(*base);
        if (base->reference)
            m_base = std::move(base);
    } catch (const std::system_error &failure) {
        // A signal ends the making of a file too: the sweeps are interrupted like those of which a run was ended.
        if (failure.code() != std::errc::interrupted || !signals.HasCome())
            throw;
    }
}

void Sweeper::MakeReference(Base &base) {
    const std::string path = base.CopyStart("0"); // the first worker's, later
    Rig rig(base.settings, base.start, path, base.signals);
    base.habit.sharesSandbox = base.settings.starts.empty();
    rig.Adopt(base.habit);
    RigRun run;
    run.record = SimSettings::Record::StepsWithBytes;
    const Clock::time_point begin = Clock::now();
    const RunOutcome first = rig.Run(run);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    ChipFile::Copy(path, base.startPath + ".end");
    base.end = std::make_unique<ChipFile>(base.startPath + ".end");
    for (std::uint32_t block = 0; block < base.end->Chip().Geometry().Blocks(); ++block) {
        if (base.end->Chip().IsTouched(block))
            base.habit.watched.push_back(block);
    }
    const std::vector<UpdateLine> lines = ReadUpdateLines(VisibleScript(first.script));
    auto reference = std::make_unique<ReferenceRun>(ReferenceRun{base.settings.sim.devices,
                                                                 lines,
                                                                 first.files,
                                                                 first,
                                                                 FollowRun(lines, first.out, first.err, false),
                                                                 CountRequests(rig.State()),
                                                                 rig.State().Changes(),
                                                                 base.end->Chip(),
                                                                 {},
                                                                 {},
                                                                 {},
                                                                 {},
                                                                 {}});
    const bool isSmall =
        reference->changes <= kMostPlaces && std::all_of(reference->requests.begin(), reference->requests.end(),
                                                         [](std::uint64_t count) { return count <= kMostPlaces; });
    if (!isSmall)
        throw std::runtime_error("the update makes too many requests for a sweep");
    std::size_t length = 0;
    const std::uint8_t *record = rig.Record(length);
    reference->record.assign(record, record + length);
    base.habit.command = CommandAgain(base.settings, reference->story.handOver);
    base.habit.milliseconds =
        static_cast<int>(std::min<std::int64_t>(took, kMostMilliseconds)) * kPatience + kLeastPatienceMilliseconds;

    rig.Adopt(base.habit);
    rig.LayStart();
    run.record = SimSettings::Record::Steps;
    const RunOutcome second = rig.Run(run);
    base.habit.sharesSandbox = base.habit.sharesSandbox && !first.leavesProcesses && !second.leavesProcesses &&
                               IsSame(*reference, rig, second);
    if (first.isBypassed || second.isBypassed)
        reference->whyNoSteps = "the update changes flash other than by requests";
    else
        TakeRecord(*reference, rig, first.leavesProcesses || second.leavesProcesses);
    base.habit.usualErr = {first.err, second.err};
    if (first.ownAfter == second.ownAfter && first.ownAfter != OwnFiles::kUnknown) {
        base.habit.ownFiles = first.ownAfter;
        base.habit.leavesNoFiles = first.ownAfter == first.ownBefore;
    }
    if (!first.isInterrupted && !second.isInterrupted)
        base.reference = std::move(reference);
}

Sweeper::~Sweeper() = default;

std::size_t Sweeper::Places(const SweepKind &kind) const {
    SweepSettings all;
    all.kind = &kind;
    return m_base ? kind.plan(*m_base->reference, all).places : 0;
}

SweepResult Sweeper::Run(const SweepSettings &asked,
                         const std::function<void(const SweepResult &result)> &progress) const {
    SweepResult result;
    result.settings = asked;
    result.isInterrupted = true;
    if (!m_base)
        return result;
    SweepSettings &settings = result.settings;
    settings.boot = ResolveRules(asked.boot, *m_base->reference);
    const Base &base = *m_base;
    const SweepKind &kind = *settings.kind;
    const SweepJudge judge(*base.reference);
    const bool isOnBoard = !settings.board.empty();
    const SweepPlan plan = (isOnBoard ? PlanBoardCuts : kind.plan)(*base.reference, settings);
    const std::size_t begin = plan.cases.size() * (settings.shard - 1) / settings.shards;
    const std::size_t end = plan.cases.size() * settings.shard / settings.shards;
    result.places = plan.places;
    result.planned = end - begin;
    result.whole = plan.cases.size();
    const bool wantsReplay = kind.replay != nullptr && !settings.isExact && !isOnBoard;
    const bool isReplayed = wantsReplay && !base.reference->steps.empty();
    if (wantsReplay)
        result.whyExact = base.reference->whyNoSteps;

    const auto makeRig = [&](unsigned worker) {
        const std::string path = base.CopyStart(std::to_string(worker));
        auto rig = std::make_shared<Rig>(base.settings, base.start, path, base.signals);
        rig->Adopt(base.habit);
        return rig;
    };
    const std::size_t atATime = isReplayed ? kReplayedAtATime : 1;
    const auto setUp = [&](unsigned worker) -> WorkerJob {
        if (isOnBoard) {
            const std::string path = base.startPath + ".board" + std::to_string(worker);
            return [&, path](std::size_t job) {
                const BoardBench bench = {base.settings, base.start, base.startPath, path,
                                          judge,         settings,   base.signals};
                return PackTexts({Pack(TryBoardCut(plan.cases[begin + job], bench))});
            };
        }
        const std::shared_ptr<Rig> rig = makeRig(worker);
        const auto tools = std::make_shared<const SweepTools>(
            SweepTools{base.start, base.startPath, *rig, judge, settings, base.settings, base.signals});
        const std::shared_ptr<CaseReplay> replay = isReplayed ? kind.replay(*tools) : std::unique_ptr<CaseReplay>();
        return [&, rig, tools, replay](std::size_t job) {
            std::vector<std::string> results;
            const std::size_t first = begin + job * atATime;
            for (std::size_t i = first; i < std::min(first + atATime, end); ++i)
                results.push_back(Pack(replay ? replay->Try(plan.cases[i]) : TryForReal(plan.cases[i], *tools)));
            return PackTexts(results);
        };
    };
    const std::vector<std::size_t> sample = DrawSample(isReplayed ? settings : SweepSettings(), begin, end);
    std::map<std::size_t, CaseResult> replayed; // of the sample
    std::map<std::size_t, std::size_t> unsealed;
    std::map<std::size_t, std::string> gaps;
    const auto take = [&](std::size_t job, const std::string &message) {
        std::size_t number = begin + job * atATime;
        for (const std::string &packed : UnpackTexts(message)) {
            const CaseResult tried = Unpack(packed);
            if (std::binary_search(sample.begin(), sample.end(), number))
                replayed[number] = tried;
            ++result.done;
            for (const std::string &sight : tried.sights)
                ++result.sights[sight];
            if (tried.unsealedLine != 0)
                ++unsealed[tried.unsealedLine];
            if (!tried.noBoot.empty())
                gaps[number] = tried.noBoot;
            if (tried.complaint)
                result.failures.push_back({number + 1, plan.cases[number], tried.complaint->line,
                                           base.reference->TextOf(tried.complaint->line), tried.complaint->happens,
                                           tried.complaint->advice, tried.complaint->isOfSecondRun});
            ++number;
        }
        progress(result);
    };
    const std::size_t jobs = (result.planned + atATime - 1) / atATime;
    result.isInterrupted = !DoInWorkers(jobs, settings.workers, base.signals, setUp, take);

    const auto setUpSample = [&](unsigned worker) -> WorkerJob {
        const std::shared_ptr<Rig> rig = makeRig(worker);
        return [&, rig](std::size_t job) {
            return Pack(TryForReal(plan.cases[sample[job]],
                                   {base.start, base.startPath, *rig, judge, settings, base.settings, base.signals}));
        };
    };
    const auto compare = [&](std::size_t job, const std::string &message) {
        if (!(Unpack(message) == replayed[sample[job]]))
            throw std::runtime_error(std::string("sweep ") + kind.name + ": run " + std::to_string(sample[job] + 1) +
                                     " differs from its replay; repeat the sweep with --exact");
    };
    if (!result.isInterrupted)
        result.isInterrupted = !DoInWorkers(sample.size(), settings.workers, base.signals, setUpSample, compare);

    for (const auto &[line, runs] : unsealed)
        result.unsealed.push_back({line, base.reference->TextOf(line), runs});
    for (const auto &[number, why] : gaps) {
        const SweepCase &what = plan.cases[number];
        const std::size_t line = base.reference->LineOfChange(what.cutAtChange);
        auto gap =
            std::find_if(result.gaps.begin(), result.gaps.end(), [line](const BootGap &it) { return it.line == line; });
        if (gap == result.gaps.end())
            gap = result.gaps.insert(gap, {line, base.reference->TextOf(line), 0, what, 0, why,
                                           SelectorsAhead(line, settings.boot, *base.reference)});
        ++gap->runs;
        gap->last = what.cutAtChange;
    }
    std::sort(result.failures.begin(), result.failures.end(),
              [](const SweepFailure &a, const SweepFailure &b) { return a.number < b.number; });
    return result;
}
