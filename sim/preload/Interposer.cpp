// The preload library: gives a dynamically linked program the simulated devices where it looks for the kernel's.
//
// FLASHSIM_CHIP and FLASHSIM_STATE name the chip and the run; without them every call goes to libc untouched.
// "/proc/mtd" is text from the run's device table. A descriptor of "/dev/mtd<N>" is a placeholder that libc can
// dup, pass to a child or close, and that refuses every read and write which doesn't come through here (stdio does
// its reads inside libc; std::fstream doesn't). It carries the number of its open file description in its name, which
// a program started by exec reads.
//
// Calls that are no device's business (sync, kill, system, ...) are traced in the program that FLASHSIM_PROGRAM
// names by its file name; a shell's or a tool's aren't.

#include "base/Text.h"
#include "chip/ChipFile.h"
#include "mtd/MtdDevice.h"
#include "mtd/SimState.h"
#include "mtd/TraceText.h"
#include "preload/Interface.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#define INTERPOSED extern "C" __attribute__((visibility("default")))

namespace {

/// A function of libc, or of a sanitizer in front of it, that stands behind ours.
template <typename Function> class Next {
public:
    explicit constexpr Next(const char *name) : m_name(name) {}
    template <typename... Arguments> auto operator()(Arguments... arguments) {
        if (m_function == nullptr)
            m_function = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, m_name));
        return m_function(arguments...);
    }

private:
    const char *m_name;
    Function *m_function = nullptr;
};

using OpenFunction = int(const char *, int, ...);
using OpenAtFunction = int(int, const char *, int, ...);
using ControlFunction = int(int, int, ...);

Next<OpenFunction> nextOpen("open");
Next<OpenFunction> nextOpen64("open64");
Next<OpenAtFunction> nextOpenAt("openat");
Next<OpenAtFunction> nextOpenAt64("openat64");
Next<FILE *(const char *, const char *)> nextFopen("fopen");
Next<FILE *(const char *, const char *)> nextFopen64("fopen64");
Next<int(FILE *)> nextFclose("fclose");
Next<int(int)> nextClose("close");
Next<ssize_t(int, void *, size_t)> nextRead("read");
Next<ssize_t(int, void *, size_t, off64_t)> nextPread64("pread64");
Next<ssize_t(int, const iovec *, int)> nextReadv("readv");
Next<ssize_t(int, const void *, size_t)> nextWrite("write");
Next<ssize_t(int, const void *, size_t, off64_t)> nextPwrite64("pwrite64");
Next<ssize_t(int, const iovec *, int)> nextWritev("writev");
Next<off64_t(int, off64_t, int)> nextLseek64("lseek64");
Next<int(int, unsigned long, ...)> nextIoctl("ioctl");
Next<int(int)> nextFsync("fsync");
Next<int(int)> nextFdatasync("fdatasync");
Next<int(int, off64_t)> nextFtruncate64("ftruncate64");
Next<int(int)> nextDup("dup");
Next<int(int, int)> nextDup2("dup2");
Next<int(int, int, int)> nextDup3("dup3");
Next<ControlFunction> nextFcntl("fcntl");
Next<ControlFunction> nextFcntl64("fcntl64");
Next<void()> nextSync("sync");
Next<int(const char *)> nextUmount("umount");
Next<int(const char *, int)> nextUmount2("umount2");
Next<int(pid_t, int)> nextKill("kill");
Next<int(const char *)> nextSystem("system");
Next<pid_t(pid_t, int *, int)> nextWaitpid("waitpid");
Next<FILE *(const char *, const char *)> nextPopen("popen");
Next<int(const char *, char *const *)> nextExecv("execv");
Next<int(const char *)> nextChroot("chroot");
Next<int(uid_t)> nextSetuid("setuid");

