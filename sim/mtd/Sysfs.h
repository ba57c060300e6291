#pragma once

#include "chip/NandChip.h"
#include "mtd/MtdDevice.h"
#include "mtd/SimState.h"

#include <cstddef>
#include <string>

/// The names of the files of /sys/class/mtd/mtd<N>; Sysfs.def has a row for each.
constexpr const char *kSysfsFiles[] = {
#define SYSFS(name, isLive, content) name,
#include "mtd/Sysfs.def"
#undef SYSFS
};
constexpr std::size_t kSysfsFileCount = sizeof kSysfsFiles / sizeof *kSysfsFiles;

/// @return the content of a file, by its place in kSysfsFiles.
std::string SysfsText(std::size_t file, const SimDevice &device, const NandChip &chip, const MtdCounters &counters);

/// @return whether the content changes while a device is in use.
bool IsLiveSysfs(std::size_t file);
