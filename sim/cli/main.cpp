// Runs an update with the real updater on a simulated chip, and tells what came of it.

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "base/TempFolder.h"
#include "base/Text.h"
#include "base/Workers.h"
#include "chip/ChipFile.h"
#include "cli/ProgressBar.h"
#include "cli/RunRecords.h"
#include "mtd/DeviceText.h"
#include "report/ChipPicture.h"
#include "report/Report.h"
#include "report/RunSummary.h"
#include "report/SweepReport.h"
#include "sandbox/UpdateRun.h"
#include "sweep/Sweep.h"
#include "verdict/FlashRanges.h"
#include "verdict/UsedChip.h"
#include "verdict/Verdict.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <system_error>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

enum ExitStatus { kClean = 0, kFindings = 1, kWrongUse = 2 };

/// Room that a trace may take: that of a gigabyte written page by page.
constexpr std::uint64_t kTraceLimit = std::uint64_t{1} << 30;
constexpr const char *kScriptName = "flashrig.script";
constexpr size_t kUsualWidth = 80;
constexpr size_t kMostDigits = 18;
constexpr std::uint64_t kMostRequests = 1'000'000'000;
/// A sweep of more would have no end, nor its list of runs room.
constexpr std::uint64_t kMostSets = 1'000'000;
constexpr std::uint64_t kMostSeed = 999'999'999'999'999'999;
constexpr std::uint64_t kMostJobs = 1024;
constexpr const char *kUsualChip = "32M,128K,2K,64";
constexpr const char *kUsualEcc = "host";
constexpr const char *kRoomAdvice = " (TMPDIR names the folder for what isn't kept)";

constexpr const char *kExamples = R"(Kinds of request for --fault:
  open lseek read write fsync close MEMGETBADBLOCK MEMERASE64 MEMERASE MEMWRITE MEMWRITEOOB64 MEMREADOOB64

Exit status:
  0 clean, 1 something was found, 2 wrong use; with --raw that of the updater.

Examples:
  flashsim update/
      runs the unpacked update in the folder on a new chip of 32 MiB and shows the chip
  flashsim --chip 256M,128K,2K,64 --bad 40,100-103 --root device/ update.img
      unpacks an image with the device's own device/app/prepare_flashrig.sh, on a chip with five bad blocks
  flashsim --flash unit7.nand update/
      the same chip in every run; its pages and OOB are left in unit7.nand as nanddump --oob lays them
  flashsim --fault MEMWRITE:3=EIO --trace requests.txt update/
      the third raw page program fails; every request is told in requests.txt
  flashsim --cut 100 --flash unit7.nand update/ ; flashsim --flash unit7.nand update/
      the power goes in the middle of the 100th page or block; the update is run again
  flashsim --sweep bad --sweep cut --sweep faults update/
      tells whether the update holds with bad blocks, power cuts and failing requests wherever they may come
  flashsim --root device/ --mount /opt --start 'exec /opt/bin/HeartGuard' update/
      an application runs from a mounted /opt, for an update that stops and unmounts it)";

struct Options {
    std::string chip;
    std::string bad;
    std::string ecc;
    std::string flash;
    bool isUsed = false;
    std::string trace;
    std::string report;
    std::string map;
    std::vector<std::string> faults;
    std::uint64_t cut = 0;
    std::string missingSysfs;
    std::vector<std::string> devices;
    std::string root;
    std::vector<std::string> mounts;
    std::vector<std::string> starts;
    std::string program;
    bool isRaw = false;
    std::vector<std::string> sweeps;
    std::uint64_t every = 1;
    std::uint64_t sets = 100;
    std::uint64_t seed = 1;
    unsigned jobs = CoreCount();
    std::string place;
    std::string update;
    std::vector<std::string> arguments;

    /// @return whether a run is to be judged, and not only to be passed on.
    bool WantsVerdict() const { return !isRaw || !report.empty() || !map.empty(); }
};

/// Finds a file that is built or installed with this program.
std::string Companion(const char *name) {
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path &folder : {here, here / "../lib/flashsim"}) {
        if (fs::exists(folder / name))
            return folder / name;
    }
    throw std::runtime_error(std::string("can't find ") + name + " beside this program");
}

