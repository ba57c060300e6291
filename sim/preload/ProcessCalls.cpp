// Calls that are no device's business: some need power, and those of one program are traced.

#include "base/Text.h"
#include "mtd/Trace.h"
#include "preload/Devices.h"
#include "preload/Interface.h"
#include "preload/Next.h"
#include "preload/OwnRecord.h"
#include "preload/Programs.h"
#include "preload/Simulation.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

Next<int(int)> nextFsync("fsync");
Next<int(int)> nextFdatasync("fdatasync");
Next<void()> nextSync("sync");
Next<int(const char *)> nextUmount("umount");
Next<int(const char *, int)> nextUmount2("umount2");
Next<int(pid_t, int)> nextKill("kill");
Next<int(const char *)> nextSystem("system");
Next<pid_t(int *)> nextWait("wait");
Next<pid_t(int *, int, rusage *)> nextWait3("wait3");
Next<pid_t(pid_t, int *, int, rusage *)> nextWait4("wait4");
Next<int(idtype_t, id_t, siginfo_t *, int)> nextWaitid("waitid");
Next<pid_t(pid_t, int *, int)> nextWaitpid("waitpid");
Next<FILE *(const char *, const char *)> nextPopen("popen");
Next<int(const char *)> nextChroot("chroot");
Next<int(uid_t)> nextSetuid("setuid");

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

/// A program that waits for one whose request lost power must not see the end of that one, nor say a word about it.
template <typename Call> auto Awaited(Call call) {
    const auto result = call();
    const int error = errno;
    NeedPower();
    errno = error;
    return result;
}

template <typename Call> int Sync(int fd, Call call) {
    return IsSimulated(fd) ? SyncDevice(fd) : Traced(call(fd), [fd] { return FormatText("fsync fd=%d", fd); });
}

/// The updater runs a copy of itself, which is the updater from then on.
void LetCopyTakeOver(const char *command) {
    SimState *state = ProgramTrace();
    if (state == nullptr || command == nullptr)
        return;
    const std::string path(command, std::strcspn(command, " "));
    if (path.substr(path.rfind('/') + 1) == program_invocation_short_name) // npos + 1 is 0
        state->HandOverUpdater();
}

} // namespace

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

INTERPOSED pid_t wait(int *status) {
    return Awaited([=] { return nextWait(status); });
}

INTERPOSED pid_t wait3(int *status, int options, rusage *usage) noexcept {
    return Awaited([=] { return nextWait3(status, options, usage); });
}

INTERPOSED pid_t wait4(pid_t process, int *status, int options, rusage *usage) noexcept {
    return Awaited([=] { return nextWait4(process, status, options, usage); });
}

INTERPOSED int waitid(idtype_t type, id_t id, siginfo_t *end, int options) {
    return Awaited([=] { return nextWaitid(type, id, end, options); });
}

INTERPOSED pid_t waitpid(pid_t process, int *status, int options) {
    return Awaited([=] { return nextWaitpid(process, status, options); });
}

INTERPOSED int system(const char *command) {
    NeedPower();
    TraceAhead([command] { return ShellCallText(command); });
    LetCopyTakeOver(command);
    const int status = nextSystem(command);
    const int error = errno;
    NeedPower();
    TraceAhead([status] { return ShellReturnText(status); });
    errno = error;
    return status;
}

INTERPOSED FILE *popen(const char *command, const char *mode) {
    NeedPower();
    TraceAhead([command] { return "popen " + QuotedText(command); });
    return nextPopen(command, mode);
}

INTERPOSED int chroot(const char *path) noexcept {
    NeedPower();
    return Traced(nextChroot(path), [path] { return "chroot " + QuotedText(path); });
}

INTERPOSED int setuid(uid_t user) noexcept {
    NeedPower();
    return Traced(nextSetuid(user), [user] { return FormatText("setuid %u", user); });
}

INTERPOSED int execv(const char *path, char *const arguments[]) noexcept {
    NeedPower();
    TraceAhead([path] { return "execv " + QuotedText(path); });
    return ReplaceProgram(path, arguments, environ);
}
