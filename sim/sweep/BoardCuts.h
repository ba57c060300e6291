#pragma once

#include "base/HeldSignals.h"
#include "chip/ChipFile.h"
#include "sweep/SweepJudge.h"
#include "sweep/SweepTable.h"

#include <string>

/// What the power cuts of a sweep on the board are tried with. Everything outlives the cases.
struct BoardBench {
    const RunSettings &run;
    const ChipFile &start;
    std::string startPath;
    std::string path; ///< of the files that a case may make
    const SweepJudge &judge;
    const SweepSettings &settings;
    const HeldSignals &signals;
};

/// Draws `sample` cuts that share the script's lines with changes of flash among them; the first and the last change of
/// a line are the first to be taken. The states of `torn` take turns.
SweepPlan PlanBoardCuts(const ReferenceRun &reference, const SweepSettings &settings);

/// Loses power on the board and on the simulator, runs the update again on both, and compares both runs. The board's
/// chip is judged as in other sweeps; after the second run its kernel must find what it finds after an uncut run.
/// @throws std::runtime_error with one line, as RunOnBoard does, and when a signal interrupts a run
CaseResult TryBoardCut(const SweepCase &what, const BoardBench &bench);
