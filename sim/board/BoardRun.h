#pragma once

#include "base/HeldSignals.h"
#include "sandbox/UpdateRun.h"

#include <string>

/// A folder's files are the contract with the script that boots the board and with board/guest/rehearse:
///
///   job                variables for a shell, see BoardRun.cpp
///   update, root, program   links to what the board gets; the last two may be missing
///   devices, arguments, mounts, starts   texts, a line for each item
///   chip               the chip's cells at the start
///   disk               the chip's cells after the run, as the board's kernel read them
///   results/           out, err, trace, changes, end: the files of board/record.cpp; count, the number of changes;
///                      counters, a line "NUMBER corrected failed bad" for each MTD device; found, what the kernel
///                      finds on the chip; problem, why there are no results

/// Checks that the board can be what the settings ask for.
/// @throws std::invalid_argument with one line that names what the board cannot do
void CheckBoard(const RunSettings &settings, const NandChip &chip);

/// Runs the update once on the virtual board, with a real kernel and the updater for 32-bit ARM, and puts the record of
/// the run where RunUpdate puts its own.
/// @param command program that boots the board; its argument is the folder of the rehearsal
/// @param chip path of a chip's files, which the run changes
/// @param state path of the state file, made anew for this run
/// @param signals a held signal ends the run
/// @param found gets lines for people: UBI devices and volumes that the kernel attaches and mounts after the run, and
///        the checksums of their files
/// @throws std::runtime_error with one line when the updater didn't get to run
RunOutcome RunOnBoard(const RunSettings &settings, const std::string &command, const std::string &chip,
                      const std::string &state, const HeldSignals &signals, std::string &found);
