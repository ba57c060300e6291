#include "preload/Devices.h"

#include "base/Text.h"
#include "mtd/MtdDevice.h"
#include "mtd/Trace.h"
#include "preload/Branches.h"
#include "preload/Interface.h"
#include "preload/Next.h"
#include "preload/OwnRecord.h"
#include "preload/Simulation.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/blkpg.h>
#include <memory>
#include <mtd/mtd-user.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

Next<int(const char *, int, ...)> nextOpen("open");
Next<int(int)> nextClose("close");
Next<int(int, int, ...)> nextFcntl("fcntl");
Next<int(int, int, int)> nextDup3("dup3");

/// A descriptor's device and what it is used with.
struct Handle {
    explicit Handle(int fd)
        : simulation(*FindSimulation()), file(simulation.state.GetOpenFile(OpenFileOf(fd))),
          place(static_cast<std::size_t>(simulation.FindDevice(file.minor / 2))), part(simulation.devices[place]),
          device(simulation.chip.Chip(), simulation.state,
                 {part.offset, part.size, simulation.state.Counters(place), simulation.state.Cache()}) {}

    Simulation &simulation;
    OpenFile &file;
    std::size_t place;
    const SimDevice &part;
    MtdDevice device;
};

/// Makes one request: counts it, lets a fault fail it or `carryOut` answer it, traces it as `describe` says.
template <typename CarryOut, typename Describe>
std::int64_t Perform(SimState &state, RequestKind kind, Base base, CarryOut carryOut, Describe describe) {
    const bool traces = state.Traces();
    const std::string text = traces ? describe() : std::string();
    int fault = state.Begin(kind);
    if (state.IsAtStop())
        fault = StopForBranches(state.Stop(), fault);
    const std::int64_t result = fault != 0 ? -fault : carryOut();
    if (traces)
        state.Trace(text + ResultText(result, base));
    return result;
}

/// Makes a descriptor for an open file description; it has the lowest free number, as the real one would. It can be
/// duplicated, inherited and closed, and refuses every read and write that doesn't come through here.
/// @return the descriptor or a negative errno value
int MakeDescriptor(int openFile, int minor, bool closeOnExec) {
    const int fd = memfd_create(NodePath(minor).c_str() + std::strlen("/dev/"), MFD_CLOEXEC);
    if (fd < 0)
        return -errno;
    // Programs started by exec find the number here.
    const timespec stamp = {kDescriptorStamp, openFile};
    const timespec times[] = {stamp, stamp};
    const int path = nextOpen(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_PATH);
    const bool isDone = futimens(fd, times) == 0 && path >= 0 && nextDup3(path, fd, closeOnExec ? O_CLOEXEC : 0) >= 0;
    const int error = errno;
    if (path >= 0)
        nextClose(path);
    if (isDone)
        return fd;
    nextClose(fd);
    return -error;
}

std::int64_t OpenNode(int minor, int flags) {
    Simulation &simulation = *FindSimulation();
    // The odd minor numbers are read-only.
    if ((flags & O_ACCMODE) != O_RDONLY && minor % 2 != 0)
        return -EACCES;
    if (simulation.FindDevice(minor / 2) < 0)
        return -ENODEV;
    const int openFile = simulation.state.NewOpenFile({0, minor, flags});
    if (openFile < 0)
        return -ENFILE;
    const int fd = MakeDescriptor(openFile, minor, (flags & O_CLOEXEC) != 0);
    if (fd >= 0)
        SetOpenFile(fd, openFile);
    return fd;
}

/// Reads or writes through a device.
template <typename Move>
ssize_t Transfer(int fd, RequestKind kind, const char *name, size_t length, const off64_t *offset, Move move) {
    Handle handle(fd);
    OpenFile own = handle.file;
    own.position = offset != nullptr ? *offset : 0;
    OpenFile &file = offset != nullptr ? own : handle.file;
    const auto transfer = [&] { return file.position < 0 ? -EINVAL : move(handle.device, file); };
    const auto describe = [&] {
        const std::string place =
            offset != nullptr ? FormatText(" offset=0x%" PRIx64, static_cast<std::uint64_t>(*offset)) : "";
        return FormatText("%s mtd%d%s length=%zu", name, handle.part.number, place.c_str(), length);
    };
    return Return<ssize_t>(Perform(handle.simulation.state, kind, Base::Decimal, transfer, describe));
}

/// Keeps the environments that an erase request is about to destroy.
void RecordErase(const SimDevice &part, unsigned long number, const void *argument) {
    std::uint64_t start = part.size, length = 0;
    if (number == MEMERASE64 && argument != nullptr) {
        start = static_cast<const erase_info_user64 *>(argument)->start;
        length = static_cast<const erase_info_user64 *>(argument)->length;
    } else if (number == MEMERASE && argument != nullptr) {
        start = static_cast<const erase_info_user *>(argument)->start;
        length = static_cast<const erase_info_user *>(argument)->length;
    }
    if (start < part.size)
        RecordErased(part.offset + start, std::min(length, part.size - start));
}

