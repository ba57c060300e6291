#pragma once

#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"
#include "verdict/RunFacts.h"

/// @param state of the run, after its end
/// @return the record of a run for its verdict.
RunRecord RecordOf(const RunSettings &settings, const RunOutcome &outcome, const SimState &state);
