// Calls that use descriptors of devices.

#include "preload/Devices.h"
#include "preload/Next.h"
#include "preload/Nodes.h"
#include "preload/Simulation.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

namespace {

Next<ssize_t(int, void *, size_t)> nextRead("read");
Next<ssize_t(int, void *, size_t, off64_t)> nextPread64("pread64");
Next<ssize_t(int, const iovec *, int)> nextReadv("readv");
Next<ssize_t(int, const iovec *, int, off64_t)> nextPreadv64("preadv64");
Next<ssize_t(int, const iovec *, int, off64_t, int)> nextPreadv64v2("preadv64v2");
Next<ssize_t(int, const void *, size_t)> nextWrite("write");
Next<ssize_t(int, const void *, size_t, off64_t)> nextPwrite64("pwrite64");
Next<ssize_t(int, const iovec *, int)> nextWritev("writev");
Next<ssize_t(int, const iovec *, int, off64_t)> nextPwritev64("pwritev64");
Next<ssize_t(int, const iovec *, int, off64_t, int)> nextPwritev64v2("pwritev64v2");
Next<off64_t(int, off64_t, int)> nextLseek64("lseek64");
Next<int(int, unsigned long, ...)> nextIoctl("ioctl");
Next<int(int, off64_t)> nextFtruncate64("ftruncate64");
Next<int(int, int, off64_t, off64_t)> nextFallocate64("fallocate64");
Next<int(int, off64_t, off64_t)> nextPosixFallocate64("posix_fallocate64");
Next<int(int, off64_t, off64_t, int)> nextPosixFadvise64("posix_fadvise64");
Next<int(int, int)> nextFlock("flock");
Next<int(int, int, off64_t)> nextLockf64("lockf64");
Next<int(pollfd *, nfds_t, int)> nextPoll("poll");
Next<int(pollfd *, nfds_t, const timespec *, const sigset_t *)> nextPpoll("ppoll");
Next<int(int, fd_set *, fd_set *, fd_set *, timeval *)> nextSelect("select");
Next<int(int, fd_set *, fd_set *, fd_set *, const timespec *, const sigset_t *)> nextPselect("pselect");
Next<int(int, int, int, epoll_event *)> nextEpollCtl("epoll_ctl");
Next<void *(void *, size_t, int, int, int, off64_t)> nextMmap64("mmap64");
Next<ssize_t(int, int, off64_t *, size_t)> nextSendfile64("sendfile64");
Next<ssize_t(int, off64_t *, int, off64_t *, size_t, unsigned)> nextSplice("splice");
Next<ssize_t(int, off64_t *, int, off64_t *, size_t, unsigned)> nextCopyFileRange("copy_file_range");
Next<long(long, ...)> nextSyscall("syscall");

enum class Direction { Read, Write };

/// Reads or writes part by part, as the kernel does for a device that takes no vectors.
/// @param offset null for the position
ssize_t MoveParts(Direction direction, int fd, const iovec *parts, int count, const off64_t *offset) {
    constexpr int kMostParts = 1024;
    if (count < 0 || count > kMostParts)
        return Return<ssize_t>(-EINVAL);
    // The kernel never asks the device for nothing at all.
    if (std::all_of(parts, parts + count, [](const iovec &part) { return part.iov_len == 0; })) {
        const int unfit = direction == Direction::Read ? O_WRONLY : O_RDONLY;
        const bool isNegative = offset != nullptr && *offset < 0;
        return Return<ssize_t>(isNegative ? -EINVAL : (FlagsOfDevice(fd) & O_ACCMODE) == unfit ? -EBADF : 0);
    }
    ssize_t total = 0;
    for (int i = 0; i < count; ++i) {
        const off64_t place = offset != nullptr ? *offset + total : 0;
        const off64_t *own = offset != nullptr ? &place : nullptr;
        const ssize_t moved = direction == Direction::Read ? ReadDevice(fd, parts[i].iov_base, parts[i].iov_len, own)
                                                           : WriteDevice(fd, parts[i].iov_base, parts[i].iov_len, own);
        if (moved < 0)
            return total > 0 ? total : moved;
        total += moved;
        if (static_cast<size_t>(moved) < parts[i].iov_len)
            break;
    }
    return total;
}

/// preadv2 and pwritev2: the offset -1 means the position, and no flag is known to the driver.
ssize_t MoveParts2(Direction direction, int fd, const iovec *parts, int count, off64_t offset, int flags) {
    constexpr int kHighPriority = 1;
    if ((flags & ~kHighPriority) != 0)
        return Return<ssize_t>(-EOPNOTSUPP);
    return MoveParts(direction, fd, parts, count, offset == -1 ? nullptr : &offset);
}

/// What a file without a poll operation is always ready for.
constexpr short kAlwaysReady = POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM;

/// Polls devices, which are always ready, and other files by `next`.
/// @param next polls the files with a negative descriptor for each device; its second argument is true when it must not
///        wait
template <typename Next> int PollFiles(pollfd *files, nfds_t count, Next next) {
    const auto isDevice = [](const pollfd &file) { return IsSimulated(file.fd); };
    if (std::none_of(files, files + count, isDevice))
        return next(files, false);
    std::vector<pollfd> others(files, files + count);
    int ready = 0;
    for (pollfd &file : others) {
        if (!isDevice(file))
            continue;
        ready += (file.events & kAlwaysReady) != 0 ? 1 : 0;
        file.fd = -1;
    }
    const int result = next(others.data(), ready > 0);
    if (result < 0)
        return result;
    for (nfds_t i = 0; i < count; ++i)
        files[i].revents = isDevice(files[i]) ? static_cast<short>(files[i].events & kAlwaysReady) : others[i].revents;
    return result + ready;
}

/// The same for the sets of select. The set for exceptions never has a device.
/// @param next selects; its argument is true when it must not wait
template <typename Next> int SelectFiles(int count, fd_set *readers, fd_set *writers, fd_set *failures, Next next) {
    std::vector<std::pair<fd_set *, int>> ready;
    for (int fd = 0; fd < std::min(count, FD_SETSIZE); ++fd) {
        if (!IsSimulated(fd))
            continue;
        for (fd_set *set : {readers, writers, failures}) {
            if (set == nullptr || !FD_ISSET(fd, set))
                continue;
            FD_CLR(fd, set);
            if (set != failures)
                ready.emplace_back(set, fd);
        }
    }
    const int result = next(!ready.empty());
    if (result < 0)
        return result;
    for (const auto &[set, fd] : ready)
        FD_SET(fd, set);
    return result + static_cast<int>(ready.size());
}

void NoteCall(const char *call, int fd) { NoteUnserved(std::string(call) + " of " + NodePath(MinorOfDevice(fd))); }

} // namespace

