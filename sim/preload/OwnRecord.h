#pragma once

#include "mtd/SimState.h"

#include <cstddef>
#include <cstdint>

/// What the run records beside its trace: the output and the reads of the program under test, and environments that any
/// program erases. See UpdaterRecord.

/// @return the run's state when this is the program whose calls are traced and there is a trace, else nullptr.
SimState *ProgramTrace();

/// Records what the program under test read from flash.
/// @param offset on the chip
void RecordRead(std::uint64_t offset, const void *data, std::size_t length);

/// Records the environments in a range that is about to be erased, as far as nothing changed them before.
/// @param start,length on the chip, in bytes; whole blocks of the chip
void RecordErased(std::uint64_t start, std::uint64_t length);