constexpr const char *kDevicePrefix = "/dev/mtd";
constexpr const char *kTablePath = "/proc/mtd";
constexpr const char *kPlaceholderName = "flashsim-";
constexpr int kBrokenSetup = 125; ///< exit status of a program whose simulation can't be opened
constexpr int kDescriptors = 4096;
constexpr int kInheritedDescriptors = 64; ///< shells keep theirs below

/// The run that this process takes part in.
struct Simulation {
    Simulation(const char *chipPath, const char *statePath)
        : chip(chipPath), state(statePath), devices(state.Devices()) {
        const NandGeometry &geometry = chip.Chip().Geometry();
        for (const SimDevice &device : devices) {
            const bool whole = device.offset % geometry.eraseSize == 0 && device.size % geometry.eraseSize == 0;
            if (!whole || device.offset > geometry.size || device.size > geometry.size - device.offset)
                throw std::runtime_error(device.name + ": isn't a part of the chip in whole blocks");
        }
    }

    const SimDevice *FindDevice(int number) const {
        const auto found = std::find_if(devices.begin(), devices.end(),
                                        [number](const SimDevice &device) { return device.number == number; });
        return found == devices.end() ? nullptr : &*found;
    }

    ChipFile chip;
    SimState state;
    std::vector<SimDevice> devices;
};

/// The numbers of open file descriptions plus 1, by descriptor; 0 for descriptors that aren't a device's.
int openFileOf[kDescriptors];

bool IsSimulated(int fd) { return fd >= 0 && fd < kDescriptors && openFileOf[fd] != 0; }

/// Opens the run at its first use. @return nullptr when the environment names none.
Simulation *FindSimulation() {
    static Simulation *simulation = nullptr;
    static bool sought = false;
    if (sought)
        return simulation;
    sought = true;
    const char *chip = std::getenv(kChipVariable);
    const char *state = std::getenv(kStateVariable);
    if (chip == nullptr || state == nullptr)
        return nullptr;
    try {
        simulation = std::make_unique<Simulation>(chip, state).release(); // lives as long as the process
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "flashsim: %s\n", problem.what());
        _exit(kBrokenSetup);
    }
    return simulation;
}

// Devices.

/// A descriptor's device and what it is used with.
struct Handle {
    explicit Handle(int fd)
        : simulation(*FindSimulation()), file(simulation.state.GetOpenFile(openFileOf[fd] - 1)),
          part(*simulation.FindDevice(file.device)),
          device(simulation.chip.Chip(), simulation.state, part.offset, part.size) {}

    Simulation &simulation;
    OpenFile &file;
    const SimDevice &part;
    MtdDevice device;
};

/// Gives a result in the way of libc.
template <typename Number> Number Return(std::int64_t result) {
    if (result >= 0)
        return static_cast<Number>(result);
    errno = static_cast<int>(-result);
    return -1;
}

/// Makes one request: counts it, lets a fault fail it or `carryOut` answer it, traces it as `describe` says.
template <typename CarryOut, typename Describe>
std::int64_t Perform(SimState &state, RequestKind kind, Base base, CarryOut carryOut, Describe describe) {
    const bool traces = state.Traces();
    const std::string text = traces ? describe() : std::string();
    const int fault = state.Begin(kind);
    const std::int64_t result = fault != 0 ? -fault : carryOut();
    if (traces)
        state.Trace(text + ResultText(result, base));
    return result;
}

/// Makes a descriptor that stands for an open file description; it has the lowest free number, as the real one would.
/// @param forStdio a stream that writes can be made on it; exec closes it
/// @return the descriptor or a negative errno value
int MakePlaceholder(int openFile, bool closeOnExec, bool forStdio) {
    const std::string name = kPlaceholderName + std::to_string(openFile);
    const int fd = memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0)
        return -errno;
    int error = fd < kDescriptors ? 0 : EMFILE;
    if (forStdio) {
        nextFcntl(fd, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK);
    } else if (error == 0) {
        // A path descriptor refuses reads too.
        const int path = nextOpen(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_PATH);
        if (path < 0 || nextDup3(path, fd, closeOnExec ? O_CLOEXEC : 0) < 0)
            error = errno;
        nextClose(path);
    }
    if (error == 0)
        return fd;
    nextClose(fd);
    return -error;
}

