#pragma once

#include <cstdint>
#include <fcntl.h>

#include <sys/stat.h>

/// Paths of the simulated devices: their nodes, "/proc/mtd" and the live files of sysfs.

/// @return the minor number of a device's node; -1 for any other file.
int MinorOfNode(const struct stat64 &status);

/// @return the minor number of the node that a path leads to, through links too; -1 when there is none.
int MinorOfPath(int folder, const char *path);

/// @return whether a path names "/proc/mtd".
bool IsDeviceTable(const char *path);

/// Opens a path of any kind.
/// @param next opens what has nothing to do with devices
/// @param context for `next`
/// @return a descriptor, or -1 and errno
int OpenPath(int folder, const char *path, int flags, int (*next)(void *context), void *context);

template <typename Open> int OpenPath(int folder, const char *path, int flags, Open next) {
    return OpenPath(
        folder, path, flags, [](void *context) { return (*static_cast<Open *>(context))(); }, &next);
}
