#pragma once

#include "verdict/Finding.h"
#include "verdict/RunFacts.h"

#include <vector>

struct Verdict {
    std::vector<LineVerdict> lines;
    std::vector<int> percentages;  ///< as passed to the notify script
    std::vector<UbiPartition> ubi; ///< as RunFacts has them; they refer to the chip
    std::vector<Finding> findings; ///< by line, those about the run first

    /// @return whether there is neither a warning nor an error.
    bool IsClean() const;
};

/// Judges a run by what the updater did on the chip and printed, and by its script only where a run can't show more.
/// The checks and their order are in Findings.def.
Verdict Judge(const RunFacts &facts);