/// @return the table's device that a path names, or nullptr.
const SimDevice *DeviceOfPath(const char *path) {
    const std::size_t prefix = std::strlen(kDevicePrefix);
    if (path == nullptr || std::strncmp(path, kDevicePrefix, prefix) != 0)
        return nullptr;
    const char *digits = path + prefix;
    constexpr std::size_t kMostDigits = 6;
    const std::size_t length = std::strspn(digits, "0123456789");
    if (length == 0 || length > kMostDigits || digits[length] != '\0')
        return nullptr;
    const Simulation *simulation = FindSimulation();
    return simulation == nullptr ? nullptr : simulation->FindDevice(std::atoi(digits));
}

int OpenDevice(const SimDevice &device, int flags, bool forStdio) {
    SimState &state = FindSimulation()->state;
    const auto open = [&]() -> std::int64_t {
        const int openFile = state.NewOpenFile({0, device.number, flags});
        if (openFile < 0)
            return -ENFILE;
        const int fd = MakePlaceholder(openFile, (flags & O_CLOEXEC) != 0, forStdio);
        if (fd >= 0)
            openFileOf[fd] = openFile + 1;
        return fd;
    };
    return Return<int>(Perform(state, RequestKind::Open, Base::Decimal, open, [&] {
        return FormatText("open mtd%d flags=%s", device.number, OpenFlagsText(flags).c_str());
    }));
}

/// Forgets a descriptor that is about to be closed. @return what closing gives the program, should it fail
std::int64_t CloseDevice(int fd) {
    const Handle handle(fd);
    openFileOf[fd] = 0;
    return Perform(
        handle.simulation.state, RequestKind::Close, Base::Decimal, [] { return 0; },
        [&] { return FormatText("close mtd%d", handle.part.number); });
}

bool IsDeviceTable(const char *path) {
    return path != nullptr && std::strcmp(path, kTablePath) == 0 && FindSimulation() != nullptr;
}

