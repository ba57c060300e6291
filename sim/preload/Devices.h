#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <sys/uio.h>

/// What the calls of libc do with the simulated devices. All give their results in the way of libc.

/// Opens a device by minor number.
/// @param flags of open
/// @return the lowest free descriptor
int OpenDevice(int minor, int flags);

/// Closes a simulated descriptor.
int CloseDevice(int fd);

/// Reads or writes at the position or, for pread and pwrite, at an offset of the call's own.
/// @param offset null for the position
ssize_t ReadDevice(int fd, void *data, std::size_t length, const off64_t *offset);
ssize_t WriteDevice(int fd, const void *data, std::size_t length, const off64_t *offset);

off64_t SeekDevice(int fd, off64_t offset, int whence);
int ControlDevice(int fd, unsigned long number, void *argument);
int SyncDevice(int fd);

/// F_GETFL and F_SETFL of a simulated descriptor.
int FlagsOfDevice(int fd);
int SetFlagsOfDevice(int fd, int flags);

/// @return the minor number of the node by which a simulated descriptor was opened.
int MinorOfDevice(int fd);

/// @return the path of a device's node, "/dev/mtd0ro".
std::string NodePath(int minor);

/// A stream on a simulated descriptor, which closing it closes.
/// @return nullptr on failure
FILE *OpenDeviceStream(int fd, const char *mode);

/// Notes that a descriptor is a copy of another one; `copy` may be a failure.
/// @return copy
int CopiedDescriptor(int fd, int copy);
