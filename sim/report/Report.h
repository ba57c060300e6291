#pragma once

#include "verdict/Verdict.h"

#include <nlohmann/json_fwd.hpp>
#include <string>

/// The report of a rehearsal, for programs: one JSON object. Fields are added from version to version, never renamed.
///
///   format       1
///   verdict      "clean" or "findings", of the run alone
///   chip         size, eraseSize, pageSize, oobSize: bytes; ecc: "host" or "chip"; badBlocks: numbers
///   devices      of "/proc/mtd", each: number, name, offset, size (bytes on the chip)
///   run          exitStatus, or null when a signal ended the updater; signal, or null; powerCut: where the power went,
///                "MEMWRITE at 0x800", or null
///   requests     how many of each kind were made, by the names that --fault takes; all kinds are there
///   changes      pages programmed and blocks erased
///   percentages  as the progress script was given them
///   lines        of the script that hold a command, in order, each: number, text; result: "clean", "skipped", "failed"
///                or "never-ran"; for write and writeoob also room, or null when it isn't known: rangeBlocks,
///                imageBlocks, badBlocks (in the range, on this chip), spareBlocks (bad ones that it can take)
///   findings     by line, each: line, or null when it is about none; text of that line; severity: "error", "warning"
///                or "note"; kind: an id of Findings.def; happens, change: for people
///   sweeps       in the order in which they ran, each an object as DescribeSweep gives it; empty here
nlohmann::ordered_json MakeReport(const RunRecord &record, const Verdict &verdict, const NandChip &chip,
                                  const SimState &state);

/// The verdict for people: a line for the room of each range, a line for each finding, and the verdict itself.
/// @param scriptName in front of the numbers of lines, as a compiler gives file names
std::string VerdictText(const Verdict &verdict, const std::string &scriptName);

/// The verdict alone, with the numbers of findings: "verdict: clean: 6 of 6 lines carried out".
std::string VerdictLine(const Verdict &verdict);