int OpenDeviceTable(int flags) {
    Simulation &simulation = *FindSimulation();
    // A kernel without the MTD layer has no such file.
    if (simulation.devices.empty())
        return Return<int>(-ENOENT);
    if ((flags & O_ACCMODE) != O_RDONLY)
        return Return<int>(-EACCES);
    const std::string table = simulation.state.DeviceTable(simulation.chip.Chip().Geometry().eraseSize);
    const int fd = memfd_create("mtd", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
    if (fd >= 0) {
        nextWrite(fd, table.data(), table.size());
        nextLseek64(fd, off64_t{0}, SEEK_SET);
    }
    return fd;
}

template <typename Otherwise> int OpenPath(const char *path, int flags, Otherwise otherwise) {
    if (const SimDevice *device = DeviceOfPath(path))
        return OpenDevice(*device, flags, false);
    return IsDeviceTable(path) ? OpenDeviceTable(flags) : otherwise();
}

FILE *OpenStream(Next<FILE *(const char *, const char *)> &next, const char *path, const char *mode) {
    const SimDevice *device = DeviceOfPath(path);
    if (device == nullptr && !IsDeviceTable(path))
        return next(path, mode);
    const bool updates = std::strchr(mode, '+') != nullptr;
    const bool reads = mode[0] == 'r';
    const int access = updates ? O_RDWR : reads ? O_RDONLY : O_WRONLY;
    const int flags = access | (std::strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0);
    const int fd = device != nullptr ? OpenDevice(*device, flags, access != O_RDONLY) : OpenDeviceTable(flags);
    return fd < 0 ? nullptr : fdopen(fd, mode);
}

/// Reads or writes through a device, at its position or, for pread and pwrite, at an offset of the call's own.
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

ssize_t ReadDevice(int fd, void *data, size_t length, const off64_t *offset) {
    return Transfer(fd, RequestKind::Read, offset != nullptr ? "pread" : "read", length, offset,
                    [&](MtdDevice &device, OpenFile &file) { return device.Read(file, data, length); });
}

ssize_t WriteDevice(int fd, const void *data, size_t length, const off64_t *offset) {
    return Transfer(fd, RequestKind::Write, offset != nullptr ? "pwrite" : "write", length, offset,
                    [&](MtdDevice &device, OpenFile &file) { return device.Write(file, data, length); });
}

/// Reads or writes part by part, as the kernel does for a device that takes no vectors.
template <typename Move> ssize_t MoveParts(const iovec *parts, int count, Move move) {
    ssize_t total = 0;
    for (int i = 0; i < count; ++i) {
        const ssize_t moved = move(parts[i].iov_base, parts[i].iov_len);
        if (moved < 0)
            return total > 0 ? total : moved;
        total += moved;
        if (static_cast<size_t>(moved) < parts[i].iov_len)
            break;
    }
    return total;
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
    Handle handle(fd);
    SimState &state = handle.simulation.state;
    const MtdRequest *request = FindMtdRequest(number);
    const auto ask = [&] { return handle.device.Request(handle.file, number, argument); };
    if (request == nullptr) {
        const int result = ask();
        if (state.Traces())
            state.Trace(FormatText("ioctl mtd%d request=0x%lx", handle.part.number, number) + ResultText(result));
        return Return<int>(result);
    }
    return Return<int>(Perform(state, request->kind, Base::Decimal, ask, [&] {
        return argument != nullptr
                   ? request->describe(handle.part.number, argument)
                   : FormatText("%s mtd%d argument=null", RequestName(request->kind), handle.part.number);
    }));
}

/// Notes that `copy` is a descriptor of what `fd` stands for; `copy` may be a failure.
int Copied(int fd, int copy) {
    if (copy >= 0 && copy < kDescriptors)
        openFileOf[copy] = IsSimulated(fd) ? openFileOf[fd] : 0;
    return copy;
}

int Control(Next<ControlFunction> &next, int fd, int command, void *argument) {
    if (!IsSimulated(fd))
        return next(fd, command, argument);
    switch (command) {
    case F_DUPFD:
    case F_DUPFD_CLOEXEC:
        return Copied(fd, next(fd, command, argument));
    case F_GETFL:
        return Handle(fd).file.flags & ~(O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC);
    case F_SETFL:
        return 0;
    default:
        return next(fd, command, argument);
    }
}

/// Learns which descriptors the program before exec has left open.
__attribute__((constructor)) void FindInheritedDescriptors() {
    if (std::getenv(kStateVariable) == nullptr)
        return;
    const std::string prefix = std::string("/memfd:") + kPlaceholderName;
    for (int fd = 0; fd < kInheritedDescriptors; ++fd) {
        const int flags = nextFcntl(fd, F_GETFL);
        if (flags < 0 || (flags & O_PATH) == 0)
            continue;
        char name[64] = {};
        const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), name, sizeof name - 1);
        if (length > 0 && prefix.compare(0, prefix.size(), name, prefix.size()) == 0)
            openFileOf[fd] = std::atoi(name + prefix.size()) + 1;
    }
}

// Calls that are no device's business.

/// A device without power does none of them, and learns of no program's end.
void NeedPower() {
    if (const Simulation *simulation = FindSimulation())
        simulation->state.NeedPower();
}

/// @return the run's state when this is the program whose calls are traced and there is a trace, else nullptr.
SimState *ProgramTrace() {
    static const bool traced = [] {
        const char *program = std::getenv(kProgramVariable);
        return program != nullptr && std::strcmp(program, program_invocation_short_name) == 0;
    }();
    if (!traced)
        return nullptr;
    Simulation *simulation = FindSimulation();
    return simulation != nullptr && simulation->state.Traces() ? &simulation->state : nullptr;
}

