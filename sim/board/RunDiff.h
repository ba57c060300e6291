#pragma once

#include "chip/NandChip.h"
#include "verdict/RunFacts.h"
#include "verdict/Verdict.h"

#include <string>

/// A run of an update with its record, verdict and the chip after it.
struct JudgedRun {
    const RunRecord &record;
    const Verdict &verdict;
    const NandChip &chip;
};

/// Compares the same update's run on the simulator with that on the board.
/// @return one line with the first difference: exit status, power cut, output, percentages, flash, bad blocks or
///         verdict; empty when there is none.
std::string FirstDifference(const JudgedRun &simulator, const JudgedRun &board);
