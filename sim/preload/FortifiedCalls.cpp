// What programs built with _FORTIFY_SOURCE call in place of the functions without the underscores.

#include "preload/Next.h"

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/types.h>
#include <unistd.h>

// NOLINTBEGIN(bugprone-reserved-identifier)

INTERPOSED int __open_2(const char *path, int flags) { return open(path, flags); }
INTERPOSED int __open64_2(const char *path, int flags) { return open64(path, flags); }
INTERPOSED int __openat_2(int folder, const char *path, int flags) { return openat(folder, path, flags); }
INTERPOSED int __openat64_2(int folder, const char *path, int flags) { return openat64(folder, path, flags); }

INTERPOSED ssize_t __read_chk(int fd, void *data, size_t length, size_t room) {
    return length > room ? (std::abort(), -1) : read(fd, data, length);
}

INTERPOSED ssize_t __pread_chk(int fd, void *data, size_t length, off_t offset, size_t room) {
    return length > room ? (std::abort(), -1) : pread(fd, data, length, offset);
}

INTERPOSED ssize_t __pread64_chk(int fd, void *data, size_t length, off64_t offset, size_t room) {
    return length > room ? (std::abort(), -1) : pread64(fd, data, length, offset);
}

INTERPOSED int __poll_chk(pollfd *files, nfds_t count, int timeout, size_t room) {
    return count > room / sizeof *files ? (std::abort(), -1) : poll(files, count, timeout);
}

INTERPOSED ssize_t __readlink_chk(const char *path, char *text, size_t length, size_t room) {
    return length > room ? (std::abort(), -1) : readlink(path, text, length);
}

INTERPOSED ssize_t __readlinkat_chk(int folder, const char *path, char *text, size_t length, size_t room) {
    return length > room ? (std::abort(), -1) : readlinkat(folder, path, text, length);
}

// NOLINTEND(bugprone-reserved-identifier)