/// Requests that the kernel answers itself, for files of any kind.
/// @return false when the number is none of them
bool ControlFile(int fd, unsigned long number, const void *argument, int &result) {
    switch (number) {
    case FIOCLEX:
    case FIONCLEX:
        result = nextFcntl(fd, F_SETFD, number == FIOCLEX ? FD_CLOEXEC : 0);
        return true;
    case FIONBIO: {
        const bool isSet = argument != nullptr && *static_cast<const int *>(argument) != 0;
        const int others = FlagsOfDevice(fd) & ~O_NONBLOCK;
        result = argument == nullptr ? Return<int>(-EFAULT) : SetFlagsOfDevice(fd, others | (isSet ? O_NONBLOCK : 0));
        return true;
    }
    default:
        return false;
    }
}

} // namespace

std::string NodePath(int minor) { return FormatText("/dev/mtd%d%s", minor / 2, minor % 2 != 0 ? "ro" : ""); }

int OpenDevice(int minor, int flags) {
    return Return<int>(Perform(
        FindSimulation()->state, RequestKind::Open, Base::Decimal, [=] { return OpenNode(minor, flags); },
        [=] { return FormatText("open mtd%d flags=%s", minor / 2, OpenFlagsText(flags).c_str()); }));
}

int CloseDevice(int fd) {
    const Handle handle(fd);
    SetOpenFile(fd, -1);
    const std::int64_t result = Perform(
        handle.simulation.state, RequestKind::Close, Base::Decimal, [] { return 0; },
        [&] { return FormatText("close mtd%d", handle.part.number); });
    nextClose(fd);
    return Return<int>(result);
}

ssize_t ReadDevice(int fd, void *data, size_t length, const off64_t *offset) {
    const Handle handle(fd);
    const std::int64_t position = offset != nullptr ? *offset : handle.file.position;
    const ssize_t count = Transfer(fd, RequestKind::Read, offset != nullptr ? "pread" : "read", length, offset,
                                   [&](MtdDevice &device, OpenFile &file) { return device.Read(file, data, length); });
    if (count > 0)
        RecordRead(handle.part.offset + static_cast<std::uint64_t>(position), data, static_cast<std::size_t>(count));
    return count;
}

ssize_t WriteDevice(int fd, const void *data, size_t length, const off64_t *offset) {
    return Transfer(fd, RequestKind::Write, offset != nullptr ? "pwrite" : "write", length, offset,
                    [&](MtdDevice &device, OpenFile &file) { return device.Write(file, data, length); });
}

off64_t SeekDevice(int fd, off64_t offset, int whence) {
    const Handle handle(fd);
    const auto seek = [&] { return handle.device.Seek(handle.file, offset, whence); };
    const auto describe = [&] {
        const char *from = whence == SEEK_CUR ? " whence=SEEK_CUR" : whence == SEEK_END ? " whence=SEEK_END" : "";
        const char *sign = offset < 0 ? "-" : "";
        const std::uint64_t distance =
            offset < 0 ? 0 - static_cast<std::uint64_t>(offset) : static_cast<std::uint64_t>(offset);
        return FormatText("lseek mtd%d offset=%s0x%" PRIx64 "%s", handle.part.number, sign, distance, from);
    };
    return Return<off64_t>(Perform(handle.simulation.state, RequestKind::Lseek, Base::Hex, seek, describe));
}

int ControlDevice(int fd, unsigned long number, void *argument) {
    // As the kernel does: a program that keeps the number in an int extends the sign.
    number = static_cast<std::uint32_t>(number);
    int result = 0;
    if (ControlFile(fd, number, argument, result))
        return result;
    Handle handle(fd);
    SimState &state = handle.simulation.state;
    RequestKind kind;
    const auto ask = [&] { return handle.device.Request(handle.file, number, argument); };
    RecordErase(handle.part, number, argument);
    if (FindRequest(number, kind))
        return Return<int>(
            Perform(state, kind, Base::Decimal, ask, [&] { return RequestText(kind, handle.part.number, argument); }));
    if (number == BLKPG)
        NoteUnserved(FormatText("change of partitions of /dev/mtd%d", handle.part.number));
    result = ask();
    if (state.Traces())
        state.Trace(FormatText("ioctl mtd%d request=0x%lx", handle.part.number, number) + ResultText(result));
    return Return<int>(result);
}

int SyncDevice(int fd) {
    const Handle handle(fd);
    // The driver has nothing to sync and the kernel says so.
    return Return<int>(Perform(
        handle.simulation.state, RequestKind::Fsync, Base::Decimal, [] { return -EINVAL; },
        [&] { return FormatText("fsync mtd%d", handle.part.number); }));
}

int FlagsOfDevice(int fd) {
    return Handle(fd).file.flags & ~(O_CREAT | O_EXCL | O_NOCTTY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC);
}

int SetFlagsOfDevice(int fd, int flags) {
    constexpr int kSettable = O_APPEND | O_NONBLOCK | O_NOATIME;
    OpenFile &file = Handle(fd).file;
    if ((flags & O_DIRECT) != 0)
        return Return<int>(-EINVAL);
    file.flags = (file.flags & ~kSettable) | (flags & kSettable);
    return 0;
}

int MinorOfDevice(int fd) { return FindSimulation()->state.GetOpenFile(OpenFileOf(fd)).minor; }