// Checks of option values, as CLI11 wants them: an empty text for a good one, else what is wrong.

CLI::Validator CheckNumber(std::uint64_t least, std::uint64_t most) {
    return CLI::Validator(
        [least, most](const std::string &text) {
            // A number of another base or with a sign would be read as another one.
            const bool isPlain = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
                                 (text[0] != '0' || text.size() == 1) && text.size() <= kMostDigits;
            const std::uint64_t number = isPlain ? std::stoull(text) : 0;
            return isPlain && number >= least && number <= most
                       ? std::string()
                       : text + " is no number from " + std::to_string(least) + " to " + std::to_string(most);
        },
        "");
}

/// @return whether a path is one of some folders or lies in one.
template <size_t N> bool IsWithin(const char *const (&folders)[N], const std::string &path) {
    return std::any_of(std::begin(folders), std::end(folders), [&path](const std::string &folder) {
        return path == folder || path.rfind(folder + "/", 0) == 0;
    });
}

std::string CheckDevicePath(const std::string &path) {
    const fs::path place = path;
    const bool isPlain = place.is_absolute() && place.has_filename() && place == place.lexically_normal();
    return isPlain ? std::string() : path + " is no plain absolute path in the device";
}

std::string CheckMount(const std::string &path) {
    // Below /usr and /lib a device may have mounts, in place of its programs and libraries it has none.
    constexpr const char *kPrograms[] = {"/usr", "/usr/bin", "/usr/lib", "/usr/sbin", "/bin",
                                         "/lib", "/lib64",   "/sbin",    "/dev",      "/sys"};
    constexpr const char *kOwn[] = {"/proc", "/.flashsim"};
    const bool isProgram = std::find(std::begin(kPrograms), std::end(kPrograms), path) != std::end(kPrograms);
    return isProgram || IsWithin(kOwn, path) ? path + " is needed by the device's programs" : CheckDevicePath(path);
}

std::string CheckPlace(const std::string &path) {
    constexpr const char *kSystem[] = {"/usr",  "/bin", "/lib", "/lib32", "/lib64", "/libx32",
                                       "/sbin", "/etc", "/dev", "/sys",   "/proc",  "/.flashsim"};
    return IsWithin(kSystem, path) ? path + " is no place for an update: the device's system is there"
                                   : CheckDevicePath(path);
}

std::string CheckUpdate(const std::string &path) {
    if (!fs::exists(path))
        return path + " doesn't exist";
    return fs::is_directory(path) || fs::is_regular_file(path) ? std::string() : path + " is neither file nor folder";
}

std::string CheckRoot(const std::string &path) {
    if (!fs::is_directory(path))
        return path + " is no folder";
    return fs::equivalent(path, "/") ? path + " is this machine's own root, not a folder with a device's files" : "";
}

std::string CheckSysfsFiles(const std::string &list) {
    for (const std::string &name : SplitList(list)) {
        if (std::find(std::begin(kSysfsFiles), std::end(kSysfsFiles), name) == std::end(kSysfsFiles))
            return "'" + name + "' is no sysfs file of an MTD device";
    }
    return {};
}

std::string CheckPresent(const std::string &path) { return fs::exists(path) ? std::string() : path + " doesn't exist"; }