/// Traces a call and its result, and keeps errno.
template <typename Describe> int Traced(int result, Describe describe) {
    const int error = errno;
    if (SimState *state = ProgramTrace())
        state->Trace(describe() + ResultText(result < 0 ? -error : result));
    errno = error;
    return result;
}

/// Traces a call before others can add lines of their own.
template <typename Describe> void TraceAhead(Describe describe) {
    if (SimState *state = ProgramTrace())
        state->Trace(describe());
}

template <typename Call> int Sync(int fd, Call call) {
    if (!IsSimulated(fd))
        return Traced(call(fd), [fd] { return FormatText("fsync fd=%d", fd); });
    const Handle handle(fd);
    // The driver has nothing to sync and the kernel says so.
    return Return<int>(Perform(
        handle.simulation.state, RequestKind::Fsync, Base::Decimal, [] { return -EINVAL; },
        [&] { return FormatText("fsync mtd%d", handle.part.number); }));
}

mode_t ModeArgument(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

INTERPOSED int open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(path, flags, [&] { return nextOpen(path, flags, mode); });
}

INTERPOSED int open64(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(path, flags, [&] { return nextOpen64(path, flags, mode); });
}

INTERPOSED int openat(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(path, flags, [&] { return nextOpenAt(directory, path, flags, mode); });
}

INTERPOSED int openat64(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return OpenPath(path, flags, [&] { return nextOpenAt64(directory, path, flags, mode); });
}

INTERPOSED int creat(const char *path, mode_t mode) { return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }
INTERPOSED int creat64(const char *path, mode_t mode) { return open64(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }

INTERPOSED FILE *fopen(const char *path, const char *mode) { return OpenStream(nextFopen, path, mode); }
INTERPOSED FILE *fopen64(const char *path, const char *mode) { return OpenStream(nextFopen64, path, mode); }

INTERPOSED int close(int fd) {
    if (!IsSimulated(fd))
        return nextClose(fd);
    const std::int64_t result = CloseDevice(fd);
    nextClose(fd);
    return Return<int>(result);
}

INTERPOSED int fclose(FILE *stream) {
    const int fd = fileno(stream);
    if (IsSimulated(fd))
        CloseDevice(fd);
    return nextFclose(stream);
}

INTERPOSED ssize_t read(int fd, void *data, size_t length) {
    return IsSimulated(fd) ? ReadDevice(fd, data, length, nullptr) : nextRead(fd, data, length);
}

INTERPOSED ssize_t pread64(int fd, void *data, size_t length, off64_t offset) {
    return IsSimulated(fd) ? ReadDevice(fd, data, length, &offset) : nextPread64(fd, data, length, offset);
}

INTERPOSED ssize_t pread(int fd, void *data, size_t length, off_t offset) { return pread64(fd, data, length, offset); }

INTERPOSED ssize_t readv(int fd, const iovec *parts, int count) {
    if (!IsSimulated(fd))
        return nextReadv(fd, parts, count);
    return MoveParts(parts, count, [fd](void *data, size_t length) { return ReadDevice(fd, data, length, nullptr); });
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
    if (!IsSimulated(fd))
        return nextWritev(fd, parts, count);
    return MoveParts(parts, count, [fd](void *data, size_t length) { return WriteDevice(fd, data, length, nullptr); });
}

INTERPOSED off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
    return IsSimulated(fd) ? SeekDevice(fd, offset, whence) : nextLseek64(fd, offset, whence);
}

INTERPOSED off_t lseek(int fd, off_t offset, int whence) noexcept {
    return static_cast<off_t>(lseek64(fd, offset, whence));
}

INTERPOSED int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return IsSimulated(fd) ? ControlDevice(fd, request, argument) : nextIoctl(fd, request, argument);
}

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

INTERPOSED int ftruncate64(int fd, off64_t length) noexcept {
    return IsSimulated(fd) ? Return<int>(-EINVAL) : nextFtruncate64(fd, length);
}

