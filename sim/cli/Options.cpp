#include "cli/Options.h"

#include "base/Number.h"
#include "base/Places.h"
#include "base/Text.h"
#include "cli/Completion.h"
#include "mtd/DeviceText.h"
#include "mtd/Requests.h"
#include "mtd/Sysfs.h"
#include "sandbox/UpdateRun.h"
#include "sweep/SweepTable.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <variant>

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMostRequests = 1'000'000'000;
/// More sets would take years, and the list of runs would fill the memory.
constexpr std::uint64_t kMostSets = 1'000'000;
constexpr std::uint64_t kMostSeed = 999'999'999'999'999'999;
constexpr std::uint64_t kMostSeconds = 1'000'000;
constexpr std::uint64_t kMostJobs = 1024;

// Checks of values, as CLI11 wants them: an empty text for a good value, else what is wrong.

template <std::uint64_t kLeast, std::uint64_t kMost> std::string CheckNumber(const std::string &text) {
    const auto number = ParseDecimal(text);
    // CLI11 reads a number that starts with 0 as an octal one.
    const bool isPlain = number && (text[0] != '0' || text.size() == 1);
    return isPlain && *number >= kLeast && *number <= kMost
               ? std::string()
               : text + " is not between " + std::to_string(kLeast) + " and " + std::to_string(kMost);
}

/// @return whether a path is one of some folders or lies in one.
template <std::size_t N> bool IsWithin(const char *const (&folders)[N], const std::string &path) {
    return std::any_of(std::begin(folders), std::end(folders), [&path](const std::string &folder) {
        return path == folder || path.rfind(folder + "/", 0) == 0;
    });
}

std::string CheckSandboxPath(const std::string &path) {
    const fs::path place = path;
    const bool isPlain = place.is_absolute() && place.has_filename() && place == place.lexically_normal();
    return isPlain ? std::string() : path + " is not a plain absolute path";
}

std::string CheckMount(const std::string &path) {
    // A mount below /usr or /lib is fine; one over the programs and libraries would leave none to run.
    constexpr const char *kPrograms[] = {"/usr", "/usr/bin", "/usr/lib", "/usr/sbin", "/bin",
                                         "/lib", "/lib64",   "/sbin",    "/dev",      "/sys"};
    constexpr const char *kOwn[] = {"/proc", kOwnFolder};
    const bool isProgram = std::find(std::begin(kPrograms), std::end(kPrograms), path) != std::end(kPrograms);
    return isProgram || IsWithin(kOwn, path) ? path + " is needed by the sandbox's programs" : CheckSandboxPath(path);
}

std::string CheckPlace(const std::string &path) {
    constexpr const char *kSystem[] = {"/usr",  "/bin", "/lib", "/lib32", "/lib64", "/libx32",
                                       "/sbin", "/etc", "/dev", "/sys",   "/proc",  kOwnFolder};
    return IsWithin(kSystem, path) ? path + " cannot hold the update: system files are there" : CheckSandboxPath(path);
}

std::string CheckUpdate(const std::string &path) {
    if (!fs::exists(path))
        return path + " does not exist";
    return fs::is_directory(path) || fs::is_regular_file(path) ? std::string()
                                                               : path + " is neither a file nor a folder";
}

std::string CheckHistory(const std::string &list) {
    for (const std::string &release : SplitList(list)) {
        std::string problem = CheckUpdate(release);
        if (!problem.empty())
            return problem;
    }
    return list.empty() ? "a history names no release" : "";
}

std::string CheckRoot(const std::string &path) {
    if (!fs::is_directory(path))
        return path + " is not a folder";
    return fs::equivalent(path, "/") ? path + " is this machine's own root, not a folder with a device's files" : "";
}

std::string CheckSysfsFiles(const std::string &list) {
    for (const std::string &name : SplitList(list)) {
        if (std::find(std::begin(kSysfsFiles), std::end(kSysfsFiles), name) == std::end(kSysfsFiles))
            return "'" + name + "' is not a sysfs file of an MTD device";
    }
    return {};
}

