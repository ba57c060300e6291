#pragma once

#include "mtd/SimState.h"

#include <cstdint>
#include <string>
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

/// @return block numbers and a fault in the format that is read here.
std::string BlocksText(const std::vector<std::uint32_t> &ascending);
std::string FaultText(const SimFault &fault);
