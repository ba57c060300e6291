#pragma once

#include "verdict/UpdateLines.h"

#include <string>
#include <utility>
#include <vector>

/// The result of a script line.
enum class LineResult {
    Clean,   ///< carried out, as far as the updater can tell
    Skipped, ///< unknown, incomplete, or its image file is missing
    Failed,  ///< its command failed or was cut off
    NeverRan
};

struct LineStory {
    LineResult result = LineResult::NeverRan;
    std::string complaint;           ///< the updater's message about a skipped or failed line; empty for none
    std::vector<std::string> others; ///< further messages that begin with "warning : "
    bool readsToTheEnd = false;      ///< the image file was read to its end
    std::vector<std::pair<std::string, int>> exits; ///< of ubiformat: the programs that it ran and their wait statuses
};

/// What the updater's own messages say about a run, line by line. Output of other programs in between is ignored, also
/// when it precedes a message in the same line or begins like one.
struct RunStory {
    bool hasStarted = false; ///< the updater got as far as a script
    std::string handOver;    ///< shell command that ran the updater's copy in the update; empty for none
    std::string folder;      ///< prefix of the names of image files, ends with a slash
    std::string refusal;     ///< why the script was refused whole; empty when it wasn't
    std::vector<LineStory> lines;
};

/// Interprets the output of a run. Messages come in the order of the script's lines, and each command has messages of
/// its own at its beginning or end.
/// @param out,err all that came on standard output and standard error
/// @param wasCut the updater was ended from outside: the line in progress then counts as failed
RunStory FollowRun(const std::vector<UpdateLine> &lines, const std::string &out, const std::string &err, bool wasCut);
