#pragma once

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "chip/NandChip.h"
#include "cli/Options.h"
#include "sandbox/UpdateRun.h"

#include <string>

/// @return the settings of a run on a chip of this geometry.
/// @throws std::exception with one line when a device or a fault can't be read, or the updater is missing
RunSettings MakeSettings(const Options &options, const NandGeometry &geometry);

/// Creates the chip's files, or takes those that are kept; then marks the blocks bad that the options name.
/// @param path of the chip's files
/// @param statePath of a state file that may be overwritten
/// @return what keeps other runs off the chip
/// @throws std::exception with one line when the options do not fit the chip, or another run has it
ScopedFd PrepareChip(const Options &options, const std::string &path, const std::string &statePath,
                     const HeldSignals &signals);
