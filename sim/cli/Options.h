#pragma once

#include "base/Workers.h"
#include "report/SweepReport.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a command line asks for, as it was given. Numbers, paths and names of sweeps have been checked; descriptions of
/// chips, blocks, devices and faults have not.
struct Options {
    std::string update;                 ///< image file or folder
    std::vector<std::string> arguments; ///< for the updater, after the update

    // The chip. An empty text stands for the default.
    std::string chip;
    std::string bad;
    std::string ecc;
    std::string flash;
    bool isUsed = false;
    std::vector<std::string> after;
    std::vector<std::string> histories; ///< lists of earlier releases: each is an upgrade path of its own

    // The sandbox.
    std::vector<std::string> devices;
    std::string missingSysfs;
    std::string root;
    std::vector<std::string> mounts;
    std::vector<std::string> starts;

    // The run.
    std::string place;
    std::string program;
    std::string board;
    bool isCompared = false;
    std::string expect;
    std::vector<std::string> faults;
    std::string cut; ///< empty: never
    std::string eraseFails;
    std::string programFails;
    std::uint64_t timeout = 600; ///< seconds
    std::string trace;
    std::string report;
    std::string sarif;
    std::string junit;
    std::string codeQuality;
    std::string html;
    std::string map;
    bool isRaw = false;

    std::vector<std::string> sweeps;
    std::uint64_t every = 1;
    std::uint64_t sets = 100;
    std::uint64_t seed = 1;
    std::string torn = "half,done";
    std::string boots;
    std::vector<std::string> keeps;
    std::vector<std::string> bootEnvironments;
    std::vector<std::string> slots;
    bool isExact = false;
    std::uint64_t sample = 4;
    std::string shard;
    std::uint64_t jobs = CoreCount();

    /// @return whether a run is judged, not only passed on.
    bool WantsVerdict() const { return !isRaw || !(report + sarif + junit + codeQuality + html + map).empty(); }
};

/// First words that are not an update.
struct Command {
    const char *name;
    const char *help;
};
inline constexpr const char *kSweepCommand = "sweep";
inline constexpr const char *kDiffCommand = "diff";
inline constexpr const char *kMergeCommand = "merge";
inline constexpr Command kCommands[] = {{kSweepCommand, "sweeps of the kinds that follow"},
                                        {kDiffCommand, "compare two reports"},
                                        {kMergeCommand, "combine the reports of parts of a sweep"}};

struct CommandLine {
    Options options;
    RerunWords rerun;   ///< what a sweep's rerun command repeats
    std::string notice; ///< text of --help, --version or --completion; when there is one, nothing else has been read
};

/// @return the command line for one of its histories, with files of that history's number when there are several.
CommandLine ForHistory(CommandLine line, std::size_t history);

/// Reads and checks the words after the program's name.
/// @throws std::exception with one line about the first word that is wrong
CommandLine ReadCommandLine(const std::vector<std::string> &words);
