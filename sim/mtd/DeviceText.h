#pragma once

#include "mtd/SimState.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// The texts by which people describe a chip and its MTD devices. All readers throw std::invalid_argument with one line
/// that shows the text when it can't be read.

/// Reads a number of bytes: decimal or with 0x, with K, M or G at the end.
std::uint64_t ParseSize(const std::string &text);

/// Reads "SIZE,ERASE,PAGE,OOB", four sizes.
NandGeometry ParseGeometry(const std::string &text);

/// Reads "host" or "chip".
Ecc ParseEcc(const std::string &text);

/// Reads block numbers and ranges of them: "7,64-66". An empty text has none.
std::vector<std::uint32_t> ParseBlocks(const std::string &text);

/// Reads "N:NAME" for a device over the whole chip, or "N:NAME:OFFSET,SIZE".
SimDevice ParseDevice(const std::string &text, const NandGeometry &geometry);

/// The default devices of a chip: boot, kernel and opt one after the other, and the whole flash with a number above
/// theirs.
std::vector<SimDevice> DefaultDevices(const NandGeometry &geometry);

/// Reads a fault: "MEMWRITE:3=EIO" (the third request of the kind), "MEMERASE64=ENOTTY" (every one), "open=ENODEV".
/// Errors are names or numbers.
SimFault ReadFault(const std::string &text);

/// A power cut: the number of a change, and how far the change gets.
struct PowerCut {
    std::uint64_t change;
    Extent extent;
};

/// Reads a power cut: "100", which is torn in half, or "100:done".
PowerCut ReadCut(const std::string &text);

/// Reads extents by their names: "none", "half", "most", "bare" (without OOB), "done", "unstable".
std::vector<Extent> ReadExtents(const std::string &list);
std::string ExtentsText(const std::vector<Extent> &extents);

/// Reads "OFFSET,SIZE", in bytes.
/// @return offset and end
std::pair<std::int64_t, std::int64_t> ReadRange(const std::string &text);

/// @return a power cut as ReadCut takes it.
std::string CutText(const PowerCut &cut);

/// @return block numbers and a fault in the format that is read here.
std::string BlocksText(const std::vector<std::uint32_t> &ascending);
std::string FaultText(const SimFault &fault);
