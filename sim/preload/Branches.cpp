#include "preload/Branches.h"

#include "preload/Next.h"

#include <array>
#include <asm/ioctls.h>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <optional>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

// Descriptors of devices have no position of their own.
Next<off64_t(int, off64_t, int)> nextLseek("lseek64");
Next<int(const char *, struct stat64 *)> nextStat("stat64");

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
constexpr std::uint32_t kArchitecture = 0; // no call is allowed: there all runs are whole ones
#endif

enum class Holds { Always, Equal, AtLeast, HasNone };

/// A system call that leaves nothing behind, as long as an argument is as the rule says.
struct Allowed {
    long call;
    std::size_t argument = 0;
    Holds holds = Holds::Always;
    std::uint32_t value = 0;
};

constexpr std::uint32_t kWriting = O_ACCMODE | O_CREAT | O_TRUNC;
constexpr std::uint32_t kFirstOther = STDERR_FILENO + 1;

constexpr Allowed kAllowed[] = {
    {SYS_write, 0, Holds::Equal, STDOUT_FILENO},
    {SYS_write, 0, Holds::Equal, STDERR_FILENO},
    {SYS_writev, 0, Holds::Equal, STDOUT_FILENO},
    {SYS_writev, 0, Holds::Equal, STDERR_FILENO},
    {SYS_read},
    {SYS_readv},
    {SYS_pread64},
    {SYS_lseek}, // the updater puts positions back
    {SYS_close, 0, Holds::AtLeast, kFirstOther},
    {SYS_openat, 2, Holds::HasNone, kWriting},
#ifdef SYS_open
    {SYS_open, 1, Holds::HasNone, kWriting},
    {SYS_stat},
    {SYS_lstat},
    {SYS_access},
    {SYS_readlink},
#endif
    {SYS_newfstatat},
    {SYS_fstat},
    {SYS_statx},
    {SYS_faccessat},
#ifdef SYS_faccessat2
    {SYS_faccessat2},
#endif
    {SYS_readlinkat},
    {SYS_getdents64},
    {SYS_getcwd},
    // Descriptors of devices are files in memory.
    {SYS_memfd_create},
    {SYS_utimensat, 1, Holds::Equal, 0},
    {SYS_dup},
    {SYS_dup3, 1, Holds::AtLeast, kFirstOther},
    {SYS_fcntl, 1, Holds::Equal, F_GETFD},
    {SYS_fcntl, 1, Holds::Equal, F_SETFD},
    {SYS_fcntl, 1, Holds::Equal, F_GETFL},
    {SYS_ioctl, 1, Holds::Equal, TCGETS},
    {SYS_mmap, 3, Holds::HasNone, MAP_SHARED},
    {SYS_munmap},
    {SYS_mremap},
    {SYS_mprotect},
    {SYS_madvise},
    {SYS_brk},
    {SYS_futex},
    {SYS_rt_sigaction},
    {SYS_rt_sigprocmask},
    {SYS_rt_sigreturn},
    {SYS_sigaltstack},
    {SYS_getpid},
    {SYS_gettid},
    {SYS_getuid},
    {SYS_geteuid},
    {SYS_getgid},
    {SYS_getegid},
    {SYS_uname},
    {SYS_getrandom},
    {SYS_clock_gettime},
    {SYS_clock_nanosleep},
    {SYS_nanosleep},
    {SYS_sched_yield},
    {SYS_exit},
    {SYS_exit_group},
};

constexpr std::uint32_t kLoad = BPF_LD | BPF_W | BPF_ABS;

constexpr sock_filter Statement(std::uint32_t code, std::uint32_t value) {
    return {static_cast<std::uint16_t>(code), 0, 0, value};
}

/// Goes `yes` or `no` instructions ahead.
constexpr sock_filter Jump(std::uint32_t code, std::uint32_t value, std::uint8_t yes, std::uint8_t no) {
    return {static_cast<std::uint16_t>(BPF_JMP | code | BPF_K), yes, no, value};
}

/// Where an argument's low half is in the kernel's description of a call; both architectures are little-endian.
constexpr std::uint32_t PlaceOf(std::size_t argument) {
    return static_cast<std::uint32_t>(offsetof(seccomp_data, args) + argument * sizeof(std::uint64_t));
}

