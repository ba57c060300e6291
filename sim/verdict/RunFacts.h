#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "mtd/Trace.h"
#include "mtd/UpdaterRecord.h"
#include "verdict/FlashRanges.h"
#include "verdict/RunStory.h"
#include "verdict/UbiFacts.h"
#include "verdict/UpdateLines.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// What a rehearsed run was and left behind, as recorded.
struct RunRecord {
    std::string script;                          ///< bytes of the script file
    std::map<std::string, std::int64_t> files;   ///< sizes of the files that words of the script name; -1: not regular
    std::map<std::string, std::string> contents; ///< bytes of the regular ones among those files
    std::vector<SimDevice> devices;              ///< as "/proc/mtd" lists them
    int status = 0;                              ///< of the updater, as waitpid gives it
    std::string out;                             ///< all standard output, of all programs
    std::string err;                             ///< all standard error
    bool isOverdue = false;                      ///< the run timed out and was killed
    bool isOutputCut = false;                    ///< `out` or `err` lacks what came after a limit
    std::string excess;                          ///< "processes" or "memory" when the run took too much and was killed
    std::string leftPrograms;                    ///< programs that still ran when the update had ended: "sh,sleep"
    UpdaterRecord updater;                       ///< what the updater itself printed and read; may be empty
    std::string trace;                           ///< SimState::TraceText
    std::string cutPlace;                        ///< SimState::CutPlace
    std::vector<ProgramNote> programs;           ///< SimState::ProgramNotes
    bool namesChangers = true;                   ///< the trace names other programs that changed flash
    std::vector<std::string> absent;             ///< AbsentTroubles of the run's settings
    bool assumesDevices = false;                 ///< the borders of the devices are not those of any product
    std::vector<std::string> missingSysfs;       ///< sysfs files that no MTD device has
};

/// What is known of one script line.
struct LineVerdict {
    UpdateLine line;
    LineResult result = LineResult::NeverRan;
    // Of a write or writeoob whose range is on the flash and whose image exists:
    std::optional<std::int64_t> rangeBlocks; ///< blocks of the range
    std::optional<std::int64_t> imageBlocks; ///< blocks that the image fills, the last one perhaps in part
    std::int64_t badBlocks = 0;              ///< bad blocks in the range on this chip

    /// @return how many bad blocks the range can have, those of this chip included, before the image no longer fits;
    ///         negative when the image never fits; nothing when that isn't known.
    std::optional<std::int64_t> SpareBlocks() const;

    /// @return whether the updater began to carry out the line.
    bool HasRun() const { return result == LineResult::Clean || result == LineResult::Failed; }
    /// @return whether the line changed a variable in an environment block on the flash.
    bool ChangedVariable() const { return line.kind == LineKind::SetEnv && result == LineResult::Clean; }
};

/// A call of the notify script.
struct NotifyCall {
    int percent;
    int status; ///< as waitpid gives it; -1 when the call never returned
};

/// Where the updater expects the notify script.
constexpr const char *kNotifyScript = "/tmp/update/progress_script.sh";

/// The facts of a run that checks judge: the record, the chip after the run, and what follows from both.
/// Offsets are bytes in the whole flash.
struct RunFacts {
    /// @param record,chip must outlive the facts; the chip is as the run left it, with its marks
    RunFacts(const RunRecord &record, const NandChip &chip);
    RunFacts(const RunFacts &) = delete;
    RunFacts &operator=(const RunFacts &) = delete;

    /// @return bytes of a line's image file; nothing when there is none or the file isn't regular.
    std::optional<std::int64_t> ImageSize(const UpdateLine &line) const;

    /// @return bytes of a line's image for one page: with OOB for `writeoob`.
    std::int64_t RecordSize(const UpdateLine &line) const;

    /// @return WholeFlash::RangeOf.
    std::optional<FlashRange> RangeOf(const LineVerdict &line) const { return flash.RangeOf(line.line); }

    /// @return whether a line's range holds a bad block.
    bool HasBadBlocks(const LineVerdict &line) const;

    /// @return the last line that ran and whose range holds an offset; nullptr for none.
    const UpdateLine *WriterOf(std::int64_t offset) const;

    /// @return the first line that changed a variable in a range that holds an offset; nullptr for none.
    const UpdateLine *ChangerOf(std::int64_t offset) const;

    /// @return the offsets of the pages that have a note of this text in the trace, in order.
    std::vector<std::int64_t> NotedPages(const std::string &text) const;

    /// @return whether the updater passed over a line, or would have if the run had come so far.
    bool IsPassedOver(const LineVerdict &line) const;

    /// @return the bytes of a range each time that the updater read it whole, in order.
    std::vector<std::vector<char>> WholeReads(const FlashRange &range) const;

    /// @return the calls of the notify script, in order.
    std::vector<NotifyCall> NotifyCalls() const;

    const RunRecord &record;
    const NandChip &chip;
    WholeFlash flash;
    TraceCalls calls;
    bool wasCut;      ///< the updater was ended from outside: a power cut or a signal
    bool isScriptCut; ///< the updater doesn't see the script's end
    RunStory story;   ///< its lines are those of `lines`
    std::vector<LineVerdict> lines;
    std::vector<UbiPartition> ubi; ///< FindUbiPartitions
    /// The programs beside the updater that changed each block of the chip, as far as they are named.
    std::map<std::uint32_t, std::set<std::string>> changers;
};

/// @return those of the requested cut and faults that the run never reached: "cut 100: there were 65 changes".
std::vector<std::string> AbsentTroubles(const SimSettings &asked, const SimState &state);
