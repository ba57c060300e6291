// Runs an update with the real updater on a simulated chip and reports whether the update is clean.

#include "base/HeldSignals.h"
#include "base/Places.h"
#include "base/ScopedFd.h"
#include "base/TempFolder.h"
#include "base/Text.h"
#include "board/BoardFinds.h"
#include "board/BoardRun.h"
#include "board/RunDiff.h"
#include "board/RunRecords.h"
#include "chip/ChipFile.h"
#include "cli/Options.h"
#include "cli/OutputFile.h"
#include "cli/ProgressBar.h"
#include "cli/RunSetup.h"
#include "report/ChipPicture.h"
#include "report/Report.h"
#include "report/ReportDiff.h"
#include "report/ReportFormats.h"
#include "report/ReportPage.h"
#include "report/RunSummary.h"
#include "report/SweepReport.h"
#include "sandbox/UpdateRun.h"
#include "sweep/Sweep.h"
#include "sweep/SweepTable.h"
#include "verdict/FlashRanges.h"
#include "verdict/Verdict.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

enum ExitStatus { kClean = 0, kFindings = 1, kWrongUse = 2 };

constexpr std::size_t kUsualWidth = 80;
constexpr const char *kRoomAdvice = " (TMPDIR names the folder for temporary files)";

/// The files that hold the report, each in the format of its readers.
constexpr struct {
    std::string Options::*path;
    const char *what;
    std::string (*makeText)(const nlohmann::ordered_json &report, const FormatFacts &facts);
} kReports[] = {{&Options::report, "report", ReportText},
                {&Options::sarif, "SARIF file", SarifText},
                {&Options::junit, "JUnit file", JUnitText},
                {&Options::codeQuality, "code quality file", CodeQualityText},
                {&Options::html, "page", HtmlText}};

