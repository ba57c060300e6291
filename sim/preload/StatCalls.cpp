// The status of files: nodes of devices and descriptors on them are character devices of the MTD's numbers.

#include "preload/Devices.h"
#include "preload/Interface.h"
#include "preload/Next.h"
#include "preload/Nodes.h"
#include "preload/Simulation.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

Next<int(int, const char *, struct stat64 *, int)> nextFstatat64("fstatat64");
Next<int(int, struct stat64 *)> nextFstat64("fstat64");
Next<int(int, const char *, int, unsigned, struct statx *)> nextStatx("statx");
Next<int(const char *, int)> nextAccess("access");
Next<int(int, const char *, int, int)> nextFaccessat("faccessat");
Next<int(const char *, int)> nextEuidaccess("euidaccess");
Next<ssize_t(const char *, char *, size_t)> nextReadlink("readlink");
Next<ssize_t(int, const char *, char *, size_t)> nextReadlinkat("readlinkat");
Next<int(const char *, mode_t, dev_t)> nextMknod("mknod");
Next<int(int, const char *, mode_t, dev_t)> nextMknodat("mknodat");

/// 64-bit programs have one record for both families of calls.
static_assert(sizeof(struct stat) == sizeof(struct stat64));
struct stat64 *Wide(struct stat *status) {
    return reinterpret_cast<struct stat64 *>(status);
}

constexpr mode_t kNodeMode = S_IFCHR | 0600;
constexpr mode_t kTableMode = S_IFREG | 0444;

/// The status of what has no file of its own.
int Invent(struct stat64 *status, mode_t mode, int minor) {
    *status = {};
    status->st_mode = mode;
    status->st_nlink = 1;
    status->st_blksize = 4096;
    if (minor >= 0)
        status->st_rdev = makedev(kMtdMajor, static_cast<unsigned>(minor));
    return 0;
}

int StatPath(int folder, const char *path, struct stat64 *status, int flags) {
    const int error = errno;
    if ((flags & AT_EMPTY_PATH) != 0 && path != nullptr && *path == '\0' && IsSimulated(folder)) {
        const std::string node = NodePath(MinorOfDevice(folder));
        return StatPath(AT_FDCWD, node.c_str(), status, 0);
    }
    const int result = nextFstatat64(folder, path, status, flags);
    if (result == 0) {
        const int minor = MinorOfNode(*status);
        if (minor >= 0)
            status->st_rdev = makedev(kMtdMajor, static_cast<unsigned>(minor));
        return result;
    }
    if (errno != ENOENT || path == nullptr)
        return result;
    const int minor = MinorOfPath(folder, path);
    if (minor < 0 && !IsDeviceTable(path)) {
        errno = ENOENT;
        return result;
    }
    errno = error;
    return Invent(status, minor >= 0 ? kNodeMode : kTableMode, minor);
}

int StatDescriptor(int fd, struct stat64 *status) {
    if (IsSimulated(fd))
        return StatPath(fd, "", status, AT_EMPTY_PATH);
    const int result = nextFstat64(fd, status);
    const int minor = result == 0 ? MinorOfNode(*status) : -1; // a path descriptor
    if (minor >= 0)
        status->st_rdev = makedev(kMtdMajor, static_cast<unsigned>(minor));
    return result;
}

/// @return the result of an access check; the device table exists and is readable.
template <typename Check> int CheckAccess(const char *path, int mode, Check check) {
    const int error = errno;
    const int result = check();
    if (result == 0 || errno != ENOENT || !IsDeviceTable(path))
        return result;
    errno = error;
    return (mode & (W_OK | X_OK)) == 0 ? 0 : Return<int>(-EACCES);
}

/// "/proc/self/fd/3" of a device leads to the node.
ssize_t ShowNode(char *text, size_t room, ssize_t length) {
    constexpr const char *kStart = "/memfd:mtd";
    constexpr const char *kEnd = " (deleted)";
    std::string target(text, static_cast<size_t>(length < 0 ? 0 : length));
    if (target.rfind(kStart, 0) != 0 || FindSimulation() == nullptr)
        return length;
    target = "/dev/" + target.substr(std::strlen("/memfd:"));
    target.resize(std::min(target.find(kEnd), target.size()));
    // Callers clear the text in advance for its end.
    std::fill_n(text, length, '\0');
    return static_cast<ssize_t>(target.copy(text, room));
}

/// Makes a node of a device in the only way that a sandbox has.
template <typename Make> int MakeNode(int folder, const char *path, mode_t mode, dev_t device, Make make) {
    if (!S_ISCHR(mode) || major(device) != kMtdMajor || FindSimulation() == nullptr)
        return make(device);
    const int result = make(dev_t{0});
    const timespec stamp = {kNodeStamp, static_cast<long>(minor(device))};
    const timespec times[] = {stamp, stamp};
    return result == 0 ? utimensat(folder, path, times, AT_SYMLINK_NOFOLLOW) : result;
}

} // namespace