void Describe(CLI::App &app, Options &options) {
    app.footer(kExamples);
    app.add_option("UPDATE", options.update, "update image, or folder with an unpacked update; it stays as it is")
        ->required()
        ->check(CheckUpdate)
        ->type_name("");
    app.add_option("ARGUMENTS", options.arguments, "further arguments for the updater, such as a notify script")
        ->type_name("");

    // Each option takes one value, so that what follows is never taken for another of it.
    std::string group;
    const auto add = [&](const char *name, const char *type, auto &value, const char *words) {
        return app.add_option(name, value, words)->allow_extra_args(false)->option_text(type)->group(group);
    };
    group = "The chip";
    add("--chip", "SIZE,ERASE,PAGE,OOB", options.chip, "its sizes in bytes, with K, M or G [32M,128K,2K,64]");
    add("--bad", "LIST", options.bad, "bad blocks: numbers and ranges such as 7,64-66");
    add("--ecc", "host|chip", options.ecc, "who keeps it; host: raw writes leave none and later reads suffer [host]");
    add("--flash", "FILE", options.flash, "keep the chip in FILE and FILE.chip; made when missing");

    app.add_flag("--used", options.isUsed, "a new chip of a device in use: full of old data, variables in environments")
        ->group(group);

    group = "The device (--mtd, --mount and --start may be repeated)";
    add("--mtd", "N:NAME[:OFFSET,SIZE]", options.devices, "an MTD device [0:boot 1:kernel 9:opt 12:all]");
    add("--no-sysfs", "LIST", options.missingSysfs, "sysfs files of MTD devices that are missing: erasesize,oobsize")
        ->check(CheckSysfsFiles);
    add("--root", "DIR", options.root, "its own files, laid out as from /; it stays as it is")->check(CheckRoot);
    add("--mount", "PATH", options.mounts, "a mount of its own, with what --root has for it")->check(CheckMount);
    add("--start", "COMMAND", options.starts, "shell command that runs before the update and on");

    group = "The run (--fault may be repeated)";
    add("--as", "PATH", options.place, "where the device shows UPDATE [/tmp/update; an image: /tmp/NAME]")
        ->check(CheckPlace);
    add("--program", "FILE", options.program, "the updater under test [the one of this build]")->check(CheckPresent);
    add("--fault", "KIND[:N]=ERRNO", options.faults, "each request of the kind fails, or the N-th alone");
    add("--cut", "N", options.cut, "the power goes in the middle of the N-th page program or block erase")
        ->check(CheckNumber(1, kMostRequests));
    add("--trace", "FILE", options.trace, "write a line for each request");
    add("--report", "FILE.json", options.report, "write the verdict and what it is drawn from, for programs");
    add("--map", "FILE.svg", options.map, "draw the chip, the script's ranges and the percentages");
    app.add_flag("--raw", options.isRaw, "only the updater's own output and exit status, for scripts")->group(group);

    group = "Sweeps (--sweep may be repeated): many runs from a --used chip or a copy of --flash, without notify calls";
    CLI::Option *sweep = add("--sweep", "bad|cut|faults", options.sweeps,
                             "each block bad; power cut at each change; each request failing")
                             ->check(CLI::IsMember(SweepNames()));
    add("--every", "K", options.every, "only each K-th cut or fault [1]")
        ->check(CheckNumber(1, kMostRequests))
        ->needs(sweep);
    add("--sets", "N", options.sets, "bad: sets of bad blocks, as many as the ranges bear, after single ones [100]")
        ->check(CheckNumber(0, kMostSets))
        ->needs(sweep);
    add("--seed", "S", options.seed, "bad: what the sets are drawn from [1]")
        ->check(CheckNumber(0, kMostSeed))
        ->needs(sweep);
    add("--jobs", "N", options.jobs, "runs at the same time [one a core]")
        ->check(CheckNumber(1, kMostJobs))
        ->needs(sweep);
}

void AddDevice(const SimDevice &device, std::vector<SimDevice> &devices) {
    if (std::any_of(devices.begin(), devices.end(), [&](const SimDevice &it) { return it.number == device.number; }))
        throw std::invalid_argument("two devices have the number " + std::to_string(device.number));
    devices.push_back(device);
}

RunSettings Settings(const Options &options, const NandGeometry &geometry) {
    RunSettings settings;
    settings.update = options.update;
    settings.place = options.place;
    if (options.place.empty())
        settings.place =
            fs::is_directory(options.update) ? "/tmp/update" : "/tmp" / fs::path(options.update).filename();
    settings.arguments = options.arguments;
    settings.root = options.root;
    settings.mounts = options.mounts;
    settings.starts = options.starts;
    settings.missingSysfs = SplitList(options.missingSysfs);
    for (const std::string &device : options.devices)
        AddDevice(ParseDevice(device, geometry), settings.sim.devices);
    if (options.devices.empty())
        settings.sim.devices = DefaultDevices(geometry);
    for (const std::string &fault : options.faults)
        settings.sim.faults.push_back(ReadFault(fault));
    settings.sim.cutAtChange = options.cut;
    // The verdict finds notes and calls in the trace.
    settings.sim.traceLimit = options.WantsVerdict() || !options.trace.empty() ? kTraceLimit : 0;
    // As whoever sits at a device's console sees it; scripts get a pipe.
    settings.isConsole = !options.isRaw;
    settings.passOut = STDOUT_FILENO;
    settings.passErr = STDERR_FILENO;
    settings.program = options.program.empty() ? Companion("flashrig") : options.program;
    settings.preload = Companion("libflashsim.so");
    return settings;
}

