#include "preload/Nodes.h"

#include "mtd/Sysfs.h"
#include "preload/Devices.h"
#include "preload/Interface.h"
#include "preload/Next.h"
#include "preload/Simulation.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

Next<int(int, const char *, struct stat64 *, int)> nextFstatat64("fstatat64");
Next<int(int, struct stat64 *)> nextFstat64("fstat64");
Next<int(int, const char *, int, int)> nextFaccessat("faccessat");
Next<int(int)> nextClose("close");
Next<ssize_t(int, const void *, size_t)> nextWrite("write");
Next<off64_t(int, off64_t, int)> nextLseek64("lseek64");
Next<int(int, int, int)> nextDup3("dup3");

constexpr const char *kDevicePrefix = "/dev/mtd";
constexpr const char *kTablePath = "/proc/mtd";

/// Devices of the kernel's other flash layers.
constexpr const char *kUnservedPrefixes[] = {"/dev/mtdblock", "/dev/ubi"};

bool BeginsWith(const char *text, const char *start) { return std::strncmp(text, start, std::strlen(start)) == 0; }

/// @return the minor number that a path names by its characters; -1 when there is none such.
int MinorOfName(const char *path) {
    if (!BeginsWith(path, kDevicePrefix))
        return -1;
    const char *digits = path + std::strlen(kDevicePrefix);
    constexpr std::size_t kMostDigits = 6;
    const std::size_t length = std::strspn(digits, "0123456789");
    const char *end = digits + length;
    const bool isReadOnly = std::strcmp(end, "ro") == 0;
    if (length == 0 || length > kMostDigits || (*end != '\0' && !isReadOnly))
        return -1;
    return 2 * std::atoi(digits) + (isReadOnly ? 1 : 0);
}

/// @return a file with a text, or a negative errno value.
int MakeTextFile(const char *name, const std::string &text, int flags) {
    const int fd = memfd_create(name, (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
    if (fd < 0)
        return -errno;
    nextWrite(fd, text.data(), text.size());
    nextLseek64(fd, off64_t{0}, SEEK_SET);
    return fd;
}

int OpenDeviceTable(int flags) {
    Simulation &simulation = *FindSimulation();
    if ((flags & O_ACCMODE) != O_RDONLY)
        return Return<int>(-EACCES);
    return Return<int>(
        MakeTextFile("mtd", simulation.state.DeviceTable(simulation.chip.Chip().Geometry().eraseSize), flags));
}

/// Puts the present text in place of a live sysfs file that was just opened.
void ReplaceLiveText(int fd, long number, int flags) {
    Simulation &simulation = *FindSimulation();
    const auto device = static_cast<std::size_t>(number / kSysfsPlaces);
    const auto file = static_cast<std::size_t>(number % kSysfsPlaces);
    if (device >= simulation.devices.size() || file >= kSysfsFileCount || (flags & O_ACCMODE) != O_RDONLY)
        return;
    const std::string text =
        SysfsText(file, simulation.devices[device], simulation.chip.Chip(), simulation.state.Counters(device));
    const int live = MakeTextFile(kSysfsFiles[file], text, 0);
    if (live < 0)
        return;
    nextDup3(live, fd, (flags & O_CLOEXEC) != 0 ? O_CLOEXEC : 0);
    nextClose(live);
}

/// Looks at a file that libc has opened: it may represent something of the kernel's.
int FinishOpen(int fd, int flags) {
    const int error = errno;
    SetOpenFile(fd, -1);
    struct stat64 status = {};
    if ((flags & O_PATH) == 0 && nextFstat64(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        if (status.st_mtim.tv_sec == kSysfsStamp) {
            ReplaceLiveText(fd, status.st_mtim.tv_nsec, flags);
        } else if (status.st_mtim.tv_sec == kDescriptorStamp && status.st_nlink == 0) {
            // "/proc/self/fd/3" of a device: a new open file description.
            const int minor = FindSimulation()->state.GetOpenFile(static_cast<int>(status.st_mtim.tv_nsec)).minor;
            nextClose(fd);
            return OpenDevice(minor, flags);
        }
    }
    errno = error;
    return fd;
}

/// @return whether the permissions of a node allow to open it.
bool MayOpen(int folder, const char *path, int flags) {
    const int access = flags & O_ACCMODE;
    const int mode = (access != O_WRONLY ? R_OK : 0) | (access != O_RDONLY ? W_OK : 0);
    return !FindSimulation()->hasNodes || nextFaccessat(folder, path, mode, AT_EACCESS) == 0;
}

bool IsUnservedPath(const char *path) {
    return std::any_of(std::begin(kUnservedPrefixes), std::end(kUnservedPrefixes),
                       [path](const char *prefix) { return BeginsWith(path, prefix); });
}

} // namespace

int MinorOfNode(const struct stat64 &status) {
    const bool isNode = S_ISCHR(status.st_mode) && status.st_rdev == 0 && status.st_mtim.tv_sec == kNodeStamp;
    return isNode ? static_cast<int>(status.st_mtim.tv_nsec) : -1;
}

int MinorOfPath(int folder, const char *path) {
    const Simulation *simulation = FindSimulation();
    if (simulation == nullptr)
        return -1;
    if (!simulation->hasNodes) {
        const int minor = MinorOfName(path);
        return minor >= 0 && simulation->FindDevice(minor / 2) >= 0 ? minor : -1;
    }
    struct stat64 status = {};
    return nextFstatat64(folder, path, &status, 0) == 0 ? MinorOfNode(status) : -1;
}

bool IsDeviceTable(const char *path) {
    const Simulation *simulation = path != nullptr ? FindSimulation() : nullptr;
    // A kernel without the MTD layer has no such file.
    return simulation != nullptr && !simulation->devices.empty() && std::strcmp(path, kTablePath) == 0;
}

int OpenPath(int folder, const char *path, int flags, int (*next)(void *context), void *context) {
    if (path == nullptr || FindSimulation() == nullptr)
        return next(context);
    // Most often it is this name. Of the others libc's failure tells: nobody can open a node.
    const bool isNamed = BeginsWith(path, kDevicePrefix) && (flags & O_PATH) == 0;
    const int error = errno;
    int minor = isNamed ? MinorOfPath(folder, path) : -1;
    if (minor < 0) {
        if (IsDeviceTable(path))
            return OpenDeviceTable(flags);
        // A shell's > would make a file of it.
        if (IsUnservedPath(path) && (flags & O_CREAT) != 0) {
            NoteUnserved(std::string("open of ") + path);
            return Return<int>(-ENOENT);
        }
        const int fd = next(context);
        if (fd >= 0)
            return FinishOpen(fd, flags);
        if (errno == ENOENT && IsUnservedPath(path))
            NoteUnserved(std::string("open of ") + path);
        if (errno != ENXIO && errno != EACCES)
            return fd;
        const int failure = errno;
        minor = MinorOfPath(folder, path);
        errno = failure;
        if (minor < 0)
            return fd;
    }
    errno = error;
    if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0)
        return Return<int>(-EEXIST);
    if ((flags & O_DIRECTORY) != 0)
        return Return<int>(-ENOTDIR);
    if (!MayOpen(folder, path, flags))
        return Return<int>(-EACCES);
    return OpenDevice(minor, flags);
}
