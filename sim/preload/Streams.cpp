// Streams on simulated devices. libc reads and writes for its own streams inside, out of reach, so these streams call
// back.

#include "preload/Streams.h"
#include "preload/Devices.h"
#include "preload/Next.h"
#include "preload/Nodes.h"
#include "preload/Simulation.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <mutex>
#include <unistd.h>

namespace {

Next<FILE *(const char *, const char *)> nextFopen("fopen");
Next<FILE *(const char *, const char *)> nextFopen64("fopen64");
Next<FILE *(const char *, const char *, FILE *)> nextFreopen("freopen");
Next<FILE *(const char *, const char *, FILE *)> nextFreopen64("freopen64");
Next<FILE *(int, const char *)> nextFdopen("fdopen");
Next<int(FILE *)> nextFileno("fileno");

/// libc's buffer for a character device.
constexpr std::size_t kBufferSize = 4096;

struct DeviceStream {
    int fd;
    FILE *stream;
    DeviceStream *next;
    char buffer[kBufferSize];
};

std::mutex streamsMutex;
DeviceStream *streams; ///< all that are open
/// Streams in the place of stdin, stdout and stderr; null until a device first has the descriptor.
FILE *standardStreams[3];

int DescriptorOf(const FILE *stream) {
    const std::lock_guard<std::mutex> lock(streamsMutex);
    const DeviceStream *found = streams;
    while (found != nullptr && found->stream != stream)
        found = found->next;
    return found != nullptr ? found->fd : -1;
}

int CloseStream(void *cookie) {
    const std::unique_ptr<DeviceStream> stream(static_cast<DeviceStream *>(cookie));
    {
        const std::lock_guard<std::mutex> lock(streamsMutex);
        DeviceStream **place = &streams;
        while (*place != stream.get())
            place = &(*place)->next;
        *place = stream->next;
    }
    std::replace(std::begin(standardStreams), std::end(standardStreams), stream->stream, static_cast<FILE *>(nullptr));
    return close(stream->fd);
}

/// Other calls may have put another file in place of the descriptor: they go through the calls for all files.
constexpr cookie_io_functions_t kFunctions = {
    [](void *cookie, char *data, size_t length) { return read(static_cast<DeviceStream *>(cookie)->fd, data, length); },
    [](void *cookie, const char *data, size_t length) -> ssize_t {
        const ssize_t written = write(static_cast<DeviceStream *>(cookie)->fd, data, length);
        return written < 0 ? 0 : written; // libc's way to say that it failed
    },
    [](void *cookie, off64_t *offset, int whence) {
        *offset = lseek64(static_cast<DeviceStream *>(cookie)->fd, *offset, whence);
        return *offset < 0 ? -1 : 0;
    },
    CloseStream,
};

/// @return the flags of open for a mode of fopen; -1 for a bad mode.
int FlagsOfMode(const char *mode) {
    const bool updates = std::strchr(mode, '+') != nullptr;
    int flags = updates ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY;
    flags |= mode[0] == 'w' ? O_CREAT | O_TRUNC : mode[0] == 'a' ? O_CREAT | O_APPEND : 0;
    flags |= std::strchr(mode, 'x') != nullptr ? O_EXCL : 0;
    flags |= std::strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0;
    return std::strchr("rwa", mode[0]) == nullptr || mode[0] == '\0' ? -1 : flags;
}

FILE *Open(Next<FILE *(const char *, const char *)> &next, const char *path, const char *mode) {
    const int flags = FlagsOfMode(mode);
    if (FindSimulation() == nullptr || flags < 0)
        return next(path, mode);
    FILE *stream = nullptr;
    const int fd = OpenPath(AT_FDCWD, path, flags, [&] {
        stream = next(path, mode);
        return stream != nullptr ? nextFileno(stream) : -1;
    });
    if (stream != nullptr || fd < 0)
        return stream;
    return fdopen(fd, mode);
}

FILE *Reopen(Next<FILE *(const char *, const char *, FILE *)> &next, const char *path, const char *mode, FILE *stream) {
    const int minor = path != nullptr ? MinorOfPath(AT_FDCWD, path) : -1;
    if (minor >= 0)
        NoteUnserved("freopen of " + NodePath(minor));
    return next(path, mode, stream);
}

} // namespace

FILE *OpenDeviceStream(int fd, const char *mode) {
    auto own = std::make_unique<DeviceStream>();
    own->fd = fd;
    own->stream = fopencookie(own.get(), mode, kFunctions);
    if (own->stream == nullptr)
        return nullptr;
    std::setvbuf(own->stream, own->buffer, _IOFBF, kBufferSize);
    const std::lock_guard<std::mutex> lock(streamsMutex);
    own->next = streams;
    streams = own.release();
    return streams->stream;
}

void FollowStandardStream(int fd) {
    static FILE *const originals[] = {stdin, stdout, stderr};
    FILE **const places[] = {&stdin, &stdout, &stderr};
    if (fd < 0 || fd > 2)
        return;
    FILE *&own = standardStreams[fd];
    if (IsSimulated(fd) && own == nullptr)
        own = OpenDeviceStream(fd, fd == 0 ? "r" : "w");
    *places[fd] = IsSimulated(fd) && own != nullptr ? own : originals[fd];
}

INTERPOSED FILE *fopen(const char *path, const char *mode) { return Open(nextFopen, path, mode); }
INTERPOSED FILE *fopen64(const char *path, const char *mode) { return Open(nextFopen64, path, mode); }

INTERPOSED FILE *freopen(const char *path, const char *mode, FILE *stream) {
    return Reopen(nextFreopen, path, mode, stream);
}

INTERPOSED FILE *freopen64(const char *path, const char *mode, FILE *stream) {
    return Reopen(nextFreopen64, path, mode, stream);
}

INTERPOSED FILE *fdopen(int fd, const char *mode) noexcept {
    return IsSimulated(fd) ? OpenDeviceStream(fd, mode) : nextFdopen(fd, mode);
}

INTERPOSED int fileno(FILE *stream) noexcept {
    const int error = errno;
    const int fd = nextFileno(stream);
    const int own = fd < 0 ? DescriptorOf(stream) : -1;
    if (own < 0)
        return fd;
    errno = error;
    return own;
}

INTERPOSED int fileno_unlocked(FILE *stream) noexcept { return fileno(stream); }
