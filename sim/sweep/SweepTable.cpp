#include "sweep/SweepTable.h"

#include "base/Text.h"

#include <stdexcept>

RunOutcome RunWhole(Rig &rig, const RigRun &run) {
    RunOutcome outcome = rig.Run(run);
    if (outcome.isInterrupted)
        throw std::runtime_error("a worker process was interrupted");
    return outcome;
}

std::string RunBootCommand(Rig &rig, const std::string &command, SimSettings::Record record) {
    const RunOutcome outcome = rig.RunCommand({"/bin/sh", "-c", command}, record);
    if (outcome.isInterrupted)
        throw std::runtime_error("a worker process was interrupted");
    if (rig.State().Changes() != 0 || outcome.isBypassed)
        throw std::runtime_error("the command that --boots names changes flash");
    if (outcome.isOverdue)
        return "the boot command timed out";
    return outcome.status == 0 ? "" : "the boot command fails";
}

std::string WalkedPlaces(const SweepResult &result, const char *noun) {
    const std::uint64_t every = result.settings.every;
    return (every == 1 ? "each" : "one in " + std::to_string(every)) + " of " +
           Count(static_cast<std::int64_t>(result.places), noun);
}