INTERPOSED int stat(const char *path, struct stat *status) noexcept {
    return StatPath(AT_FDCWD, path, Wide(status), 0);
}
INTERPOSED int stat64(const char *path, struct stat64 *status) noexcept { return StatPath(AT_FDCWD, path, status, 0); }
INTERPOSED int lstat(const char *path, struct stat *status) noexcept {
    return StatPath(AT_FDCWD, path, Wide(status), AT_SYMLINK_NOFOLLOW);
}
INTERPOSED int lstat64(const char *path, struct stat64 *status) noexcept {
    return StatPath(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}
INTERPOSED int fstat(int fd, struct stat *status) noexcept { return StatDescriptor(fd, Wide(status)); }
INTERPOSED int fstat64(int fd, struct stat64 *status) noexcept { return StatDescriptor(fd, status); }
INTERPOSED int fstatat(int folder, const char *path, struct stat *status, int flags) noexcept {
    return StatPath(folder, path, Wide(status), flags);
}
INTERPOSED int fstatat64(int folder, const char *path, struct stat64 *status, int flags) noexcept {
    return StatPath(folder, path, status, flags);
}

INTERPOSED int statx(int folder, const char *path, int flags, unsigned mask, struct statx *status) noexcept {
    const bool isDescriptor = (flags & AT_EMPTY_PATH) != 0 && *path == '\0';
    const std::string node = isDescriptor && IsSimulated(folder) ? NodePath(MinorOfDevice(folder)) : "";
    const int error = errno;
    const int result = node.empty() ? nextStatx(folder, path, flags, mask, status)
                                    : nextStatx(AT_FDCWD, node.c_str(), flags & ~AT_EMPTY_PATH, mask, status);
    struct stat64 plain = {};
    const char *place = node.empty() ? path : node.c_str();
    const bool mayBeNode = result == 0 ? S_ISCHR(status->stx_mode) : errno == ENOENT;
    if (!mayBeNode ||
        StatPath(node.empty() ? folder : AT_FDCWD, place, &plain, flags & (AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW)) != 0)
        return result;
    if (result != 0) {
        *status = {};
        status->stx_mask = STATX_TYPE | STATX_MODE | STATX_NLINK;
        status->stx_mode = static_cast<__u16>(plain.st_mode);
        status->stx_nlink = 1;
        status->stx_blksize = static_cast<__u32>(plain.st_blksize);
        errno = error;
    }
    status->stx_rdev_major = major(plain.st_rdev);
    status->stx_rdev_minor = minor(plain.st_rdev);
    return 0;
}

INTERPOSED int access(const char *path, int mode) noexcept {
    return CheckAccess(path, mode, [=] { return nextAccess(path, mode); });
}
INTERPOSED int faccessat(int folder, const char *path, int mode, int flags) noexcept {
    return CheckAccess(path, mode, [=] { return nextFaccessat(folder, path, mode, flags); });
}
INTERPOSED int euidaccess(const char *path, int mode) noexcept {
    return CheckAccess(path, mode, [=] { return nextEuidaccess(path, mode); });
}
INTERPOSED int eaccess(const char *path, int mode) noexcept { return euidaccess(path, mode); }

INTERPOSED ssize_t readlink(const char *path, char *text, size_t room) noexcept {
    return ShowNode(text, room, nextReadlink(path, text, room));
}
INTERPOSED ssize_t readlinkat(int folder, const char *path, char *text, size_t room) noexcept {
    return ShowNode(text, room, nextReadlinkat(folder, path, text, room));
}

INTERPOSED int mknod(const char *path, mode_t mode, dev_t device) noexcept {
    return MakeNode(AT_FDCWD, path, mode, device, [=](dev_t number) { return nextMknod(path, mode, number); });
}
INTERPOSED int mknodat(int folder, const char *path, mode_t mode, dev_t device) noexcept {
    return MakeNode(folder, path, mode, device, [=](dev_t number) { return nextMknodat(folder, path, mode, number); });
}

// What programs built for older versions of libc call instead.
// NOLINTBEGIN(bugprone-reserved-identifier)

INTERPOSED int __xstat(int /*version*/, const char *path, struct stat *status) noexcept { return stat(path, status); }
INTERPOSED int __xstat64(int /*version*/, const char *path, struct stat64 *status) noexcept {
    return stat64(path, status);
}
INTERPOSED int __lxstat(int /*version*/, const char *path, struct stat *status) noexcept { return lstat(path, status); }
INTERPOSED int __lxstat64(int /*version*/, const char *path, struct stat64 *status) noexcept {
    return lstat64(path, status);
}
INTERPOSED int __fxstat(int /*version*/, int fd, struct stat *status) noexcept { return fstat(fd, status); }
INTERPOSED int __fxstat64(int /*version*/, int fd, struct stat64 *status) noexcept { return fstat64(fd, status); }
INTERPOSED int __fxstatat(int /*version*/, int folder, const char *path, struct stat *status, int flags) noexcept {
    return fstatat(folder, path, status, flags);
}
INTERPOSED int __fxstatat64(int /*version*/, int folder, const char *path, struct stat64 *status, int flags) noexcept {
    return fstatat64(folder, path, status, flags);
}
INTERPOSED int __xmknod(int /*version*/, const char *path, mode_t mode, dev_t *device) noexcept {
    return mknod(path, mode, *device);
}
INTERPOSED int __xmknodat(int /*version*/, int folder, const char *path, mode_t mode, dev_t *device) noexcept {
    return mknodat(folder, path, mode, *device);
}

// NOLINTEND(bugprone-reserved-identifier)
