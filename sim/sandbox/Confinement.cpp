#include "sandbox/Confinement.h"

#include "base/ScopedFd.h"
#include "base/SystemError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

/// What an updater and its programs use in their own root: any file of theirs, `umount`, `chroot`, signals, users.
constexpr int kCapabilities[] = {CAP_CHOWN,  CAP_DAC_OVERRIDE, CAP_FOWNER,     CAP_FSETID,   CAP_KILL,
                                 CAP_SETGID, CAP_SETUID,       CAP_SYS_CHROOT, CAP_SYS_ADMIN};

/// System calls that fail with EPERM.
constexpr const char *kRefused[] = {
    // Mounting, but for umount, which works on the sandbox's own mounts.
    "mount", "fsopen", "fsconfig", "fsmount", "fspick", "open_tree", "move_mount", "mount_setattr", "pivot_root",
    "swapon", "swapoff", "quotactl", "quotactl_fd",
    // Files by other ways than paths.
    "open_by_handle_at", "fanotify_init",
    // Namespaces; clone is refused by its flags.
    "unshare", "setns",
    // The kernel.
    "kexec_load", "kexec_file_load", "init_module", "finit_module", "delete_module", "reboot", "bpf", "perf_event_open",
    "userfaultfd", "io_uring_setup", "io_uring_enter", "io_uring_register", "syslog", "acct", "iopl", "ioperm",
    "lookup_dcookie", "kcmp", "vhangup", "memfd_secret",
    // Keys of the user outside.
    "add_key", "request_key", "keyctl",
    // Clocks.
    "settimeofday", "clock_settime", "clock_settime64", "stime", "adjtimex", "clock_adjtime", "clock_adjtime64"};

constexpr unsigned kNamespaceFlags[] = {CLONE_NEWUSER, CLONE_NEWNS,  CLONE_NEWPID,   CLONE_NEWNET,
                                        CLONE_NEWIPC,  CLONE_NEWUTS, CLONE_NEWCGROUP};

/// Sockets of other families (vsock, packet, alg, ...) aren't held in by the network namespace or find kernel code that
/// no device has.
constexpr int kFamilies[] = {AF_UNIX, AF_INET, AF_INET6, AF_NETLINK};
constexpr int kFamilyEnd = 64;

constexpr std::uint64_t kLargestFile = std::uint64_t{2} << 30;
constexpr struct {
    __rlimit_resource_t resource;
    rlim_t most;
} kLimits[] = {{RLIMIT_NPROC, 2 * kMostProcesses}, // threads count too
               {RLIMIT_FSIZE, kLargestFile},
               {RLIMIT_NOFILE, 4096},
               {RLIMIT_CORE, 0}};

using Program = std::vector<sock_filter>;

/// Rules that a kernel or an architecture doesn't know are left out.
void AddRule(scmp_filter_ctx filter, const char *name, int error, std::initializer_list<scmp_arg_cmp> arguments = {}) {
    const int call = seccomp_syscall_resolve_name(name);
    if (call != __NR_SCMP_ERROR)
        seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(static_cast<unsigned>(error)), call,
                               static_cast<unsigned>(arguments.size()), arguments.begin());
}

Program Compile() {
    const scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr)
        throw SystemError("can't make a filter of system calls", ENOMEM);
    // 32-bit programs of the same machine have their own numbers for the same calls.
    constexpr std::uint32_t kOthers[] = {SCMP_ARCH_X86, SCMP_ARCH_X32, SCMP_ARCH_ARM};
    for (const std::uint32_t other : kOthers) {
        const bool isCompatible = (seccomp_arch_native() == SCMP_ARCH_AARCH64) == (other == SCMP_ARCH_ARM);
        if (isCompatible && seccomp_arch_native() != other)
            seccomp_arch_add(filter, other);
    }
    for (const char *call : kRefused)
        AddRule(filter, call, EPERM);
    for (const unsigned flag : kNamespaceFlags)
        AddRule(filter, "clone", EPERM, {SCMP_A0_64(SCMP_CMP_MASKED_EQ, flag, flag)});
    // Its flags are in memory, where no filter can look: libc goes back to clone.
    AddRule(filter, "clone3", ENOSYS);
    for (int family = 0; family < kFamilyEnd; ++family) {
        if (std::find(std::begin(kFamilies), std::end(kFamilies), family) == std::end(kFamilies))
            AddRule(filter, "socket", EAFNOSUPPORT, {SCMP_A0_32(SCMP_CMP_EQ, static_cast<std::uint32_t>(family), 0)});
    }
    // Input that another program would take for typed.
    AddRule(filter, "ioctl", EPERM, {SCMP_A1_32(SCMP_CMP_EQ, TIOCSTI, 0)});
    const ScopedFd file(memfd_create("filter", MFD_CLOEXEC));
    const int result = file.Get() < 0 ? -errno : seccomp_export_bpf(filter, file.Get());
    seccomp_release(filter);
    if (result < 0)
        throw SystemError("can't make a filter of system calls", -result);
    const off_t size = lseek(file.Get(), 0, SEEK_END);
    Program program(static_cast<std::size_t>(size) / sizeof(sock_filter));
    Check(pread(file.Get(), program.data(), static_cast<std::size_t>(size), 0), "can't read a filter");
    return program;
}

Program &CompiledFilter() {
    static Program program = Compile();
    return program;
}

void LimitResources() {
    for (const auto &limit : kLimits) {
        rlimit now = {};
        Check(getrlimit(limit.resource, &now), "can't read a limit");
        const rlim_t most = std::min(limit.most, now.rlim_max);
        const rlimit wanted = {std::min(now.rlim_cur, most), most};
        Check(setrlimit(limit.resource, &wanted), "can't set a limit");
    }
}

void DropCapabilities() {
    std::uint64_t kept = 0;
    for (const int capability : kCapabilities)
        kept |= std::uint64_t{1} << capability;
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
        if ((kept >> capability & 1) == 0)
            Check(prctl(PR_CAPBSET_DROP, capability, 0, 0, 0), "can't give up a capability");
    }
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const auto low = static_cast<std::uint32_t>(kept);
    const std::array<__user_cap_data_struct, 2> sets = {{{low, low, 0}, {0, 0, 0}}};
    Check(syscall(SYS_capset, &header, sets.data()), "can't give up capabilities");
}

} // namespace

void PrepareConfinement() { CompiledFilter(); }

void ConfineProcess() {
    LimitResources();
    DropCapabilities();
    Check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "can't refuse new privileges");
    Program &program = CompiledFilter();
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    Check(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0), "can't filter system calls");
}