/// @return the path of the script for tools that read reports at the root of a project: relative to this folder.
std::string RelativeScript(const Options &options) {
    const fs::path script = ScriptPath(options);
    return script.is_absolute() ? script.lexically_proximate(fs::current_path()) : script;
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
/// @param script path of the script, for people
/// @return whether all runs passed.
bool RunSweeps(const std::vector<SweepSettings> &sweeps, const RunSettings &settings, const std::string &start,
               const RerunWords &words, const std::string &script, const HeldSignals &signals,
               nlohmann::ordered_json &described) {
    const Sweeper sweeper(settings, start, signals);
    bool hasPassed = true;
    for (const SweepSettings &sweep : sweeps) {
        SweepResult result;
        {
            ProgressBar bar(std::string("sweep ") + sweep.kind->name);
            result = sweeper.Run(sweep, [&bar](const SweepResult &now) {
                const std::size_t failed = now.failures.size();
                bar.Show(now.done, now.planned, failed == 0 ? "" : std::to_string(failed) + " failed");
            });
        }
        printf("%s", SweepText(result, words, script).c_str());
        fflush(stdout);
        described.push_back(DescribeSweep(result, words));
        hasPassed = hasPassed && result.Passed();
        if (result.isInterrupted)
            break;
    }
    return hasPassed;
}

/// @throws std::invalid_argument with one line when a file holds no report
std::vector<nlohmann::ordered_json> ReadReports(const std::vector<std::string> &paths) {
    std::vector<nlohmann::ordered_json> reports;
    for (const std::string &path : paths) {
        std::ifstream file(path);
        auto report = ParseReport({std::istreambuf_iterator<char>(file), {}});
        if (!report)
            throw std::invalid_argument(path + " is not a report");
        reports.push_back(std::move(*report));
    }
    return reports;
}

/// Compares the reports of two releases and prints the result.
int Diff(const std::vector<std::string> &paths) {
    if (paths.size() != 2)
        throw std::invalid_argument("diff needs two reports: OLD.json NEW.json");
    const std::vector<nlohmann::ordered_json> reports = ReadReports(paths);
    try {
        const ReportDiff diff = CompareReports(reports[0], reports[1]);
        if (fputs(diff.text.c_str(), stdout) < 0 || fflush(stdout) != 0)
            throw std::runtime_error("can't write to standard output");
        return diff.isWorse ? kFindings : kClean;
    } catch (const nlohmann::json::exception &) {
        throw std::invalid_argument(paths[0] + " or " + paths[1] + " is not a whole report");
    }
}

/// Combines the reports of shards and prints the result; "--html FILE" ahead of them also writes a page.
int Merge(std::vector<std::string> paths) {
    std::string html;
    if (paths.size() > 1 && paths[0] == "--html") {
        html = paths[1];
        paths.erase(paths.begin(), paths.begin() + 2);
    }
    CheckOutputs(paths, {html});
    const nlohmann::ordered_json merged = MergeReports(ReadReports(paths));
    if (!html.empty()) {
        FormatFacts facts = {kScriptName, "", FLASHSIM_VERSION};
        facts.update = "merged from " + Count(static_cast<std::int64_t>(paths.size()), "report");
        OutputFile(html, "page").Save(HtmlText(merged, facts));
    }
    fputs(ReportText(merged).c_str(), stdout);
    bool isClean = merged.at("verdict") == "clean";
    for (const nlohmann::ordered_json &sweep : merged.at("sweeps"))
        isClean = isClean && sweep.at("held") == sweep.at("runs") && sweep.at("unbootable").empty();
    return isClean ? kClean : kFindings;
}

/// The files that a rehearsal writes; opened before it begins.
struct Outputs {
    explicit Outputs(const Options &options) : trace(options.trace, "trace"), map(options.map, "map") {
        for (const auto &row : kReports)
            reports.emplace_back(options.*row.path, row.what);
    }

    void SaveReports(const nlohmann::ordered_json &report, const FormatFacts &facts) {
        hasReports = true;
        for (std::size_t i = 0; i < reports.size(); ++i) {
            if (reports[i].IsWanted())
                reports[i].Save(kReports[i].makeText(report, facts));
        }
    }

    OutputFile trace;
    OutputFile map;
    std::vector<OutputFile> reports; ///< as kReports
    bool hasReports = false;         ///< whether their writing has begun
};

Verdict InterruptedVerdict(const char *what) {
    Verdict verdict;
    verdict.findings = {ForRun(FindingId::Interrupted, what)};
    return verdict;
}

/// Writes the reports of a rehearsal that a signal ended where it had none. They show a new chip.
/// @param what the finding
void ReportNothing(const Options &options, const RerunWords &words, const TempFolder &folder, const char *what,
                   Outputs &outputs) {
    const NandGeometry geometry = AskedGeometry(options);
    // Nobody looks into the cells of untouched blocks.
    std::vector<std::uint8_t> pages(geometry.Pages());
    std::vector<std::uint8_t> blocks(geometry.Blocks());
    const NandChip chip(geometry, AskedEcc(options), {nullptr, pages.data(), blocks.data()});
    const std::string path = folder.File("none");
    SimState::Create(path, {});
    const SimState state(path);
    const RunRecord record;
    const Verdict verdict = InterruptedVerdict(what);
    const PageRun run = {record, chip, verdict, RunTimeline("")};
    FormatFacts facts = {RelativeScript(options), words.run, FLASHSIM_VERSION, UpdateName(options.update), &run};
    outputs.SaveReports(MakeReport(record, verdict, chip, state), facts);
}

/// Runs on the simulator what has run on the board, and prints the first difference.
/// @param chip path of a chip that is as the board's was before the run
/// @return whether there is none.
bool IsSameOnSimulator(const RunSettings &settings, const JudgedRun &board, const std::string &chip,
                       const std::string &statePath, const HeldSignals &signals) {
    RunSettings quiet = settings;
    quiet.passOut = quiet.passErr = -1;
    const RunOutcome outcome = RunUpdate(quiet, chip, statePath, signals);
    if (outcome.isInterrupted)
        return false;
    const SimState state(statePath);
    const ChipFile file(chip);
    RunRecord record = RecordOf(quiet, outcome, state);
    record.namesChangers = false; // as the board
    const Verdict verdict = Judge(RunFacts(record, file.Chip()));
    const std::string difference = FirstDifference({record, verdict, file.Chip()}, board);
    printf("board and simulator: %s\n", difference.empty() ? "same" : difference.c_str());
    fflush(stdout);
    return difference.empty();
}

/// Adds what the board's kernel finds after the run to the verdict. A run that was cut leaves environments as it will.
void AddFinds(const BoardFinds &finds, const std::vector<ExpectedFile> &expected, const NandChip &chip,
              const RunRecord &record, Verdict &verdict) {
    std::vector<UpdateLine> setters;
    for (const LineVerdict &line : verdict.lines) {
        if (line.ChangedVariable() && record.cutPlace.empty())
            setters.push_back(line.line);
    }
    std::vector<Finding> findings = JudgeFinds(finds, FindSetRanges(setters, chip, record.devices), expected);
    std::move(findings.begin(), findings.end(), std::back_inserter(verdict.findings));
    std::stable_sort(verdict.findings.begin(), verdict.findings.end(),
                     [](const Finding &a, const Finding &b) { return a.line < b.line; });
}

/// Checks that the board can make the run and the cuts of the sweeps.
/// @throws std::invalid_argument with one line
void CheckBoardRuns(RunSettings settings, const std::vector<SweepSettings> &sweeps, const NandChip &chip) {
    CheckBoard(settings, chip);
    for (const SweepSettings &sweep : sweeps) {
        for (const Extent extent : sweep.torn) {
            settings.sim.cutAtChange = 1;
            settings.sim.cutExtent = extent;
            CheckBoard(settings, chip);
        }
    }
}

int RehearseInto(Outputs &outputs, const Options &options, const RerunWords &words, const TempFolder &folder,
                 const HeldSignals &signals, bool &hasRun);

int Rehearse(const Options &options, const RerunWords &words) {
    std::vector<std::string> inputs = {options.update, options.program};
    if (!options.flash.empty())
        inputs.insert(inputs.end(), {options.flash, options.flash + ".chip"});
    std::vector<std::string> outputs = {options.trace, options.map};
    for (const auto &row : kReports)
        outputs.push_back(options.*row.path);
    CheckOutputs(inputs, outputs);
    const HeldSignals signals; // ahead of the files: whoever sees them can end the run
    Outputs files(options);
    const TempFolder folder;
    bool hasRun = false;
    try {
        return RehearseInto(files, options, words, folder, signals, hasRun);
    } catch (const std::exception &) {
        if (files.hasReports || !signals.HasCome() || !options.WantsVerdict())
            throw;
        const char *what = hasRun ? "a signal ended the rehearsal after its run; the results are lost"
                                  : "a signal ended the preparation of the chip; nothing was run";
        ReportNothing(options, words, folder, what, files);
        return kFindings;
    }
}

/// @param hasRun becomes true when the run has ended, however
int RehearseInto(Outputs &outputs, const Options &options, const RerunWords &words, const TempFolder &folder,
                 const HeldSignals &signals, bool &hasRun) {
    std::vector<SweepSettings> sweeps;
    for (const std::string &kind : options.sweeps)
        sweeps.push_back(MakeSweep(options, kind));
    const bool isSwept = !options.sweeps.empty();
    const std::string path = folder.File("flash");
    const std::string statePath = folder.File("state");
    RunSettings files = ShownFiles(options);
    StageForSandbox(files, folder.File(""));
    const ScopedFd right = PrepareChip(options, files, path, statePath, signals);
    const std::string start = folder.File("start");
    if (isSwept)
        ChipFile::Copy(path, start);
    // A sweep's commands copy the chip that they start from.
    if (isSwept && !options.flash.empty()) {
        const ScopedFd turn = ChipFile::AwaitTurn(options.flash);
        if (!fs::exists(options.flash))
            ChipFile::Keep(path, options.flash);
    }
    ChipFile::AddSums(path);
    const ChipFile chip(path);
    const RunSettings settings = MakeSettings(options, files, chip.Chip().Geometry());
    if (!options.board.empty())
        CheckBoardRuns(settings, sweeps, chip.Chip());
    const std::vector<ExpectedFile> expected =
        options.expect.empty() ? std::vector<ExpectedFile>() : ReadExpectedFiles(options.expect);
    const bool needsTwin = options.isCompared || (isSwept && !options.board.empty());
    const std::string twin = needsTwin ? folder.File("twin") : "";
    BoardFinds finds;
    const RunOutcome outcome = options.board.empty()
                                   ? RunUpdate(settings, path, statePath, signals)
                                   : RunOnBoard(settings, options.board, path, statePath, signals, twin, finds);
    hasRun = true;
    const SimState state(statePath);
    if (!chip.IsWhole())
        throw std::runtime_error("a program of the update cut or lengthened the files of the chip");
    if (!options.flash.empty() && !isSwept && !outcome.isInterrupted) {
        const ScopedFd turn = ChipFile::AwaitTurn(options.flash);
        ChipFile::Keep(path, options.flash);
    }
    RunRecord record = RecordOf(settings, outcome, state);
    record.namesChangers = options.board.empty();
    // A verdict on a part of the requests might miss a fault.
    const bool isJudged = !outcome.isInterrupted && options.WantsVerdict() && !state.TraceOverflowed();
    Verdict verdict;
    if (isJudged)
        verdict = Judge(RunFacts(record, chip.Chip()));
    if (isJudged && !options.board.empty())
        AddFinds(finds, expected, chip.Chip(), record, verdict);
    if (outcome.isInterrupted)
        verdict = InterruptedVerdict("a signal ended the run before its verdict");
    if (!options.isRaw) {
        const RunSummary summary(chip.Chip(), state, outcome);
        printf("\n%s", summary.Text(TerminalWidth(), WantsColour()).c_str());
        if (isJudged)
            printf("%s%s", FindsText(finds).c_str(), VerdictText(verdict, ScriptPath(options)).c_str());
        fflush(stdout);
    }
    // What mounting volumes on the board has changed is part of the start.
    if (isSwept && isJudged && !options.board.empty())
        ChipFile::Copy(twin, start);
    for (SweepSettings &sweep : sweeps)
        sweep.boardFinds = FindsText(finds);
    const bool isSame =
        !options.isCompared || !isJudged ||
        IsSameOnSimulator(settings, {record, verdict, chip.Chip()}, twin, folder.File("twin-state"), signals);
    if (outputs.trace.IsWanted())
        outputs.trace.Save(VisibleLines(state.TraceText()));
    if (state.TraceOverflowed())
        throw std::runtime_error(std::string("no room to record all requests: trace and verdict would be incomplete") +
                                 kRoomAdvice);
    nlohmann::ordered_json results = nlohmann::ordered_json::array();
    const bool isSweepable = isJudged && outcome.status == 0;
    if (isSwept && !isSweepable)
        printf("no sweep: the update must first finish normally\n");
    const bool hasPassed =
        !isSwept || (isSweepable && RunSweeps(sweeps, settings, start, words, ScriptPath(options), signals, results));
    if (options.WantsVerdict()) {
        nlohmann::ordered_json report = MakeReport(record, verdict, chip.Chip(), state);
        report["sweeps"] = std::move(results);
        if (!options.board.empty() && !outcome.isInterrupted)
            report["board"] = DescribeFinds(finds);
        FormatFacts facts = {RelativeScript(options), words.run, FLASHSIM_VERSION, UpdateName(options.update)};
        std::optional<PageRun> run;
        if (!options.html.empty())
            facts.run = &run.emplace(PageRun{record, chip.Chip(), verdict, RunTimeline(state.WholeText())});
        outputs.SaveReports(report, facts);
    }
    if (outputs.map.IsWanted())
        outputs.map.Save(
            DrawChip(UpdateName(options.update), chip.Chip(), WholeFlash(chip.Chip(), record.devices), verdict));
    if (outcome.isOutputLost || fflush(stdout) != 0 || ferror(stdout) != 0)
        throw std::runtime_error("can't write to standard output");
    if (options.isRaw)
        return RunSummary::ShellStatus(outcome);
    return isJudged && verdict.IsClean() && hasPassed && isSame ? kClean : kFindings;
}

/// Rehearses the update after each history of the command line, and lists the verdicts of these upgrade paths.
int RehearseHistories(const CommandLine &line) {
    int worst = kClean;
    std::string verdicts;
    for (std::size_t i = 0; i < line.options.histories.size(); ++i) {
        const CommandLine path = ForHistory(line, i);
        const std::string name =
            "upgrade path " + VisibleText(JoinWords(path.options.after, ", ") + ", " + line.options.update) + ": ";
        printf("\n%s\n", name.c_str());
        fflush(stdout);
        const int status = Rehearse(path.options, path.rerun);
        verdicts += name + (status == kClean ? "clean" : "NOT clean") + "\n";
        worst = std::max(worst, status);
    }
    printf("\n%s", verdicts.c_str());
    if (fflush(stdout) != 0)
        throw std::runtime_error("can't write to standard output");
    return worst;
}

/// Whatever the caller left to this process: with SIGCHLD ignored there is no waiting for a child, and a file that got
/// the number of a closed standard stream would receive output.
void NormalizeProcess() {
    signal(SIGCHLD, SIG_DFL);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // Reading and writing fail as they would on the closed stream.
        if (fcntl(fd, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
    }
}

} // namespace

int main(int argc, char *argv[]) {
    NormalizeProcess();
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        if (!words.empty() && words[0] == kMergeCommand)
            return Merge({words.begin() + 1, words.end()});
        if (!words.empty() && words[0] == kDiffCommand)
            return Diff({words.begin() + 1, words.end()});
        const CommandLine line = ReadCommandLine(words);
        if (line.notice.empty())
            return line.options.histories.empty() ? Rehearse(line.options, line.rerun) : RehearseHistories(line);
        printf("%s", line.notice.c_str());
        return kClean;
    } catch (const std::system_error &failure) {
        const bool isFull = failure.code() == std::errc::no_space_on_device;
        fprintf(stderr, "flashsim: %s%s\n", VisibleLines(failure.what()).c_str(), isFull ? kRoomAdvice : "");
    } catch (const std::exception &failure) {
        fprintf(stderr, "flashsim: %s\n", VisibleLines(failure.what()).c_str());
    }
    return kWrongUse;
}