std::string CheckPresent(const std::string &path) {
    return fs::exists(path) ? std::string() : path + " does not exist";
}

std::string CheckSweep(const std::string &name) {
    static const CLI::IsMember isSweep(SweepNames());
    return isSweep(name);
}

std::vector<std::string> SysfsNames() { return {std::begin(kSysfsFiles), std::end(kSysfsFiles)}; }

/// @return each kind as a fault begins: "read=".
std::vector<std::string> FaultWords() {
    std::vector<std::string> words;
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind)
        words.push_back(std::string(RequestName(static_cast<RequestKind>(kind))) + "=");
    return words;
}

/// Which commands that repeat runs repeat an option. The command for one case of a sweep makes the chip by itself; none
/// writes reports.
enum class Rerun { Omitted, OfTheRun, Repeated };

using Field = std::variant<bool Options::*, std::uint64_t Options::*, std::string Options::*,
                           std::vector<std::string> Options::*>; ///< a list: the option may be repeated

struct OptionRow {
    const char *group;
    const char *name;
    const char *value; ///< what --help calls the value; empty for a flag, which has none
    Field field;
    Rerun rerun;
    const char *help;
    std::string (*check)(const std::string &text) = nullptr;
    std::vector<std::string> (*words)() = nullptr; ///< known values, for shells; "host|chip" as a value needs none
};

constexpr const char *kCompletion = "--completion";
constexpr const char *kSweep = "--sweep";
constexpr const char *kExact = "--exact";
constexpr const char *kSample = "--sample";
constexpr const char *kShard = "--shard";
constexpr const char *kJobs = "--jobs";
/// The sweep that the board makes, and options that this goes without.
constexpr const char *kBoardSweep = "cut";
constexpr const char *kNotOnBoard[] = {"--every", "--boots", kExact};
/// Options of every kind of sweep.
constexpr const char *kCommon[] = {kSweep, kExact, kSample, kShard, kJobs};

constexpr const char *kChip = "The chip";
constexpr const char *kSandbox = "The sandbox (--mtd, --mount and --start may be repeated)";
constexpr const char *kRun = "The run (--fault may be repeated)";
constexpr const char *kSweeps =
    "Sweeps (--sweep may be repeated): many runs from a --used chip or a copy of --flash, without notify calls";

constexpr const char *kBoots = "Whether the device boots after each cut of a sweep (all but --boots may be repeated)";

/// Help texts are written for a terminal of this width.
constexpr std::size_t kColumns = 110;

