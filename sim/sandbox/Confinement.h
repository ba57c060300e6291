#pragma once

#include <cstddef>
#include <cstdint>

/// Most processes that may be in a sandbox, and most memory of its processes together, in bytes: far beyond what an
/// updater on a device has, far below what disturbs a build machine.
constexpr std::size_t kMostProcesses = 512;
constexpr std::uint64_t kMostMemory = std::uint64_t{2} << 30;

/// Compiles what ConfineProcess loads; the first call of a process takes milliseconds.
/// @throws SystemError
void PrepareConfinement();

/// Gives up for this process and all that it starts, for good: capabilities that no updater needs, new privileges, and
/// system calls that reach beyond a sandbox or enlarge it (mounting, namespaces, other kinds of sockets, kernel modules
/// and tracing, keys, clocks); and limits the size of a file and the number of processes and open files.
/// To be called as root of a user namespace.
/// @throws SystemError
void ConfineProcess();
