#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "verdict/UpdateLines.h"

#include <vector>

/// Fills a chip like that of a device in use, the same at each call. All pages hold data with ECC. The ranges of the
/// long form of setenv hold environments with a valid CRC: some variables of a boot loader, and the variables that the
/// lines set, with another value. No block is bad.
/// @param devices as "/proc/mtd" lists them
/// @param lines of the update that will run on the chip
void UseUp(NandChip &chip, const std::vector<SimDevice> &devices, const std::vector<UpdateLine> &lines);
