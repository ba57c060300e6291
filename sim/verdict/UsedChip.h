#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "verdict/UpdateLines.h"

#include <vector>

/// Makes a chip that of a device in use, the same at each call. All pages hold data with their ECC. Where the long form
/// of setenv has its environments, sealed ones hold some variables of a boot loader, and those that the lines set, with
/// another value. No block is bad.
/// @param devices as "/proc/mtd" lists them
/// @param lines of the update that the chip is for
void UseUp(NandChip &chip, const std::vector<SimDevice> &devices, const std::vector<UpdateLine> &lines);
