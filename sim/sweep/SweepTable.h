#pragma once

#include "sweep/ReferenceRun.h"
#include "sweep/Rig.h"
#include "sweep/Sweep.h"
#include "sweep/SweepJudge.h"

#include <cstddef>
#include <cstdint>
#include <memory>
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
    std::string noBoot = {};                 ///< of cuts: why the device does not boot; empty when it does
    std::vector<std::string> sights = {};    ///< what the board's kernel found
};

inline bool operator==(const CaseResult &one, const CaseResult &other) {
    return one.complaint == other.complaint && one.unsealedLine == other.unsealedLine && one.noBoot == other.noBoot;
}

/// What the cases of a sweep are tried with.
struct SweepTools {
    const ChipFile &start;
    std::string startPath;
    Rig &rig;
    const SweepJudge &judge;
    const SweepSettings &settings;
    const RunSettings &run;
    const HeldSignals &signals;
};

/// Tries the cases of a sweep by replay of recorded runs, with the same results as real runs.
class CaseReplay {
public:
    virtual ~CaseReplay() = default;
    /// @param what of the plan; later in the plan than the last one
    virtual CaseResult Try(const SweepCase &what) = 0;
};

/// One kind of sweep: a row of the table, with its functions in a file of its own.
struct SweepKind {
    const char *name;    ///< as the command line has it
    const char *summary; ///< what each run tries, for --help
    const char *options; ///< options of the command line for this kind, "every,sets"
    SweepPlan (*plan)(const ReferenceRun &reference, const SweepSettings &settings);
    /// Tries one case for real, on a rig whose chip is as at the start, with the bad and worn-out blocks of the case.
    CaseResult (*tryCase)(const SweepCase &what, const SweepTools &tools);
    /// @return what the runs of a sweep tried: "each of 12 blocks bad in turn".
    std::string (*heading)(const SweepResult &result);
    /// Makes a replay; the tools outlive it. Null for a kind without one.
    std::unique_ptr<CaseReplay> (*replay)(const SweepTools &tools);
};

/// Runs the update to its end on the chip of a rig.
/// @throws std::runtime_error when a signal interrupts the run
RunOutcome RunWhole(Rig &rig, const RigRun &run = {});

/// Runs the command that says whether a device boots from the chip of a rig.
/// @return why the device does not boot; empty when it does
/// @throws std::runtime_error when the command changes flash or a signal interrupts it
std::string RunBootCommand(Rig &rig, const std::string &command, SimSettings::Record record);

/// @return "each of 12 changes", "one in 10 of 4308 changes".
std::string WalkedPlaces(const SweepResult &result, const char *noun);

// Each in its own file.
SweepPlan PlanBad(const ReferenceRun &reference, const SweepSettings &settings);
CaseResult TryBad(const SweepCase &what, const SweepTools &tools);
std::string BadHeading(const SweepResult &result);
SweepPlan PlanCuts(const ReferenceRun &reference, const SweepSettings &settings);
CaseResult TryCut(const SweepCase &what, const SweepTools &tools);
std::string CutHeading(const SweepResult &result);
std::unique_ptr<CaseReplay> ReplayCuts(const SweepTools &tools);
SweepPlan PlanFaults(const ReferenceRun &reference, const SweepSettings &settings);
CaseResult TryFault(const SweepCase &what, const SweepTools &tools);
std::string FaultHeading(const SweepResult &result);
std::unique_ptr<CaseReplay> ReplayFaults(const SweepTools &tools);

SweepPlan PlanWear(const ReferenceRun &reference, const SweepSettings &settings);
std::string WearHeading(const SweepResult &result);

SweepPlan PlanPairs(const ReferenceRun &reference, const SweepSettings &settings);
CaseResult TryPair(const SweepCase &what, const SweepTools &tools);
std::string PairHeading(const SweepResult &result);

inline constexpr SweepKind kSweepKinds[] = {
    {"bad", "each block of the ranges bad from the factory, then sets of bad blocks", "sets,seed", PlanBad, TryBad,
     BadHeading, nullptr},
    {"cut", "power lost at each change of flash, then the update run again", "every,torn,boots,keep,boot-env,slot,seed",
     PlanCuts, TryCut, CutHeading, ReplayCuts},
    {"faults", "each request failing, then the update run again", "every", PlanFaults, TryFault, FaultHeading,
     ReplayFaults},
    {"wear", "each block of the ranges worn out: its erases fail, or its programs", "", PlanWear, TryFault, WearHeading,
     nullptr},
    {"pairs", "power cut after power cut, or a bad or worn-out block and a power cut", "sets,seed,torn", PlanPairs,
     TryPair, PairHeading, nullptr},
};