constexpr OptionRow kOptions[] = {
    {kChip, "--chip", "SIZE,ERASE,PAGE,OOB", &Options::chip, Rerun::Repeated,
     "sizes in bytes, with K, M or G [32M,128K,2K,64]"},
    {kChip, "--bad", "LIST", &Options::bad, Rerun::OfTheRun, "bad blocks: numbers and ranges such as 7,64-66"},
    {kChip, "--ecc", "host|chip", &Options::ecc, Rerun::Repeated,
     "who computes the ECC; host: raw writes leave none, so later reads see bit errors [host]"},
    {kChip, "--flash", "FILE", &Options::flash, Rerun::OfTheRun,
     "keep the chip in FILE and FILE.chip; created if missing"},
    {kChip, "--used", "", &Options::isUsed, Rerun::Omitted,
     "a new chip like that of a device in use: full of old data, variables in environments"},

    {kChip, "--after", "UPDATE", &Options::after, Rerun::Repeated,
     "an earlier release that has run on a new chip; may be repeated", CheckUpdate},
    {kChip, "--history", "UPDATE,...", &Options::histories, Rerun::Omitted,
     "earlier releases of an upgrade path, as several --after; may be repeated: one verdict for each path",
     CheckHistory},
    {kSandbox, "--mtd", "N:NAME[:OFFSET,SIZE]", &Options::devices, Rerun::Repeated,
     "an MTD device [0:boot 1:kernel 9:opt 12:all]"},
    {kSandbox, "--no-sysfs", "LIST", &Options::missingSysfs, Rerun::Repeated,
     "sysfs files that MTD devices lack: erasesize,oobsize", CheckSysfsFiles, SysfsNames},
    {kSandbox, "--root", "DIR", &Options::root, Rerun::Repeated,
     "files of the device, laid out as from /; never modified", CheckRoot},
    {kSandbox, "--mount", "PATH", &Options::mounts, Rerun::Repeated,
     "a separate mount, with the files that --root has for the path", CheckMount},
    {kSandbox, "--start", "COMMAND", &Options::starts, Rerun::Repeated,
     "shell command that starts before the update and keeps running"},

    {kRun, "--as", "PATH", &Options::place, Rerun::Repeated,
     "where the sandbox shows UPDATE [/tmp/update; an image: /tmp/NAME]", CheckPlace},
    {kRun, "--program", "FILE", &Options::program, Rerun::Repeated, "the updater under test [the one of this build]",
     CheckPresent},
    {kRun, "--board", "COMMAND", &Options::board, Rerun::Repeated,
     "run the update on the virtual ARM board that COMMAND boots: board/machine"},
    {kRun, "--compare", "", &Options::isCompared, Rerun::Omitted,
     "with --board: also run the update on the simulator, and show the first difference"},
    {kRun, "--expect", "FILE", &Options::expect, Rerun::Repeated,
     "with --board: files of UBI volumes after the update, as sha256sum lists them: SUM  VOLUME/PATH", CheckPresent},
    {kRun, "--fault", "KIND[:N]=ERRNO", &Options::faults, Rerun::Repeated,
     "each request of the kind fails, or only the N-th", nullptr, FaultWords},
    {kRun, "--cut", "N[:STATE]", &Options::cut, Rerun::OfTheRun,
     "power is lost at the N-th page program or block erase, which gets as far as STATE: none, half, most, bare "
     "(without OOB), done or unstable [half]"},
    {kRun, "--erase-fails", "LIST", &Options::eraseFails, Rerun::Repeated, "worn-out blocks: erases fail"},
    {kRun, "--program-fails", "LIST", &Options::programFails, Rerun::Repeated, "worn-out blocks: page programs fail"},
    {kRun, "--timeout", "SECONDS", &Options::timeout, Rerun::Repeated, "kill an update that takes longer [600]",
     CheckNumber<1, kMostSeconds>},
    {kRun, "--trace", "FILE", &Options::trace, Rerun::Omitted, "write a line for each request"},
    {kRun, "--report", "FILE.json", &Options::report, Rerun::Omitted, "write the verdict and its evidence, as JSON"},
    {kRun, "--sarif", "FILE", &Options::sarif, Rerun::Omitted, "write findings for code scanning, as SARIF 2.1.0"},
    {kRun, "--junit", "FILE.xml", &Options::junit, Rerun::Omitted,
     "write script lines and sweeps as test cases, for GitLab and Jenkins"},
    {kRun, "--codequality", "FILE.json", &Options::codeQuality, Rerun::Omitted,
     "write findings for GitLab's merge requests"},
    {kRun, "--html", "FILE.html", &Options::html, Rerun::Omitted,
     "write a page for a browser: verdict, script, chip and output at any change, sweeps"},
    {kRun, "--map", "FILE.svg", &Options::map, Rerun::Omitted,
     "draw the chip, the script's ranges and the percentages"},
    {kRun, "--raw", "", &Options::isRaw, Rerun::Omitted, "only the updater's own output and exit status, for scripts"},

    {kSweeps, kSweep, "KIND", &Options::sweeps, Rerun::Omitted, "", CheckSweep,
     SweepNames}, // help: the table of sweeps
    {kSweeps, "--every", "K", &Options::every, Rerun::Omitted, "only every K-th cut or fault [1]",
     CheckNumber<1, kMostRequests>},
    {kSweeps, "--sets", "N", &Options::sets, Rerun::Omitted,
     "bad: sets of bad blocks, as many as the ranges tolerate, after single ones [100]", CheckNumber<0, kMostSets>},
    {kSweeps, "--seed", "S", &Options::seed, Rerun::Omitted, "bad: random seed [1]", CheckNumber<0, kMostSeed>},
    {kSweeps, "--torn", "LIST", &Options::torn, Rerun::Omitted,
     "cut: states that each cut leaves, as --cut names them [half,done]"},
    {kBoots, "--boots", "COMMAND", &Options::boots, Rerun::Omitted,
     "shell command in the sandbox that exits with 0 when the device boots"},
    {kBoots, "--keep", "OFFSET,SIZE|LINE", &Options::keeps, Rerun::Omitted,
     "range, or that of a script line, that must be as before or as after the update"},
    {kBoots, "--boot-env", "OFFSET,SIZE", &Options::bootEnvironments, Rerun::Omitted,
     "environment of the boot loader, which uses the first valid one"},
    {kBoots, "--slot", "NAME=VALUE:OFFSET,SIZE", &Options::slots, Rerun::Omitted,
     "range to keep while the environment has this variable"},
    {kSweeps, kExact, "", &Options::isExact, Rerun::Omitted,
     "make each run for real; else recorded runs are replayed where the result is the same"},
    {kSweeps, kSample, "N", &Options::sample, Rerun::Omitted,
     "replayed runs that are also made for real and compared; with --board: cuts [4]", CheckNumber<0, kMostSets>},
    {kSweeps, kShard, "I/N", &Options::shard, Rerun::Omitted, "make only the I-th of N parts of all runs"},
    {kSweeps, kJobs, "N", &Options::jobs, Rerun::Omitted, "runs in parallel [one per core]", CheckNumber<1, kMostJobs>},
};

