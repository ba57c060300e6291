#pragma once

#include "HeldSignals.h"
#include "SimState.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// One update and the device that it runs in. Paths are the host's unless said otherwise.
struct RunSettings {
    std::string program;                   ///< the updater under test
    std::string preload;                   ///< the library that shows programs the chip
    std::string update;                    ///< image file or folder
    std::string place;                     ///< absolute path at which the device shows it
    std::vector<std::string> arguments;    ///< for the updater, behind the update
    std::string root;                      ///< folder with the device's own files; empty for none
    std::vector<std::string> mounts;       ///< absolute paths in the device with a file system of their own
    std::vector<std::string> starts;       ///< shell commands that run in the device before the update
    std::vector<std::string> missingSysfs; ///< names of the sysfs files that no MTD device has
    SimSettings sim;                       ///< MTD devices, faults, power cut, trace
    int passOut = -1;                      ///< descriptor that gets the updater's output as it comes; -1 for none
    int passErr = -1;                      ///< the same for its error output
};

/// What came of a run. The counters and the trace are in the state file.
struct RunOutcome {
    bool isInterrupted = false;                 ///< a held signal ended it early
    int status = 0;                             ///< the updater's, as waitpid gives it; 0 when interrupted
    std::string out;                            ///< all output of the updater and of whatever it and the device started
    std::string err;                            ///< the same for the error output
    std::string script;                         ///< bytes of the update's script, as it stands in the device at the end
    std::map<std::string, std::uint64_t> files; ///< sizes of the update's files by path below the script's folder
};

/// Runs the update once in a device of its own. Nothing of the host changes but the chip and the state file.
/// Nothing is shared between runs: several processes may run updates at the same time, each on its own chip.
/// @param chip path of a chip's files, which the run changes
/// @param state path of the state file, made anew for this run
/// @param signals a held signal ends the run
/// @throws std::runtime_error with one line when the updater didn't get to run.
RunOutcome RunUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                     const HeldSignals &signals);
