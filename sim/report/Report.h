#pragma once

#include "verdict/Verdict.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

/// The report of a rehearsal, for programs: one JSON object. Later versions add fields, but never rename them.
///
///   format       1
///   verdict      "clean" or "findings", of the run alone
///   chip         size, eraseSize, pageSize, oobSize: bytes; ecc: "host" or "chip"; badBlocks: numbers
///   devices      the MTD devices, each: number, name, offset, size (bytes on the chip)
///   run          exitStatus, or null if a signal ended the updater; signal, or null; powerCut: the request during
///                which power was lost, "MEMWRITE at 0x800", or null
///   requests     number of requests of each kind, by the names that --fault takes; all kinds are present
///   changes      number of pages programmed and blocks erased
///   percentages  as the notify script got them
///   lines        lines with a command, in order, each: number, text; result: "clean", "skipped", "failed" or
///                "never-ran"; for write and writeoob also room, or null if unknown: rangeBlocks, imageBlocks,
///                badBlocks (in the range, on this chip), spareBlocks (bad blocks that the range tolerates)
///   ubi          partitions that lines gave to UBI, each: device, line (its number), attached, reason (why not), pebs,
///                badPebs, reservedForBad, wantedForBad, available; volumes, each: id, name, type, lebs (its size),
///                mappedLebs, alignment, updateMarker, corrupted
///   findings     by line, each: line, or null for the run as a whole; text of that line; severity: "error", "warning"
///                or "note"; kind: an id of Findings.def; happens, change: for people
///   sweeps       in the order of the runs, each an object of DescribeSweep; empty here
nlohmann::ordered_json MakeReport(const RunRecord &record, const Verdict &verdict, const NandChip &chip,
                                  const SimState &state);

/// Reads a report from the text of a file.
/// @return nothing when the text is not a report.
std::optional<nlohmann::ordered_json> ParseReport(const std::string &text);

/// The verdict for people: a line for the room of each range, a line for each finding, and the verdict itself.
/// @param scriptPath is printed before line numbers, as compilers do
std::string VerdictText(const Verdict &verdict, const std::string &scriptPath);

/// The verdict alone, with the numbers of findings: "verdict: clean: 6 of 6 lines carried out".
std::string VerdictLine(const Verdict &verdict);