constexpr const char *kFooter = R"(
Exit status:
  0 clean, 1 something was found, 2 wrong use; with --raw that of the updater.

Examples:
  flashsim update/
      runs the unpacked update in the folder on a new chip of 32 MiB and shows the chip
  flashsim --chip 256M,128K,2K,64 --bad 40,100-103 --root device/ update.img
      unpacks an image with the device's own device/app/prepare_flashrig.sh, on a chip with five bad blocks
  flashsim --flash unit7.nand update/
      the same chip in every run; its pages and OOB are left in unit7.nand in the layout of nanddump --oob
  flashsim --fault MEMWRITE:3=EIO --trace requests.txt update/
      the third raw page program fails; requests.txt lists every request
  flashsim --cut 100 --flash unit7.nand update/ ; flashsim --flash unit7.nand update/
      power is lost in the middle of the 100th page program or block erase; the update is run again
  flashsim --sweep bad --sweep cut --sweep faults update/
      checks that the update survives bad blocks, power cuts and failing requests at every place
  flashsim diff old.json new.json
      compares two files of --report: what is new, worse, fixed or better; exit status 1 for new or worse
  flashsim --root device/ --mount /opt --start 'exec /opt/bin/HeartGuard' update/
      an application runs from a mounted /opt, for an update that stops and unmounts it)";

/// @return one line for each kind of sweep.
std::string SweepHelp() {
    std::string help;
    for (const SweepKind &kind : kSweepKinds)
        help += std::string(help.empty() ? "" : "\n") + kind.name + ": " + kind.summary;
    return help;
}

std::string Footer() {
    std::string kinds = "Kinds of request for --fault:";
    std::size_t column = kColumns;
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind) {
        const std::string name = RequestName(static_cast<RequestKind>(kind));
        const bool fits = column + name.size() < kColumns;
        kinds += (fits ? " " : "\n  ") + name;
        column = (fits ? column : 1) + 1 + name.size();
    }
    return kinds + "\n" + kFooter;
}

struct CallForCompletion {
    std::string shell;
};

