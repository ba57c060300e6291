#pragma once

#include "mtd/SimState.h"

#include <cstdint>
#include <string>
#include <vector>

/// The texts by which people describe a simulated device. All of them throw std::invalid_argument with one line that
/// shows the text when it can't be read.

/// Reads a number of bytes: decimal or with 0x, and K, M or G behind it.
std::uint64_t ParseSize(const std::string &text);

/// Reads "SIZE,ERASE,PAGE,OOB", sizes all four.
NandGeometry ParseGeometry(const std::string &text);

/// Reads "host" or "chip".
Ecc ParseEcc(const std::string &text);

/// Reads block numbers and ranges of them: "7,64-66". An empty text has none.
std::vector<std::uint32_t> ParseBlocks(const std::string &text);

/// Reads "N:NAME" for a device over the whole chip, or "N:NAME:OFFSET,SIZE".
SimDevice ParseDevice(const std::string &text, const NandGeometry &geometry);

/// The devices of a chip when nobody says otherwise: boot, kernel and opt one behind the other, and the whole flash
/// with a number above theirs.
std::vector<SimDevice> DefaultDevices(const NandGeometry &geometry);

/// Reads a fault as SimState.h tells it.
SimFault ReadFault(const std::string &text);

/// @return block numbers and a fault as they are read here.
std::string BlocksText(const std::vector<std::uint32_t> &ascending);
std::string FaultText(const SimFault &fault);
