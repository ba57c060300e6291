#pragma once

#include "mtd/RunTimeline.h"
#include "report/ReportFormats.h"
#include "verdict/RunFacts.h"
#include "verdict/Verdict.h"

#include <nlohmann/json_fwd.hpp>
#include <string>

/// What a page shows of the run itself.
struct PageRun {
    const RunRecord &record;
    const NandChip &chip; ///< as the run left it, with its marks
    const Verdict &verdict;
    RunTimeline timeline;
};

/// A page for browsers in one file, without network: the verdict, the script with its findings, the chip and the output
/// at any change of the run, and the failures of sweeps. Control characters and marks of writing direction are shown as
/// VisibleText shows them.
///
/// The page's data is an object in its script element "data". A time is a number of changes. Lists of numbers are
/// packed: base64 of the differences, zigzag and varint as in protocol buffers.
///
///   tool, update, script, command   texts: program and version, name of the update, path of its script, the command
///   that
///                                   repeats the run
///   verdict, chip, run, lines, findings   as in the report; changeCount: its changes
///   ubi        pairs of a line and a text about the UBI partition that the line left
///   sweeps     as in the report, but for failures: a list of objects with line, text, happens, change and cases: a
///   list
///              of objects with what ("cut", "bad", "erase-fails", "program-fails", "fault" or "case"), torn, count;
///              numbers: packed, of the changes, blocks or requests; times: packed, or null; command: parts that are
///              joined by the number; and label, for a "case" without a number. omitted: number of failures left out
///   text       the lines of the script; null, like all that follows, for a page without facts.run
///   changes    packed as above: difference of pages * 16, and 1 for an erase, 2 for ECC, 4 for data, 8 for OOB
///   changeLines  pairs of a number of changes and their line
///   output     lists of time, 1 for error output, and a line of text; outputOmitted: number of lines left out
///   percentages, badMarks   pairs of a time and a percentage or block
///   kinds      names of all sweeps; looks: words, light and dark colour of each state of a block
///   marks      pairs of a number of blocks and their place in kMarkLooks, after the run
///   blocks     of blocks with something to say, lists of: number, programmed pages, pages with corrected bits,
///              unreadable pages, pages with other OOB than ECC, and the content for people
std::string HtmlText(const nlohmann::ordered_json &report, const FormatFacts &facts);