/// Makes the chip, or takes the one that is kept. Blocks that are to be bad are so in either case.
/// @return what keeps other runs off it
ScopedFd PrepareChip(const Options &options, const std::string &path, const std::string &statePath,
                     const HeldSignals &signals) {
    const NandGeometry geometry = ParseGeometry(options.chip.empty() ? kUsualChip : options.chip);
    const Ecc ecc = ParseEcc(options.ecc.empty() ? kUsualEcc : options.ecc);
    ScopedFd turn = ChipFile::AwaitTurn(path);
    const bool isNew = !fs::exists(path);
    if (isNew)
        ChipFile::Create(path, geometry, ecc, {});
    else if (options.isUsed)
        throw std::invalid_argument(path + " is there already: --used fills a new chip");
    ScopedFd right = ChipFile::Reserve(path, ChipFile::Usage::Change);
    turn.Close();
    ChipFile file(path);
    NandChip &chip = file.Chip();
    const NandGeometry &its = chip.Geometry();
    const bool isAsked = std::tie(geometry.size, geometry.eraseSize, geometry.pageSize, geometry.oobSize) ==
                         std::tie(its.size, its.eraseSize, its.pageSize, its.oobSize);
    if ((!options.chip.empty() && !isAsked) || (!options.ecc.empty() && ecc != chip.EccMode()))
        throw std::invalid_argument("the chip in " + path + " is another one than asked for");
    if (isNew && (options.isUsed || !options.sweeps.empty())) {
        const RunSettings settings = Settings(options, its);
        const RunOutcome update = ReadUpdate(settings, path, statePath, signals);
        UseUp(chip, settings.sim.devices, ReadUpdateLines(VisibleScript(update.script)));
    }
    for (std::uint32_t block : ParseBlocks(options.bad)) {
        if (block >= its.Blocks())
            throw std::invalid_argument("bad block " + std::to_string(block) + " isn't on the chip, which has " +
                                        std::to_string(its.Blocks()) + " blocks");
        if (!chip.IsBad(block))
            chip.MarkBad(block);
    }
    chip.ForgetMarks();
    return right;
}

/// A file that is asked for by an option, opened before the run: a long one isn't to end without it. It may be none.
class OutputFile {
public:
    OutputFile(std::string path, const char *what) : m_sPath(std::move(path)), m_what(what) {
        if (IsWanted())
            m_file.open(m_sPath, std::ios::binary);
        Check();
    }

    bool IsWanted() const { return !m_sPath.empty(); }

    void Save(const std::string &text) {
        m_file << text << std::flush;
        Check();
    }

private:
    void Check() const {
        if (!m_file)
            throw std::runtime_error(std::string("can't write the ") + m_what + " to " + m_sPath);
    }

    std::string m_sPath;
    const char *m_what;
    std::ofstream m_file;
};

bool IsSameFile(const std::string &one, const std::string &other) {
    std::error_code missing;
    return fs::equivalent(one, other, missing) ||
           fs::weakly_canonical(fs::absolute(one)) == fs::weakly_canonical(fs::absolute(other));
}

/// Checks that what is written takes the place of nothing that the run needs, nor of another output.
void CheckOutputs(const Options &options) {
    std::vector<std::string> taken = {options.update, options.program};
    if (!options.flash.empty())
        taken.insert(taken.end(), {options.flash, options.flash + ".chip"});
    for (const std::string &output : {options.trace, options.report, options.map}) {
        // Pipes and terminals take all.
        if (output.empty() || fs::is_character_file(output) || fs::is_fifo(output))
            continue;
        for (const std::string &other : taken) {
            if (!other.empty() && IsSameFile(output, other))
                throw std::invalid_argument("what is written to " + output + " would take the place of " + other);
        }
        taken.push_back(output);
    }
}

