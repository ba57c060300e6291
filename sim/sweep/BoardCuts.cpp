#include "sweep/BoardCuts.h"

#include "base/Text.h"
#include "board/BoardRun.h"
#include "board/RunDiff.h"
#include "board/RunRecords.h"
#include "sweep/BootCheck.h"
#include "verdict/LineFinder.h"
#include "verdict/Verdict.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>

namespace {

/// @return the numbers of changes, by the line that made them; 0 for those of no line.
std::map<std::size_t, std::vector<std::uint64_t>> ChangesByLine(const ReferenceRun &reference) {
    std::map<std::size_t, std::vector<std::uint64_t>> changes;
    std::vector<RunStep> steps;
    ReadSteps(reference.record.data(), reference.record.size(), reference.chip.Geometry(), steps);
    LineFinder finder(reference.chip, reference.devices, reference.lines, reference.story);
    std::uint64_t number = 0;
    for (const RunStep &step : steps) {
        if (!step.IsChange())
            continue;
        const AccessKind kind = step.kind == RunStep::Kind::Erase ? AccessKind::Erase : AccessKind::Program;
        changes[finder.Change({kind, step.isByProgram, step.place})].push_back(++number);
    }
    // A record that is not whole.
    if (number != reference.changes) {
        changes.clear();
        for (std::uint64_t change = 1; change <= reference.changes; ++change)
            changes[0].push_back(change);
    }
    return changes;
}

/// @return places from 0 to `count` - 1, each once: both ends, then the middles of what lies between places before.
std::vector<std::size_t> SpreadPlaces(std::size_t count) {
    std::vector<std::size_t> places;
    std::set<std::size_t> known;
    const auto add = [&](std::size_t place) {
        if (place < count && known.insert(place).second)
            places.push_back(place);
    };
    add(0);
    if (count > 0)
        add(count - 1);
    for (std::size_t step = count; step > 1; step = (step + 1) / 2) {
        for (std::size_t place = step / 2; place < count; place += step)
            add(place);
    }
    for (std::size_t place = 0; place < count; ++place)
        add(place);
    return places;
}

std::vector<std::string> LinesOf(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

/// @return the first line of `found` or of `wanted` that the other lacks; empty when they are equal.
std::string FirstOdd(const std::string &found, const std::string &wanted) {
    const std::vector<std::string> its = LinesOf(found), theirs = LinesOf(wanted);
    const auto odd = std::mismatch(its.begin(), its.end(), theirs.begin(), theirs.end());
    if (odd.first != its.end())
        return *odd.first;
    return odd.second != theirs.end() ? "nothing of '" + *odd.second + "'" : "";
}

/// What is reported of a cut: one line each.
std::vector<std::string> Sights(const BoardFinds &finds, const char *when) {
    std::vector<std::string> sights;
    for (const BoardFinds::Environment &environment : finds.environments)
        sights.push_back(std::string(when) + ": environment at " + Hex(environment.offset) +
                         (environment.refusal.empty() ? " is valid" : " is not valid"));
    for (const BoardFinds::Partition &partition : finds.partitions)
        sights.push_back(std::string(when) + ": UBI " + (partition.refusal.empty() ? "attaches" : "does not attach") +
                         " on mtd" + std::to_string(partition.device));
    return sights;
}

/// The same run on board and simulator.
struct RunOfBoth {
    RunOutcome onBoard;
    BoardFinds finds;
    std::string difference; ///< empty for none
    bool wasCut = false;    ///< on the board
};

/// Runs the update on the chip at `path`, and on a copy of it on the simulator.
RunOfBoth RunBoth(const RunSettings &settings, const BoardBench &bench, const std::string &path) {
    RunOfBoth both;
    const std::string twin = path + ".twin";
    const auto judged = [&](const RunOutcome &outcome, const SimState &state, const NandChip &chip, RunRecord &record) {
        if (outcome.isInterrupted)
            throw std::runtime_error("a worker process was interrupted");
        record = RecordOf(settings, outcome, state);
        record.namesChangers = false; // the board does not
        return Judge(RunFacts(record, chip));
    };
    both.onBoard = RunOnBoard(settings, bench.settings.board, path, path + ".state", bench.signals, twin, both.finds);
    const SimState state(path + ".state");
    const ChipFile chip(path);
    RunRecord record;
    const Verdict verdict = judged(both.onBoard, state, chip.Chip(), record);
    const RunOutcome outcome = RunUpdate(settings, twin, twin + ".state", bench.signals);
    const SimState twinState(twin + ".state");
    if (state.TraceOverflowed() || twinState.TraceOverflowed())
        throw std::runtime_error("the trace of a run on the board is too long to compare");
    both.wasCut = state.PowerWasCut();
    const ChipFile twinChip(twin);
    RunRecord twinRecord;
    const Verdict twinVerdict = judged(outcome, twinState, twinChip.Chip(), twinRecord);
    both.difference = FirstDifference({twinRecord, twinVerdict, twinChip.Chip()}, {record, verdict, chip.Chip()});
    return both;
}

} // namespace

SweepPlan PlanBoardCuts(const ReferenceRun &reference, const SweepSettings &settings) {
    SweepPlan plan;
    plan.places = static_cast<std::size_t>(reference.changes);
    std::vector<std::vector<std::uint64_t>> lines; // changes of each line, in the order in which they are taken
    std::size_t most = 0;
    for (const auto &[line, changes] : ChangesByLine(reference)) {
        lines.emplace_back();
        for (const std::size_t place : SpreadPlaces(changes.size()))
            lines.back().push_back(changes[place]);
        most = std::max(most, changes.size());
    }
    std::vector<std::uint64_t> cuts;
    // Of more lines than cuts, some from everywhere.
    const std::vector<std::size_t> order = SpreadPlaces(lines.size());
    for (std::size_t round = 0; round < most; ++round) {
        for (const std::size_t line : order) {
            if (round < lines[line].size() && cuts.size() < settings.sample)
                cuts.push_back(lines[line][round]);
        }
    }
    std::sort(cuts.begin(), cuts.end());
    for (std::size_t i = 0; i < cuts.size(); ++i) {
        SweepCase what;
        what.cutAtChange = cuts[i];
        what.cutExtent = settings.torn[i % settings.torn.size()];
        plan.cases.push_back(what);
    }
    return plan;
}

CaseResult TryBoardCut(const SweepCase &what, const BoardBench &bench) {
    const std::string path = bench.path, torn = path + ".torn";
    RunSettings run = bench.run;
    run.sim.traceLimit = kTraceLimit;
    run.sim.cutAtChange = what.cutAtChange;
    run.sim.cutExtent = what.cutExtent;
    const SweepJudge &judge = bench.judge;

    ChipFile::Copy(bench.startPath, path);
    const RunOfBoth first = RunBoth(run, bench, path);
    CaseResult result;
    const std::size_t known = judge.Reference().LineOfChange(what.cutAtChange);
    const std::size_t line = known != 0 ? known : judge.LineInProgress(first.onBoard);
    ChipFile chip(path);
    result.unsealedLine = judge.HasUnsealed(chip.Chip()) ? line : 0;
    result.noBoot = BootCheck(bench.settings.boot, judge.Reference(), bench.start.Chip(), chip.Chip()).Problem();
    result.sights = Sights(first.finds, "after the cut");
    if (!first.difference.empty()) {
        result.complaint = SweepComplaint{line, "board and simulator differ after the cut: " + first.difference};
        return result;
    }
    if (!first.wasCut) {
        result.complaint = SweepComplaint{line, "the run ended before the change at which power was to be lost"};
        return result;
    }

    // The second run is a start of the device, with an account of its own.
    chip.Chip().ScanForBadBlocks();
    ChipFile::Copy(path, torn);
    chip.Chip().ForgetMarks();
    run.sim.cutAtChange = 0;
    const RunOfBoth second = RunBoth(run, bench, path);
    const std::vector<std::string> sights = Sights(second.finds, "after the second run");
    result.sights.insert(result.sights.end(), sights.begin(), sights.end());
    const ChipFile before(torn);
    for (std::uint32_t block = 0; block < chip.Chip().Geometry().Blocks(); ++block) {
        if (before.Chip().IsTouched(block) && !chip.Chip().IsTouched(block))
            chip.Chip().CopyBlock(before.Chip(), block);
    }
    if (!second.difference.empty())
        result.complaint =
            SweepComplaint{line, "board and simulator differ in the run after the cut: " + second.difference, "", true};
    else
        result.complaint = judge.JudgeCut(chip.Chip(), line, second.onBoard);
    const std::string odd = FirstOdd(FindsText(second.finds), bench.settings.boardFinds);
    if (!result.complaint && !odd.empty())
        result.complaint = SweepComplaint{
            line, "after the second run, and not after an uncut one, the board's kernel finds " + odd, "", true};
    return result;
}
