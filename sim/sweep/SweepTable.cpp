#include "sweep/SweepTable.h"

#include "base/Text.h"

#include <stdexcept>

RunOutcome RunWhole(Rig &rig, std::uint64_t cutAtChange, const std::vector<SimFault> &faults) {
    RunOutcome run = rig.Run(cutAtChange, faults);
    if (run.isInterrupted)
        throw std::runtime_error("a worker process was interrupted");
    return run;
}

std::string WalkedPlaces(const SweepResult &result, const char *noun) {
    const std::uint64_t every = result.settings.every;
    return (every == 1 ? "each" : "one in " + std::to_string(every)) + " of " +
           Count(static_cast<std::int64_t>(result.places), noun);
}
