#pragma once

#include "chip/NandChip.h"

#include <cstdint>
#include <string>

/// @return the line of a run's record for a block that is about to be erased, when the block begins like a boot
///         environment and the run has not changed it before; else an empty text.
std::string ErasedLine(const NandChip &chip, std::uint32_t block);