INTERPOSED ssize_t read(int fd, void *data, size_t length) {
    return IsSimulated(fd) ? ReadDevice(fd, data, length, nullptr) : nextRead(fd, data, length);
}

INTERPOSED ssize_t pread64(int fd, void *data, size_t length, off64_t offset) {
    return IsSimulated(fd) ? ReadDevice(fd, data, length, &offset) : nextPread64(fd, data, length, offset);
}

INTERPOSED ssize_t pread(int fd, void *data, size_t length, off_t offset) { return pread64(fd, data, length, offset); }

INTERPOSED ssize_t readv(int fd, const iovec *parts, int count) {
    return IsSimulated(fd) ? MoveParts(Direction::Read, fd, parts, count, nullptr) : nextReadv(fd, parts, count);
}

INTERPOSED ssize_t preadv64(int fd, const iovec *parts, int count, off64_t offset) {
    return IsSimulated(fd) ? MoveParts(Direction::Read, fd, parts, count, &offset)
                           : nextPreadv64(fd, parts, count, offset);
}

INTERPOSED ssize_t preadv(int fd, const iovec *parts, int count, off_t offset) {
    return preadv64(fd, parts, count, offset);
}

INTERPOSED ssize_t preadv64v2(int fd, const iovec *parts, int count, off64_t offset, int flags) {
    return IsSimulated(fd) ? MoveParts2(Direction::Read, fd, parts, count, offset, flags)
                           : nextPreadv64v2(fd, parts, count, offset, flags);
}

INTERPOSED ssize_t preadv2(int fd, const iovec *parts, int count, off_t offset, int flags) {
    return preadv64v2(fd, parts, count, offset, flags);
}

INTERPOSED ssize_t write(int fd, const void *data, size_t length) {
    return IsSimulated(fd) ? WriteDevice(fd, data, length, nullptr) : nextWrite(fd, data, length);
}

