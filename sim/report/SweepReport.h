#pragma once

#include "sweep/Sweep.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

/// The command line of a rehearsal, as a sweep's own runs need it. All texts are quoted for a shell.
struct RerunWords {
    std::string options;            ///< without those of sweeps, kept chips, bad blocks and reports
    std::string update;             ///< the update and the updater's arguments
    std::string flash;              ///< files of the chip that runs start from; empty for a new one in use
    std::vector<std::uint32_t> bad; ///< bad blocks that all runs have
    std::string run = {};           ///< the whole command that repeats the run before the sweeps
};

/// @return the shell command that repeats one run of a sweep.
std::string RerunCommand(const RerunWords &words, const SweepFailure &failure);

/// The result of a sweep, for people: a line, and for each kind of failure the number of runs and the command that
/// repeats the first of them.
/// @param scriptName is printed before the numbers of lines
std::string SweepText(const SweepResult &result, const RerunWords &words, const std::string &scriptName);

/// The result of a sweep, for programs:
///
///   kind         the name of the sweep
///   every        10 when only each tenth place was tried; null for sweeps without that option
///   seed         random seed; null for sweeps without one
///   runs         number of planned runs
///   done, held   number of runs made, fewer when interrupted, and of runs that passed
///   interrupted  true or false
///   bootChecked  whether there were rules to check after each power cut whether the device boots
///   failures     by number, each: run: number from 1; badBlocks: numbers; cut: number of the change, or null; fault:
///   as
///                --fault takes it, or null; line: number in the script, or null; text of that line; happens and
///                change: for people; command: for a shell, repeats the run
///   unsealed     lines whose cuts leave an environment with an invalid CRC until the second run, each: line, text,
///                runs: number of such cuts
///   unbootable   lines with power cuts after which the device does not boot, each: line, text; runs: number of such
///   cuts;
///                first, torn: the first of them; last: change of the last; why and change: for people; selectedBy:
///                numbers of earlier lines that select the slot which the line writes; command: for a shell, makes the
///                chip
///   board        of a sweep on the board: what its kernel found after cuts and second runs, each: found, runs
///   shard        "2/4" when only that part of the runs was made; else the key is missing
nlohmann::ordered_json DescribeSweep(const SweepResult &result, const RerunWords &words);

/// @return what power cuts at changes from `first` to `last` lead to, for people.
std::string BootGapText(std::uint64_t first, std::uint64_t last, const std::string &why);

/// What to change in an update with power cuts after which the device does not boot.
constexpr const char *kUnbootableAdvice = "keep one bootable system whole until the other one is complete";

/// Combines the reports of all shards into the report that one run would have given.
/// @throws std::invalid_argument with one line when they are not all shards of the same sweeps
nlohmann::ordered_json MergeReports(std::vector<nlohmann::ordered_json> reports);
