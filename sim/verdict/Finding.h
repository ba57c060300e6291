#pragma once

#include "verdict/UpdateLines.h"

#include <cstddef>
#include <string>
#include <vector>

/// A note describes a property of the script language and leaves a verdict clean; warnings and errors do not.
enum class Severity { Note, Warning, Error };

/// Every finding there is; see Findings.def.
enum class FindingId {
#define FINDING(name, kind, severity, advice) name,
#include "verdict/Findings.def"
};

/// One thing that the maker of an update has to know.
struct Finding {
    std::size_t line = 0; ///< number in the script; 0 for a finding about the run
    std::string text;     ///< that line, without its line end
    Severity severity = Severity::Error;
    std::string kind;    ///< id for programs, the same from version to version
    std::string happens; ///< what the device does
    std::string change;  ///< what to change
};

/// A row of Findings.def.
struct FindingRow {
    const char *kind;
    Severity severity;
    const char *advice;
};

/// @return the rows of Findings.def, indexed by FindingId.
const std::vector<FindingRow> &FindingRows();

/// @param change replaces the advice of the table unless empty
/// @return a finding about a script line.
Finding ForLine(const UpdateLine &line, FindingId id, const std::string &happens, const std::string &change = "");

/// @return a finding about the run as a whole.
Finding ForRun(FindingId id, const std::string &happens, const std::string &change = "");
