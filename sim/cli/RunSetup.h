#pragma once

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "chip/NandChip.h"
#include "cli/Options.h"
#include "sandbox/UpdateRun.h"
#include "sweep/Sweep.h"

#include <string>

/// @return settings that name the files which a sandbox shows, and nothing else.
/// @throws std::exception with one line when the updater is missing
RunSettings ShownFiles(const Options &options);

/// @param files ShownFiles, perhaps staged
/// @return the settings of a run on a chip of this geometry.
/// @throws std::exception with one line when a device or a fault can't be read
RunSettings MakeSettings(const Options &options, const RunSettings &files, const NandGeometry &geometry);

/// @return the settings of a sweep, by the name of its kind. The shard comes from --shard or from the environment
///         variables of a CI system.
/// @throws std::exception with one line when a range, a state or a shard cannot be read
SweepSettings MakeSweep(const Options &options, const std::string &kind);

/// @return the path of the script for people and their editors; of an image, which has no path within, the name alone.
std::string ScriptPath(const Options &options);

/// @param path of a chip's cells, which exist
/// @throws std::invalid_argument when the file that describes the chip is not beside them
void RequireChipFile(const std::string &path);

/// @return sizes and ECC mode of a new chip.
/// @throws std::exception with one line when the options describe no chip
NandGeometry AskedGeometry(const Options &options);
Ecc AskedEcc(const Options &options);

/// Creates the chip's files, as new or as a copy of the chip that is kept; then marks the blocks bad that the options
/// name.
/// @param path of the chip's files
/// @param statePath of a state file that may be overwritten
/// @return what keeps other runs off the kept chip
/// @throws std::exception with one line when the options do not fit the chip, or another run has it
ScopedFd PrepareChip(const Options &options, const RunSettings &files, const std::string &path,
                     const std::string &statePath, const HeldSignals &signals);