std::string ReportText(const nlohmann::ordered_json &report) {
    using Json = nlohmann::ordered_json;
    constexpr int kIndent = 2;
    // A script's bytes may be no text.
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

size_t TerminalWidth() {
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

/// The options that a sweep's own runs have in common with the command line.
RerunWords RecallOptions(const CLI::App &app, const Options &options) {
    constexpr const char *kOthers[] = {"bad",   "flash", "used", "trace", "report", "map",
                                       "sweep", "every", "sets", "seed",  "jobs"};
    RerunWords words;
    for (const CLI::Option *option : app.get_options()) {
        const std::string name = option->get_single_name();
        const bool isOther = std::find(std::begin(kOthers), std::end(kOthers), name) != std::end(kOthers);
        if (option->get_positional() || isOther)
            continue;
        for (const std::string &value : option->results())
            words.options += " --" + name + " " + ShellWord(value);
    }
    words.update = ShellWord(options.update);
    for (const std::string &argument : options.arguments)
        words.update += " " + ShellWord(argument);
    if (words.update.find(" -") != std::string::npos)
        words.update.insert(0, "-- ");
    if (!options.flash.empty())
        words.flash = ShellWord(options.flash);
    words.bad = ParseBlocks(options.bad);
    return words;
}

/// Runs the sweeps and prints the result of each when it ends.
/// @return whether all of them passed.
bool RunSweeps(const Options &options, const RunSettings &settings, const std::string &start, const RerunWords &words,
               const HeldSignals &signals, nlohmann::ordered_json &described) {
    const Sweeper sweeper(settings, start, signals);
    bool hasPassed = true;
    for (const std::string &name : options.sweeps) {
        const SweepSettings sweep = {FindSweepKind(name), options.every, options.sets, options.seed, options.jobs};
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
    CheckOutputs(options);
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
    const RunSettings settings = Settings(options, chip.Chip().Geometry());
    const RunOutcome outcome = RunUpdate(settings, path, statePath, signals);
    const SimState state(statePath);
    const RunRecord record = RecordOf(settings, outcome, state);
    // A verdict drawn from a part of the requests may miss what is wrong.
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
        throw std::runtime_error(std::string("no room to record all requests: trace and verdict would not be whole") +
                                 kRoomAdvice);
    nlohmann::ordered_json sweeps = nlohmann::ordered_json::array();
    const bool isSweepable = isJudged && outcome.status == 0;
    if (isSwept && !isSweepable)
        printf("no sweep: the update must first finish normally\n");
    const bool held = !isSwept || (isSweepable && RunSweeps(options, settings, start, words, signals, sweeps));
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
    return isJudged && verdict.IsClean() && held ? kClean : kFindings;
}

} // namespace

int main(int argc, char *argv[]) {
    try {
        Options options;
        CLI::App app("Runs an update with the real updater on a simulated NAND chip. Nothing of this machine changes.",
                     "flashsim");
        Describe(app, options);
        try {
            app.parse(argc, argv);
        } catch (const CLI::CallForHelp &help) {
            return app.exit(help);
        }
        if (!options.sweeps.empty() && (options.isRaw || options.cut != 0))
            throw std::invalid_argument("--sweep goes with neither --raw nor --cut");
        for (const char *option : {"every", "sets", "seed"}) {
            const bool isUsed = std::any_of(options.sweeps.begin(), options.sweeps.end(), [&](const std::string &name) {
                return UsesOption(*FindSweepKind(name), option);
            });
            if (app.count(std::string("--") + option) > 0 && !isUsed)
                throw std::invalid_argument(std::string("no sweep here uses --") + option);
        }
        return Rehearse(options, RecallOptions(app, options));
    } catch (const std::system_error &failure) {
        const bool isFull = failure.code() == std::errc::no_space_on_device;
        fprintf(stderr, "flashsim: %s%s\n", failure.what(), isFull ? kRoomAdvice : "");
    } catch (const std::exception &failure) {
        fprintf(stderr, "flashsim: %s\n", failure.what());
    }
    return kWrongUse;
}