void Declare(CLI::App &app, Options &options) {
    app.footer(Footer());
    app.set_help_flag("-h,--help", "print this help and exit");
    app.set_version_flag("--version", "flashsim " FLASHSIM_VERSION, "print the version and exit");
    app.add_option_function<std::string>(
           kCompletion, [](const std::string &shell) { throw CallForCompletion{shell}; },
           "print a script that completes flashsim in the shell, and exit")
        ->option_text(JoinWords(CompletionShells(), "|"))
        ->check(CLI::IsMember(CompletionShells()))
        ->trigger_on_parse();
    app.add_option("UPDATE", options.update, "update image, or folder with an unpacked update; never modified")
        ->required()
        ->check(CheckUpdate)
        ->type_name("");
    app.add_option("ARGUMENTS", options.arguments,
                   "further arguments for the updater; any argument disables the notify script")
        ->type_name("");
    app.set_config("--device", "", "TOML file with options of a device; the command line overrides the file")
        ->option_text("FILE")
        ->group(kSandbox);
    for (const OptionRow &row : kOptions) {
        CLI::Option *option = std::visit(
            [&](auto field) {
                auto &value = options.*field;
                if constexpr (std::is_same_v<decltype(field), bool Options::*>)
                    return app.add_flag(row.name, value, row.help);
                else
                    // One value each, so that the word after it is never taken for another.
                    return app.add_option(row.name, value, row.help)->allow_extra_args(false)->option_text(row.value);
            },
            row.field);
        option->group(row.group);
        if (row.check != nullptr)
            option->check(row.check);
        if (row.group != kSweeps)
            continue;
        if (row.name == kSweep)
            option->description(SweepHelp());
        else
            option->needs(kSweep);
    }
}

/// Checks what no single option shows.
void CheckTogether(const CLI::App &app, const Options &options) {
    if (!options.sweeps.empty() && (options.isRaw || !options.cut.empty()))
        throw std::invalid_argument("--sweep goes with neither --raw nor --cut");
    if (!options.histories.empty() && (options.isRaw || !options.after.empty() || !options.flash.empty()))
        throw std::invalid_argument("--history begins on a new chip: it goes with neither --after, --flash nor --raw");
    if (options.isCompared && (options.board.empty() || options.isRaw))
        throw std::invalid_argument("--compare needs --board, and goes without --raw");
    if (!options.expect.empty() && (options.board.empty() || options.isRaw))
        throw std::invalid_argument("--expect needs --board, and goes without --raw");
    if (!options.board.empty() && std::any_of(options.sweeps.begin(), options.sweeps.end(),
                                              [](const std::string &sweep) { return sweep != kBoardSweep; }))
        throw std::invalid_argument("the board makes no other sweep than cut");
    if (!options.sweeps.empty() && !options.board.empty() && options.sample == 0)
        throw std::invalid_argument("sweep cut on the board needs a --sample of 1 or more");
    for (const char *name : kNotOnBoard) {
        if (!options.sweeps.empty() && !options.board.empty() && app.count(name) != 0)
            throw std::invalid_argument(std::string("sweep cut on the board goes without ") + name);
    }
    for (const OptionRow &row : kOptions) {
        const bool isCommon = std::find(std::begin(kCommon), std::end(kCommon), row.name) != std::end(kCommon);
        if (row.group != kSweeps || isCommon || app.count(row.name) == 0)
            continue;
        const std::string name = std::string(row.name).substr(std::strlen("--"));
        if (std::none_of(options.sweeps.begin(), options.sweeps.end(),
                         [&](const std::string &sweep) { return UsesOption(*FindSweepKind(sweep), name); }))
            throw std::invalid_argument("no sweep here uses --" + name);
    }
}

RerunWords FindRerunWords(const CLI::App &app, const Options &options) {
    RerunWords words;
    std::string ofTheRun;
    for (const OptionRow &row : kOptions) {
        if (row.rerun == Rerun::Omitted)
            continue;
        std::string &list = row.rerun == Rerun::Repeated ? words.options : ofTheRun;
        for (const std::string &value : app.get_option(row.name)->results())
            list += std::string(" ") + row.name + " " + ShellWord(value);
    }
    words.update = ShellWord(options.update);
    for (const std::string &argument : options.arguments)
        words.update += " " + ShellWord(argument);
    if (words.update.find(" -") != std::string::npos)
        words.update.insert(0, "-- ");
    if (!options.flash.empty())
        words.flash = ShellWord(options.flash);
    words.bad = ParseBlocks(options.bad);
    // With sweeps, a new chip is a used one; a kept chip exists by now.
    const bool isUsed = options.flash.empty() && (options.isUsed || !options.sweeps.empty());
    words.run = "flashsim" + words.options + ofTheRun + (isUsed ? " --used " : " ") + words.update;
    return words;
}

