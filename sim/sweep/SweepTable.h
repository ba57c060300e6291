#pragma once

#include "sweep/ReferenceRun.h"
#include "sweep/Rig.h"
#include "sweep/Sweep.h"
#include "sweep/SweepJudge.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The cases of a sweep.
struct SweepPlan {
    std::size_t places = 0; ///< blocks, changes or requests that the sweep walks
    std::vector<SweepCase> cases;
};

/// The result of one case.
struct CaseResult {
    std::optional<SweepComplaint> complaint; ///< none when the run passed
    std::size_t unsealedLine = 0;            ///< of cuts: the line whose environment has an invalid CRC; 0 for none
};

/// One kind of sweep: a row of the table, with its functions in a file of its own.
struct SweepKind {
    const char *name;    ///< as the command line has it
    const char *summary; ///< what each run tries, for --help
    const char *options; ///< options of the command line for this kind, "every,sets"
    SweepPlan (*plan)(const ReferenceRun &reference, const SweepSettings &settings);
    /// Tries one case on a rig whose chip is as at the start, with the bad blocks of the case.
    CaseResult (*tryCase)(const SweepCase &what, Rig &rig, const SweepJudge &judge);
    /// @return what the runs of a sweep tried: "each of 12 blocks bad in turn".
    std::string (*heading)(const SweepResult &result);
};

/// Runs the update to its end on the chip of a rig.
/// @throws std::runtime_error when a signal interrupts the run
RunOutcome RunWhole(Rig &rig, std::uint64_t cutAtChange, const std::vector<SimFault> &faults);

/// @return "each of 12 changes", "one in 10 of 4308 changes".
std::string WalkedPlaces(const SweepResult &result, const char *noun);

// Each in its own file.
SweepPlan PlanBad(const ReferenceRun &reference, const SweepSettings &settings);
CaseResult TryBad(const SweepCase &what, Rig &rig, const SweepJudge &judge);
std::string BadHeading(const SweepResult &result);
SweepPlan PlanCuts(const ReferenceRun &reference, const SweepSettings &settings);
CaseResult TryCut(const SweepCase &what, Rig &rig, const SweepJudge &judge);
std::string CutHeading(const SweepResult &result);
SweepPlan PlanFaults(const ReferenceRun &reference, const SweepSettings &settings);
CaseResult TryFault(const SweepCase &what, Rig &rig, const SweepJudge &judge);
std::string FaultHeading(const SweepResult &result);

inline constexpr SweepKind kSweepKinds[] = {
    {"bad", "each block of the ranges bad from the factory, then sets of bad blocks", "sets,seed", PlanBad, TryBad,
     BadHeading},
    {"cut", "power lost at each change of flash, then the update run again", "every", PlanCuts, TryCut, CutHeading},
    {"faults", "each request failing", "every", PlanFaults, TryFault, FaultHeading},
};