std::vector<sock_filter> MakeFilter() {
    constexpr sock_filter kLoadCall = Statement(kLoad, offsetof(seccomp_data, nr));
    constexpr sock_filter kAllow = Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    constexpr sock_filter kEnd = Statement(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS);
    std::vector<sock_filter> filter = {Statement(kLoad, offsetof(seccomp_data, arch)),
                                       Jump(BPF_JEQ, kArchitecture, 1, 0), kEnd, kLoadCall};
    for (const Allowed &rule : kAllowed) {
        const auto call = static_cast<std::uint32_t>(rule.call);
        if (rule.holds == Holds::Always) {
            filter.insert(filter.end(), {Jump(BPF_JEQ, call, 0, 1), kAllow});
            continue;
        }
        const sock_filter test = rule.holds == Holds::Equal     ? Jump(BPF_JEQ, rule.value, 0, 1)
                                 : rule.holds == Holds::AtLeast ? Jump(BPF_JGE, rule.value, 0, 1)
                                                                : Jump(BPF_JSET, rule.value, 1, 0);
        filter.insert(filter.end(),
                      {Jump(BPF_JEQ, call, 0, 4), Statement(kLoad, PlaceOf(rule.argument)), test, kAllow, kLoadCall});
    }
    filter.push_back(kEnd);
    return filter;
}

/// Keeps this process from all that would outlast it.
/// @return false when the kernel has no filters.
bool Confine(const std::vector<sock_filter> &filter) {
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), const_cast<sock_filter *>(filter.data())};
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

/// The positions in open files, which a branch shares with the updater.
class FilePositions {
public:
    FilePositions() {
        for (int fd = 0; fd < kMost; ++fd) {
            const off64_t position = nextLseek(fd, 0, SEEK_CUR);
            m_positions[static_cast<std::size_t>(fd)] = position;
            m_hasPipe = m_hasPipe || (fd > STDERR_FILENO && position < 0 && errno == ESPIPE);
        }
    }
    /// @return whether a branch could take what the updater is still to read, and nothing would put it back.
    bool HasPipe() const { return m_hasPipe; }
    void PutBack() const {
        for (int fd = 0; fd < kMost; ++fd) {
            const off64_t position = m_positions[static_cast<std::size_t>(fd)];
            if (position >= 0)
                nextLseek(fd, position, SEEK_SET);
        }
    }

private:
    static constexpr int kMost = 64;
    std::array<off64_t, kMost> m_positions = {};
    bool m_hasPipe = false;
};

/// @return whether this process is the one whose end is the end of the run, and has one thread: a copy has no other.
bool IsWholeUpdater() {
    constexpr pid_t kInit = 1;
    constexpr nlink_t kOneThread = 3; // its folder, "." and ".."
    struct stat64 threads = {};
    return getppid() == kInit && nextStat("/proc/self/task", &threads) == 0 && threads.st_nlink == kOneThread;
}

/// Runs a branch to its end.
/// @return its status, in the updater; nothing in the branch itself
std::optional<int> RunBranch(const std::vector<sock_filter> &filter) {
    const pid_t branch = fork();
    if (branch == 0) {
        // No core, not even into a pipe of the machine's.
        prctl(PR_SET_DUMPABLE, 0);
        if (!Confine(filter)) {
            std::raise(SIGSYS);
            _exit(SIGSYS);
        }
        return std::nullopt;
    }
    int status = SIGSYS;
    while (branch > 0 && syscall(SYS_wait4, branch, &status, 0, nullptr) < 0 && errno == EINTR)
        continue;
    return status;
}

} // namespace

int StopForBranches(StopPlace &stop, int fault) {
    static bool isBranch = false;
    const int error = errno;
    if (isBranch || !IsWholeUpdater()) {
        errno = error;
        return fault;
    }
    static const std::vector<sock_filter> filter = MakeFilter();
    stop.Arrive();
    while (stop.AwaitOrder()) {
        const FilePositions positions;
        const std::optional<int> status = positions.HasPipe() ? SIGSYS : RunBranch(filter);
        if (!status) {
            isBranch = true;
            errno = error;
            return fault != 0 ? fault : stop.Error();
        }
        positions.PutBack();
        stop.EndBranch(*status);
    }
    errno = error;
    return fault;
}