/// @return what shells complete, from the options themselves.
CompletedWords WordsToComplete(const CLI::App &app) {
    CompletedWords words;
    for (const Command &command : kCommands)
        words.commands.emplace_back(command.name, command.help);
    for (const CLI::Option *option : app.get_options()) {
        if (!option->nonpositional())
            continue;
        CompletedOption completed;
        for (const std::string &name : option->get_snames())
            completed.names.push_back("-" + name);
        for (const std::string &name : option->get_lnames())
            completed.names.push_back("--" + name);
        completed.value = option->get_option_text();
        completed.help = option->get_description();
        completed.isRepeatable = option->get_items_expected_max() > 1;
        const bool isChoice = completed.value.find('|') != std::string::npos &&
                              std::all_of(completed.value.begin(), completed.value.end(),
                                          [](unsigned char c) { return c == '|' || std::islower(c) != 0; });
        if (isChoice) {
            std::string list = completed.value;
            std::replace(list.begin(), list.end(), '|', ',');
            completed.words = SplitList(list);
        }
        for (const OptionRow &row : kOptions) {
            if (row.words != nullptr && completed.names.back() == row.name)
                completed.words = row.words();
        }
        words.options.push_back(std::move(completed));
    }
    return words;
}

/// Turns "sweep KIND... WORDS..." into "--sweep KIND... WORDS...".
std::vector<std::string> ExpandSweep(const std::vector<std::string> &words) {
    if (words.empty() || words[0] != kSweepCommand)
        return words;
    std::vector<std::string> expanded;
    std::size_t next = 1;
    for (; next < words.size() && FindSweepKind(words[next]) != nullptr; ++next)
        expanded.insert(expanded.end(), {kSweep, words[next]});
    if (expanded.empty())
        throw std::invalid_argument("sweep needs a kind: " + JoinWords(SweepNames(), ", "));
    expanded.insert(expanded.end(), words.begin() + static_cast<std::ptrdiff_t>(next), words.end());
    return expanded;
}

} // namespace

CommandLine ForHistory(CommandLine line, std::size_t history) {
    Options &options = line.options;
    options.after = SplitList(options.histories[history]);
    std::string words;
    for (const std::string &release : options.after)
        words += " --after " + ShellWord(release);
    line.rerun.options += words;
    line.rerun.run.insert(std::strlen("flashsim"), words);
    std::string *const files[] = {&options.trace, &options.report,      &options.sarif, &options.junit,
                                  &options.map,   &options.codeQuality, &options.html};
    for (std::string *file : files) {
        fs::path path = *file;
        if (file->empty() || options.histories.size() == 1)
            continue;
        path.replace_extension("." + std::to_string(history + 1) + path.extension().string());
        *file = path;
    }
    return line;
}

CommandLine ReadCommandLine(const std::vector<std::string> &given) {
    const std::vector<std::string> words = ExpandSweep(given);
    CommandLine line;
    CLI::App app("Runs an update with the real updater on a simulated NAND chip. Nothing on this machine changes.",
                 "flashsim");
    Declare(app, line.options);
    try {
        // CLI11 takes words from the end.
        app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    } catch (const CLI::CallForHelp &) {
        line.notice = app.help();
        return line;
    } catch (const CallForCompletion &call) {
        line.notice = CompletionScript(call.shell, WordsToComplete(app));
        return line;
    } catch (const CLI::CallForVersion &version) {
        line.notice = version.what() + std::string("\n");
        return line;
    }
    CheckTogether(app, line.options);
    line.rerun = FindRerunWords(app, line.options);
    return line;
}
