#pragma once

#include "sweep/Sweep.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

/// The command line of a rehearsal, as a sweep's own runs need it. All texts are as a shell is given them.
struct RerunWords {
    std::string options;            ///< but those of sweeps, chips kept in files, bad blocks and reports
    std::string update;             ///< the update and the updater's arguments
    std::string flash;              ///< files of the chip that runs start from; empty for a new one in use
    std::vector<std::uint32_t> bad; ///< bad blocks that all runs have
};

/// @return the shell command that carries out a sweep's run by itself.
std::string RerunCommand(const RerunWords &words, const SweepFailure &failure);

/// What came of a sweep, for people: a line, and for each kind of trouble how many runs had it and the command that
/// shows the first of them.
/// @param scriptName in front of the numbers of lines
std::string SweepText(const SweepResult &result, const RerunWords &words, const std::string &scriptName);

/// What came of a sweep, for programs:
///
///   kind         "bad", "cut" or "faults"
///   every        of cuts and faults: 10 when only each tenth was tried; else null
///   seed         that sets of bad blocks were drawn from; of a cut and of faults null
///   runs         how many were planned
///   done, held   how many were carried out, fewer when it was interrupted, and how many of these held
///   interrupted  true or false
///   failures     by number, each: run: its number, from 1; badBlocks: numbers; cut: number of the change, or null;
///                fault: as --fault takes it, or null; line: that it is about, or null; text of that line;
///                happens: for people; command: for a shell, shows the run again
///   unsealed     lines whose cuts leave an environment without a valid seal until the second run, each: line, text,
///                runs: the cuts that do
nlohmann::ordered_json DescribeSweep(const SweepResult &result, const RerunWords &words);
