#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "verdict/Finding.h"
#include "verdict/RunStory.h"
#include "verdict/UpdateLines.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// What a rehearsed run was and what came of it.
struct Rehearsal {
    std::string script;                               ///< the script file's bytes
    std::map<std::string, std::int64_t> files;        ///< as RunOutcome has them
    std::vector<SimDevice> devices;                   ///< as "/proc/mtd" lists them
    int status = 0;                                   ///< of the updater, as waitpid gives it
    std::string out;                                  ///< all that came on standard output
    std::string err;                                  ///< all that came on standard error
    std::string trace;                                ///< SimState::TraceText
    std::string cutPlace;                             ///< SimState::CutPlace
    std::vector<std::string> absent = {};             ///< of the run's settings: AbsentTroubles
    std::map<std::string, std::string> contents = {}; ///< as RunOutcome has them
};

/// What is known of one script line.
struct LineVerdict {
    UpdateLine line;
    LineResult result = LineResult::NeverRan;
    // Of a write or writeoob whose range is on the flash and whose image is there:
    std::optional<std::int64_t> rangeBlocks; ///< blocks of its range
    std::optional<std::int64_t> imageBlocks; ///< blocks that its image fills, the last one perhaps in part
    std::int64_t badBlocks = 0;              ///< bad ones in its range on this chip

    /// @return how many bad blocks the range can have, those of this chip included, before the image no longer fits;
    ///         negative when it never does; nothing when it isn't known.
    std::optional<std::int64_t> SpareBlocks() const;
};

struct Verdict {
    std::vector<LineVerdict> lines;
    std::vector<int> percentages;  ///< as the progress script was given them
    std::vector<Finding> findings; ///< by line, those of no line first

    /// @return whether there is neither a warning nor an error.
    bool IsClean() const;
};

/// @return what of the cut and the faults that were asked for never came, each in words: "cut 100: there were 65
/// changes".
std::vector<std::string> AbsentTroubles(const SimSettings &asked, const SimState &state);

/// Judges a run by what the updater did on the chip and said, and by its script only where a run can't tell.
///
/// Percentages that fall, pass 100 or don't end there are a warning when a line failed or never ran. Else they are a
/// note, for they can't be helped: a `write` of whole blocks and every `writeoob` report one block more than counted,
/// a `ubiformat` ends 7 or 8 short. Above 100 blocks the one more doesn't show.
/// @param chip as the run left it, with its marks
Verdict Judge(const Rehearsal &rehearsal, const NandChip &chip);