INTERPOSED int ftruncate(int fd, off_t length) noexcept { return ftruncate64(fd, length); }

INTERPOSED int dup(int fd) noexcept { return Copied(fd, nextDup(fd)); }
INTERPOSED int dup2(int fd, int copy) noexcept { return Copied(fd, nextDup2(fd, copy)); }
INTERPOSED int dup3(int fd, int copy, int flags) noexcept { return Copied(fd, nextDup3(fd, copy, flags)); }

INTERPOSED int fsync(int fd) { return Sync(fd, nextFsync); }
INTERPOSED int fdatasync(int fd) { return Sync(fd, nextFdatasync); }

INTERPOSED void sync() noexcept {
    NeedPower();
    // The host's own disks are none of a simulated device's business.
    if (FindSimulation() == nullptr)
        nextSync();
    TraceAhead([] { return "sync"; });
}

INTERPOSED int umount(const char *path) noexcept {
    NeedPower();
    return Traced(nextUmount(path), [path] { return "umount " + QuotedText(path); });
}

INTERPOSED int umount2(const char *path, int flags) noexcept {
    NeedPower();
    return Traced(nextUmount2(path, flags),
                  [=] { return "umount2 " + QuotedText(path) + FormatText(" flags=0x%x", flags); });
}

INTERPOSED int kill(pid_t process, int signal) noexcept {
    NeedPower();
    return Traced(nextKill(process, signal), [=] { return FormatText("kill pid=%d signal=%d", process, signal); });
}

INTERPOSED pid_t waitpid(pid_t process, int *status, int options) {
    const pid_t ended = nextWaitpid(process, status, options);
    const int error = errno;
    NeedPower();
    errno = error;
    return ended;
}

INTERPOSED int system(const char *command) {
    NeedPower();
    TraceAhead([command] { return "system " + QuotedText(command); });
    const int status = nextSystem(command);
    const int error = errno;
    NeedPower();
    TraceAhead([status] { return FormatText("returned from system: %d", status); });
    errno = error;
    return status;
}

INTERPOSED FILE *popen(const char *command, const char *mode) {
    NeedPower();
    TraceAhead([command] { return "popen " + QuotedText(command); });
    return nextPopen(command, mode);
}

INTERPOSED int execv(const char *path, char *const arguments[]) noexcept {
    NeedPower();
    TraceAhead([path] { return "execv " + QuotedText(path); });
    return nextExecv(path, arguments);
}

INTERPOSED int chroot(const char *path) noexcept {
    NeedPower();
    return Traced(nextChroot(path), [path] { return "chroot " + QuotedText(path); });
}

INTERPOSED int setuid(uid_t user) noexcept {
    NeedPower();
    return Traced(nextSetuid(user), [user] { return FormatText("setuid %u", user); });
}

// What programs built with _FORTIFY_SOURCE call instead.
// NOLINTBEGIN(bugprone-reserved-identifier)

INTERPOSED int __open_2(const char *path, int flags) { return open(path, flags); }
INTERPOSED int __open64_2(const char *path, int flags) { return open64(path, flags); }
INTERPOSED int __openat_2(int directory, const char *path, int flags) { return openat(directory, path, flags); }
INTERPOSED int __openat64_2(int directory, const char *path, int flags) { return openat64(directory, path, flags); }

INTERPOSED ssize_t __read_chk(int fd, void *data, size_t length, size_t room) {
    return length > room ? (std::abort(), -1) : read(fd, data, length);
}

INTERPOSED ssize_t __pread_chk(int fd, void *data, size_t length, off_t offset, size_t room) {
    return length > room ? (std::abort(), -1) : pread(fd, data, length, offset);
}

INTERPOSED ssize_t __pread64_chk(int fd, void *data, size_t length, off64_t offset, size_t room) {
    return length > room ? (std::abort(), -1) : pread64(fd, data, length, offset);
}

// NOLINTEND(bugprone-reserved-identifier)
