// Runs an update with the real updater on a simulated chip and reports whether the update is clean.

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "base/TempFolder.h"
#include "chip/ChipFile.h"
#include "cli/Options.h"
#include "cli/OutputFile.h"
#include "cli/ProgressBar.h"
#include "cli/RunRecords.h"
#include "cli/RunSetup.h"
#include "report/ChipPicture.h"
#include "report/Report.h"
#include "report/RunSummary.h"
#include "report/SweepReport.h"
#include "sandbox/UpdateRun.h"
#include "sweep/Sweep.h"
#include "sweep/SweepTable.h"
#include "verdict/FlashRanges.h"
#include "verdict/Verdict.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

enum ExitStatus { kClean = 0, kFindings = 1, kWrongUse = 2 };

constexpr const char *kScriptName = "flashrig.script";
constexpr std::size_t kUsualWidth = 80;
constexpr const char *kRoomAdvice = " (TMPDIR names the folder for temporary files)";

std::string ReportText(const nlohmann::ordered_json &report) {
    using Json = nlohmann::ordered_json;
    constexpr int kIndent = 2;
    // A script may hold bytes that are not UTF-8.
    return report.dump(kIndent, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string UpdateName(const std::string &path) {
    const fs::path whole = fs::absolute(path).lexically_normal();
    return whole.has_filename() ? whole.filename() : whole.parent_path().filename();
}

bool WantsColour() {
    const char *refusal = getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 && (refusal == nullptr || *refusal == '\0');
}

std::size_t TerminalWidth() {
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

/// Runs the sweeps and prints the result of each as it ends.
/// @return whether all runs passed.
bool RunSweeps(const Options &options, const RunSettings &settings, const std::string &start, const RerunWords &words,
               const HeldSignals &signals, nlohmann::ordered_json &described) {
    const Sweeper sweeper(settings, start, signals);
    bool hasPassed = true;
    for (const std::string &name : options.sweeps) {
        const SweepSettings sweep = {FindSweepKind(name), options.every, options.sets, options.seed,
                                     static_cast<unsigned>(options.jobs)};
        SweepResult result;
        {
            ProgressBar bar("sweep " + name);
            result = sweeper.Run(sweep, [&bar](const SweepResult &now) {
                const std::size_t failed = now.failures.size();
                bar.Show(now.done, now.planned, failed == 0 ? "" : std::to_string(failed) + " failed");
            });
        }
        printf("%s", SweepText(result, words, kScriptName).c_str());
        fflush(stdout);
        described.push_back(DescribeSweep(result, words));
        hasPassed = hasPassed && result.Passed();
        if (result.isInterrupted)
            break;
    }
    return hasPassed;
}

int Rehearse(const Options &options, const RerunWords &words) {
    std::vector<std::string> inputs = {options.update, options.program};
    if (!options.flash.empty())
        inputs.insert(inputs.end(), {options.flash, options.flash + ".chip"});
    CheckOutputs(inputs, {options.trace, options.report, options.map});
    OutputFile traceFile(options.trace, "trace");
    OutputFile reportFile(options.report, "report");
    OutputFile mapFile(options.map, "map");
    const HeldSignals signals;
    const TempFolder folder;
    const bool isSwept = !options.sweeps.empty();
    const std::string path = options.flash.empty() || isSwept ? folder.File("flash") : options.flash;
    const std::string statePath = folder.File("state");
    if (isSwept && !options.flash.empty()) {
        const ScopedFd right = ChipFile::Reserve(options.flash, ChipFile::Usage::Read);
        ChipFile::Copy(options.flash, path);
    }
    const ScopedFd right = PrepareChip(options, path, statePath, signals);
    const std::string start = folder.File("start");
    if (isSwept)
        ChipFile::Copy(path, start);
    const ChipFile chip(path);
    const RunSettings settings = MakeSettings(options, chip.Chip().Geometry());
    const RunOutcome outcome = RunUpdate(settings, path, statePath, signals);
    const SimState state(statePath);
    const RunRecord record = RecordOf(settings, outcome, state);
    // A verdict on a part of the requests might miss a fault.
    const bool isJudged = !outcome.isInterrupted && options.WantsVerdict() && !state.TraceOverflowed();
    const Verdict verdict = isJudged ? Judge(RunFacts(record, chip.Chip())) : Verdict();
    if (!options.isRaw) {
        const RunSummary summary(chip.Chip(), state, outcome);
        printf("\n%s", summary.Text(TerminalWidth(), WantsColour()).c_str());
        if (isJudged)
            printf("%s", VerdictText(verdict, kScriptName).c_str());
        fflush(stdout);
    }
    if (traceFile.IsWanted())
        traceFile.Save(state.TraceText());
    if (state.TraceOverflowed())
        throw std::runtime_error(std::string("no room to record all requests: trace and verdict would be incomplete") +
                                 kRoomAdvice);
    nlohmann::ordered_json sweeps = nlohmann::ordered_json::array();
    const bool isSweepable = isJudged && outcome.status == 0;
    if (isSwept && !isSweepable)
        printf("no sweep: the update must first finish normally\n");
    const bool hasPassed = !isSwept || (isSweepable && RunSweeps(options, settings, start, words, signals, sweeps));
    if (isJudged && reportFile.IsWanted()) {
        nlohmann::ordered_json report = MakeReport(record, verdict, chip.Chip(), state);
        report["sweeps"] = std::move(sweeps);
        reportFile.Save(ReportText(report));
    }
    if (isJudged && mapFile.IsWanted())
        mapFile.Save(
            DrawChip(UpdateName(options.update), chip.Chip(), WholeFlash(chip.Chip(), record.devices), verdict));
    if (options.isRaw)
        return RunSummary::ShellStatus(outcome);
    return isJudged && verdict.IsClean() && hasPassed ? kClean : kFindings;
}

} // namespace

int main(int argc, char *argv[]) {
    try {
        const CommandLine line = ReadCommandLine({argv + 1, argv + argc});
        if (line.notice.empty())
            return Rehearse(line.options, line.rerun);
        printf("%s", line.notice.c_str());
        return kClean;
    } catch (const std::system_error &failure) {
        const bool isFull = failure.code() == std::errc::no_space_on_device;
        fprintf(stderr, "flashsim: %s%s\n", failure.what(), isFull ? kRoomAdvice : "");
    } catch (const std::exception &failure) {
        fprintf(stderr, "flashsim: %s\n", failure.what());
    }
    return kWrongUse;
}
