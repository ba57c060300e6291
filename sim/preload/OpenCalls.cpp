// Calls that make, copy and close descriptors.

#include "preload/Devices.h"
#include "preload/Interface.h"
#include "preload/Next.h"
#include "preload/Nodes.h"
#include "preload/Simulation.h"
#include "preload/Streams.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using OpenFunction = int(const char *, int, ...);
using OpenAtFunction = int(int, const char *, int, ...);
using ControlFunction = int(int, int, ...);

Next<OpenFunction> nextOpen("open");
Next<OpenFunction> nextOpen64("open64");
Next<OpenAtFunction> nextOpenAt("openat");
Next<OpenAtFunction> nextOpenAt64("openat64");
Next<int(int)> nextClose("close");
Next<int(unsigned, unsigned, int)> nextCloseRange("close_range");
Next<int(int)> nextDup("dup");
Next<int(int, int)> nextDup2("dup2");
Next<int(int, int, int)> nextDup3("dup3");
Next<ControlFunction> nextFcntl("fcntl");
Next<ControlFunction> nextFcntl64("fcntl64");
Next<int(int, struct stat64 *)> nextFstat64("fstat64");

mode_t ModeArgument(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

int Control(Next<ControlFunction> &next, int fd, int command, void *argument) {
    if (!IsSimulated(fd))
        return command == F_DUPFD || command == F_DUPFD_CLOEXEC ? CopiedDescriptor(fd, next(fd, command, argument))
                                                                : next(fd, command, argument);
    switch (command) {
    case F_DUPFD:
    case F_DUPFD_CLOEXEC:
        return CopiedDescriptor(fd, next(fd, command, argument));
    case F_GETFL:
        return FlagsOfDevice(fd);
    case F_SETFL:
        return SetFlagsOfDevice(fd, static_cast<int>(reinterpret_cast<std::intptr_t>(argument)));
    case F_GETFD:
    case F_SETFD:
        return next(fd, command, argument);
    default:
        NoteUnserved("fcntl on " + NodePath(MinorOfDevice(fd)));
        return next(fd, command, argument);
    }
}

/// @return the number of an open file description that an inherited descriptor has; -1 for any other descriptor.
int InheritedOpenFile(int fd) {
    struct stat64 status = {};
    if (nextFstat64(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 0)
        return -1;
    return status.st_mtim.tv_sec == kDescriptorStamp ? static_cast<int>(status.st_mtim.tv_nsec) : -1;
}

/// Learns which descriptors the program before exec has left open.
__attribute__((constructor)) void FindInheritedDescriptors() {
    if (StartVariable(kStateVariable) == nullptr)
        return;
    const auto look = [](int fd) { SetOpenFile(fd, InheritedOpenFile(fd)); };
    if (DIR *folder = opendir("/proc/self/fd")) {
        while (const dirent *entry = readdir(folder))
            look(std::atoi(entry->d_name)); // "." and ".." are looked up as 0
        closedir(folder);
    } else {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        constexpr rlim_t kMost = 4096;
        for (int fd = 0; fd < static_cast<int>(std::min(limit.rlim_cur, kMost)); ++fd)
            look(fd);
    }
    for (int fd = 0; fd <= STDERR_FILENO; ++fd)
        FollowStandardStream(fd);
}

} // namespace

int CopiedDescriptor(int fd, int copy) {
    if (copy >= 0) {
        SetOpenFile(copy, IsSimulated(fd) ? OpenFileOf(fd) : -1);
        FollowStandardStream(copy);
    }
    return copy;
}

INTERPOSED int open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(AT_FDCWD, path, flags, [&] { return nextOpen(path, flags, mode); });
}

INTERPOSED int open64(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(AT_FDCWD, path, flags, [&] { return nextOpen64(path, flags, mode); });
}

INTERPOSED int openat(int folder, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(folder, path, flags, [&] { return nextOpenAt(folder, path, flags, mode); });
}

INTERPOSED int openat64(int folder, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(folder, path, flags, [&] { return nextOpenAt64(folder, path, flags, mode); });
}

INTERPOSED int creat(const char *path, mode_t mode) { return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }
INTERPOSED int creat64(const char *path, mode_t mode) { return open64(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }

INTERPOSED int close(int fd) { return IsSimulated(fd) ? CloseDevice(fd) : nextClose(fd); }

INTERPOSED int close_range(unsigned first, unsigned last, int flags) noexcept {
    constexpr unsigned kMost = 1 << 16;
    for (unsigned fd = first; (static_cast<unsigned>(flags) & CLOSE_RANGE_CLOEXEC) == 0 && fd <= std::min(last, kMost);
         ++fd) {
        if (IsSimulated(static_cast<int>(fd)))
            CloseDevice(static_cast<int>(fd));
    }
    return nextCloseRange(first, last, flags);
}

INTERPOSED void closefrom(int first) noexcept { close_range(static_cast<unsigned>(std::max(first, 0)), ~0U, 0); }

INTERPOSED int dup(int fd) noexcept { return CopiedDescriptor(fd, nextDup(fd)); }
INTERPOSED int dup2(int fd, int copy) noexcept { return CopiedDescriptor(fd, nextDup2(fd, copy)); }
INTERPOSED int dup3(int fd, int copy, int flags) noexcept { return CopiedDescriptor(fd, nextDup3(fd, copy, flags)); }

INTERPOSED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return Control(nextFcntl, fd, command, argument);
}

INTERPOSED int fcntl64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return Control(nextFcntl64, fd, command, argument);
}
