#pragma once

#include "base/HeldSignals.h"
#include "board/BoardFinds.h"
#include "chip/NandChip.h"
#include "sandbox/UpdateRun.h"

#include <string>
#include <vector>

/// A folder's files are the contract with the script that boots the board and with board/guest/rehearse:
///
///   job                variables for a shell, see BoardRun.cpp
///   update, root, program   links to what the board gets; the last two may be missing
///   devices, arguments, mounts, starts   texts, a line for each item
///   environments       a line "OFFSET SIZE" for each environment of the script, in bytes on the chip
///   chip               the chip's cells at the start
///   disk               the chip's cells after the run, as the board's kernel read them; from the place "start_at" of
///                      the job on, in MiB, those before the run when results/start says that mounting changed them
///   results/           out, err, trace, changes, end: the files of board/record.cpp; count, the number of changes;
///                      counters, a line "NUMBER corrected failed bad" for each MTD device; found, what the kernel
///                      finds on the chip (ReadFound); dmesg, the kernel's log; started, seconds from the start of
///                      the board to that of the update; problem, why there are no results

/// Checks that the board can be what the settings ask for.
/// @throws std::invalid_argument with one line that names what the board cannot do
void CheckBoard(const RunSettings &settings, const NandChip &chip);

/// Runs the update once on the virtual board, with a real kernel and the updater for 32-bit ARM, and puts the record of
/// the run where RunUpdate puts its own.
/// @param command program that boots the board; its argument is the folder of the rehearsal
/// @param chip path of a chip's files, which the run changes
/// @param state path of the state file, made anew for this run
/// @param signals a held signal ends the run
/// @param twin path of a second chip, which becomes what the chip was when the update began; empty for none
/// @param finds gets what the board's kernel finds after the run
/// @throws std::runtime_error with one line when the updater didn't get to run
RunOutcome RunOnBoard(const RunSettings &settings, const std::string &command, const std::string &chip,
                      const std::string &state, const HeldSignals &signals, const std::string &twin, BoardFinds &finds);

/// @return those lines that name an environment of whole blocks of the flash.
std::vector<SetRange> FindSetRanges(const std::vector<UpdateLine> &lines, const NandChip &chip,
                                    const std::vector<SimDevice> &devices);