INTERPOSED ssize_t pwrite64(int fd, const void *data, size_t length, off64_t offset) {
    return IsSimulated(fd) ? WriteDevice(fd, data, length, &offset) : nextPwrite64(fd, data, length, offset);
}

INTERPOSED ssize_t pwrite(int fd, const void *data, size_t length, off_t offset) {
    return pwrite64(fd, data, length, offset);
}

INTERPOSED ssize_t writev(int fd, const iovec *parts, int count) {
    return IsSimulated(fd) ? MoveParts(Direction::Write, fd, parts, count, nullptr) : nextWritev(fd, parts, count);
}

INTERPOSED ssize_t pwritev64(int fd, const iovec *parts, int count, off64_t offset) {
    return IsSimulated(fd) ? MoveParts(Direction::Write, fd, parts, count, &offset)
                           : nextPwritev64(fd, parts, count, offset);
}

INTERPOSED ssize_t pwritev(int fd, const iovec *parts, int count, off_t offset) {
    return pwritev64(fd, parts, count, offset);
}

INTERPOSED ssize_t pwritev64v2(int fd, const iovec *parts, int count, off64_t offset, int flags) {
    return IsSimulated(fd) ? MoveParts2(Direction::Write, fd, parts, count, offset, flags)
                           : nextPwritev64v2(fd, parts, count, offset, flags);
}

INTERPOSED ssize_t pwritev2(int fd, const iovec *parts, int count, off_t offset, int flags) {
    return pwritev64v2(fd, parts, count, offset, flags);
}

INTERPOSED off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
    return IsSimulated(fd) ? SeekDevice(fd, offset, whence) : nextLseek64(fd, offset, whence);
}

INTERPOSED off_t lseek(int fd, off_t offset, int whence) noexcept { return lseek64(fd, offset, whence); }

INTERPOSED int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return IsSimulated(fd) ? ControlDevice(fd, request, argument) : nextIoctl(fd, request, argument);
}

// What the kernel refuses for a character device of this kind.

INTERPOSED int ftruncate64(int fd, off64_t length) noexcept {
    return IsSimulated(fd) ? Return<int>(-EINVAL) : nextFtruncate64(fd, length);
}
INTERPOSED int ftruncate(int fd, off_t length) noexcept { return ftruncate64(fd, length); }

INTERPOSED int fallocate64(int fd, int mode, off64_t offset, off64_t length) {
    return IsSimulated(fd) ? Return<int>(-ENODEV) : nextFallocate64(fd, mode, offset, length);
}
INTERPOSED int fallocate(int fd, int mode, off_t offset, off_t length) { return fallocate64(fd, mode, offset, length); }

INTERPOSED int posix_fallocate64(int fd, off64_t offset, off64_t length) {
    return IsSimulated(fd) ? ENODEV : nextPosixFallocate64(fd, offset, length);
}
INTERPOSED int posix_fallocate(int fd, off_t offset, off_t length) { return posix_fallocate64(fd, offset, length); }

INTERPOSED int posix_fadvise64(int fd, off64_t offset, off64_t length, int advice) noexcept {
    return IsSimulated(fd) ? 0 : nextPosixFadvise64(fd, offset, length, advice);
}
INTERPOSED int posix_fadvise(int fd, off_t offset, off_t length, int advice) noexcept {
    return posix_fadvise64(fd, offset, length, advice);
}

INTERPOSED ssize_t sendfile64(int to, int from, off64_t *offset, size_t length) noexcept {
    return IsSimulated(to) || IsSimulated(from) ? Return<ssize_t>(-EINVAL) : nextSendfile64(to, from, offset, length);
}
INTERPOSED ssize_t sendfile(int to, int from, off_t *offset, size_t length) noexcept {
    return sendfile64(to, from, offset, length);
}

INTERPOSED ssize_t splice(int from, off64_t *fromOffset, int to, off64_t *toOffset, size_t length, unsigned flags) {
    return IsSimulated(to) || IsSimulated(from) ? Return<ssize_t>(-EINVAL)
                                                : nextSplice(from, fromOffset, to, toOffset, length, flags);
}

