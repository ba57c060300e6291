#pragma once

#include "chip/ChipFile.h"
#include "mtd/SimState.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

/// @return whether this program has the file name of the program under test.
bool HasUpdaterName();

/// The run that this process takes part in.
struct Simulation {
    Simulation(const char *chipPath, const char *statePath);

    /// @return the place of /dev/mtd<number> among the devices; -1 when there is none.
    int FindDevice(int number) const;

    ChipFile chip;
    SimState state;
    std::vector<SimDevice> devices;
    bool hasNodes;  ///< the devices have nodes in the file system
    bool isUpdater; ///< this process is the updater itself
};

/// @return an environment variable as the program got it, which may have cleared its environment since; nullptr for
/// none.
const char *StartVariable(const char *name);

/// Opens the run at the first use. A run that can't be opened ends the process with kBrokenSetup.
/// @return nullptr when the environment names none.
Simulation *FindSimulation();

/// Ends the process when power is off: for what is no request, but needs power all the same.
void NeedPower();

/// Notes that this program made a request of the kernel that the simulation can't serve.
/// @param subject "mmap of /dev/mtd0"
void NoteUnserved(const std::string &subject);

/// Gives a result in the way of libc.
/// @param result a negative errno value or what the call returns
template <typename Number> Number Return(std::int64_t result) {
    if (result >= 0)
        return static_cast<Number>(result);
    errno = static_cast<int>(-result);
    return -1;
}

// Descriptors.

/// @return whether a descriptor is that of a simulated device.
bool IsSimulated(int fd);

/// @return the number of the open file description behind a simulated descriptor.
int OpenFileOf(int fd);

/// Notes which open file description is behind a descriptor; -1 for none.
void SetOpenFile(int fd, int openFile);
