#pragma once

#include "chip/NandChip.h"
#include "ubi/UbiAttach.h"
#include "verdict/FlashRanges.h"
#include "verdict/UpdateLines.h"

#include <string>
#include <vector>

struct RunFacts;

/// A part of the flash that an update gives to UBI, as it is after the run.
struct UbiPartition {
    UpdateLine line;  ///< the last line that wrote UBI there
    std::string name; ///< "/dev/mtd9"; the range in hexadecimal digits when no device begins there
    FlashRange range; ///< offsets in the whole flash
    PartitionPebs pebs;
    UbiAttachment attachment; ///< what the kernel would make of it
};

/// @return the devices of `ubiformat` lines that ran, and those at whose start a line wrote an image that is UBI's.
std::vector<UbiPartition> FindUbiPartitions(const RunFacts &facts);

/// @return whether the image file of a line begins with a header of UBI.
bool IsUbiImage(const RunFacts &facts, const UpdateLine &line);

/// @return the bytes of a line's image as UBI reads them, without OOB; empty when they aren't known.
std::vector<std::uint8_t> UbiImageBytes(const RunFacts &facts, const UpdateLine &line);