INTERPOSED ssize_t copy_file_range(int from, off64_t *fromOffset, int to, off64_t *toOffset, size_t length,
                                   unsigned flags) {
    return IsSimulated(to) || IsSimulated(from) ? Return<ssize_t>(-EINVAL)
                                                : nextCopyFileRange(from, fromOffset, to, toOffset, length, flags);
}

INTERPOSED int epoll_ctl(int queue, int operation, int fd, epoll_event *event) noexcept {
    return IsSimulated(fd) ? Return<int>(-EPERM) : nextEpollCtl(queue, operation, fd, event);
}

INTERPOSED void *mmap64(void *place, size_t length, int protection, int flags, int fd, off64_t offset) noexcept {
    if (!IsSimulated(fd) || (flags & MAP_ANONYMOUS) != 0)
        return nextMmap64(place, length, protection, flags, fd, offset);
    NoteCall("mmap", fd);
    // The kernel looks at the access mode before it asks the device.
    const int access = FlagsOfDevice(fd) & O_ACCMODE;
    const bool writes = (flags & MAP_TYPE) != MAP_PRIVATE && (protection & PROT_WRITE) != 0;
    errno = access == O_WRONLY || (writes && access == O_RDONLY) ? EACCES : ENODEV;
    return MAP_FAILED;
}

INTERPOSED void *mmap(void *place, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
    return mmap64(place, length, protection, flags, fd, offset);
}

// Locks are the kernel's, which knows no device here.

INTERPOSED int flock(int fd, int operation) noexcept {
    if (IsSimulated(fd))
        NoteCall("lock", fd);
    return nextFlock(fd, operation);
}

INTERPOSED int lockf64(int fd, int command, off64_t length) {
    if (IsSimulated(fd))
        NoteCall("lock", fd);
    return nextLockf64(fd, command, length);
}
INTERPOSED int lockf(int fd, int command, off_t length) { return lockf64(fd, command, length); }

// Waiting.

INTERPOSED int poll(pollfd *files, nfds_t count, int timeout) {
    return PollFiles(files, count,
                     [=](pollfd *others, bool isReady) { return nextPoll(others, count, isReady ? 0 : timeout); });
}

INTERPOSED int ppoll(pollfd *files, nfds_t count, const timespec *timeout, const sigset_t *signals) {
    const timespec none = {};
    return PollFiles(files, count, [&](pollfd *others, bool isReady) {
        return nextPpoll(others, count, isReady ? &none : timeout, signals);
    });
}

INTERPOSED int select(int count, fd_set *readers, fd_set *writers, fd_set *failures, timeval *timeout) {
    timeval none = {};
    return SelectFiles(count, readers, writers, failures, [&](bool isReady) {
        return nextSelect(count, readers, writers, failures, isReady ? &none : timeout);
    });
}

INTERPOSED int pselect(int count, fd_set *readers, fd_set *writers, fd_set *failures, const timespec *timeout,
                       const sigset_t *signals) {
    const timespec none = {};
    return SelectFiles(count, readers, writers, failures, [&](bool isReady) {
        return nextPselect(count, readers, writers, failures, isReady ? &none : timeout, signals);
    });
}

/// System calls by number: the kernel refuses a device's descriptor and the nodes.
INTERPOSED long syscall(long number, ...) noexcept {
    va_list arguments;
    va_start(arguments, number);
    long values[6];
    for (long &value : values)
        value = va_arg(arguments, long);
    va_end(arguments);
    constexpr long kOnDescriptors[] = {SYS_read,   SYS_write, SYS_pread64, SYS_pwrite64, SYS_readv,
                                       SYS_writev, SYS_lseek, SYS_ioctl,   SYS_mmap};
    const int fd = static_cast<int>(values[number == SYS_mmap ? 4 : 0]);
    const auto *end = std::end(kOnDescriptors);
    if (IsSimulated(fd) && std::find(std::begin(kOnDescriptors), end, number) != end)
        NoteCall("raw system call", fd);
    const bool isOpen = number == SYS_openat || number == SYS_openat2;
    const char *path = nullptr;
    std::memcpy(&path, &values[1], sizeof path);
    const int minor = isOpen && path != nullptr ? MinorOfPath(static_cast<int>(values[0]), path) : -1;
    if (minor >= 0)
        NoteUnserved("raw system call on " + NodePath(minor));
    return nextSyscall(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}
