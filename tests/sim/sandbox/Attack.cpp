// A malicious program of an update: tries each attack of a table and prints "escaped: NAME" for every one that
// succeeds. It harms nothing but the victims that the test made; settings and disks of the machine are at most opened.
//
//   attack FOLDER PORT PID     where the victims are outside: files in FOLDER, a server on 127.0.0.1:PORT and on the
//                              abstract socket FOLDER, a System V segment with the key PORT, a process PID

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <linux/capability.h>
#include <linux/vm_sockets.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string folder;
int port;
pid_t victim;

constexpr const char *kOwnMounts[] = {"/tmp/update", "/.flashsim/root", "/.flashsim/libflashsim.so", "/usr", "/bin",
                                      "/etc"};

bool Opens(const std::string &path, int flags) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd >= 0)
        close(fd);
    return fd >= 0;
}

bool CanWrite(const std::string &path) { return Opens(path, O_WRONLY); }
bool CanRead(const std::string &path) { return Opens(path, O_RDONLY); }

bool RemountWritable() {
    for (const char *place : kOwnMounts)
        mount(nullptr, place, nullptr, MS_REMOUNT | MS_BIND, nullptr);
    for (const char *place : kOwnMounts) {
        mount_attr attributes = {};
        attributes.attr_clr = MOUNT_ATTR_RDONLY;
        if (syscall(SYS_mount_setattr, AT_FDCWD, place, AT_RECURSIVE, &attributes, sizeof attributes) == 0)
            return true;
    }
    return CanWrite("/usr/bin/env") || CanWrite("/.flashsim/libflashsim.so");
}

bool UncoverMounts() {
    for (const char *place : {"/proc/sys", "/proc/kcore", "/usr", "/etc", "/.flashsim/root", "/proc"})
        if (umount2(place, MNT_DETACH) == 0)
            return true;
    return false;
}

bool MountAnything() {
    mkdir("/tmp/mnt", 0700);
    for (const char *type : {"tmpfs", "proc", "sysfs", "devtmpfs", "cgroup2", "cgroup", "debugfs", "ramfs", "overlay"})
        if (mount("none", "/tmp/mnt", type, 0, nullptr) == 0)
            return true;
    return mount("/usr", "/tmp/mnt", nullptr, MS_BIND, nullptr) == 0 || syscall(SYS_fsopen, "tmpfs", 0) >= 0 ||
           syscall(SYS_open_tree, AT_FDCWD, "/usr", 1) >= 0 || syscall(SYS_pivot_root, "/", "/") == 0;
}

bool FindVictimFile() { return CanRead(folder + "/secret"); }
bool ChangeVictimFile() { return CanWrite(folder + "/secret") || CanWrite(folder + "/update/image.link"); }

bool ReadSecrets() {
    for (const char *path :
         {"/etc/shadow", "/etc/gshadow", "/etc/machine-id", "/etc/ssh", "/root/.ssh", "/home", "/var/lib",
          "/proc/1/root/etc/shadow", "/proc/kcore", "/dev/mem", "/dev/vda", "/dev/sda", "/dev/kmsg"})
        if (CanRead(path) && !(std::string(path) == "/proc/kcore" && !CanWrite(path)))
            return true;
    return false;
}

bool WriteKernelSettings() {
    for (const char *path : {"/proc/sys/kernel/core_pattern", "/proc/sys/vm/swappiness", "/proc/sysrq-trigger",
                             "/sys/power/state", "/proc/irq/0/smp_affinity", "/sys/fs/cgroup/release_agent"})
        if (CanWrite(path))
            return true;
    return false;
}

bool OpenByHandle() {
    char buffer[sizeof(file_handle) + 128] = {};
    auto *handle = reinterpret_cast<file_handle *>(buffer);
    handle->handle_bytes = 128;
    int mount = 0;
    const int root = open("/usr", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (name_to_handle_at(AT_FDCWD, "/usr/bin", handle, &mount, 0) != 0)
        return false;
    return open_by_handle_at(root, handle, O_RDONLY) >= 0;
}

bool MakeDevice() { return mknod("/tmp/disk", S_IFBLK | 0600, makedev(254, 0)) == 0 && CanRead("/tmp/disk"); }

bool EnterNamespaces() {
    return unshare(CLONE_NEWUSER) == 0 || unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWNET) == 0 ||
           syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, nullptr, nullptr, nullptr, nullptr) >= 0;
}

bool Connect(int family, const void *address, socklen_t length) {
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return fd >= 0 && connect(fd, static_cast<const sockaddr *>(address), length) == 0;
}

bool ReachNetwork() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return Connect(AF_INET, &address, sizeof address);
}

bool ReachAbstractSocket() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    folder.copy(address.sun_path + 1, sizeof address.sun_path - 2);
    return Connect(AF_UNIX, &address, static_cast<socklen_t>(sizeof(sa_family_t) + 1 + folder.size()));
}

bool OtherSockets() {
    return socket(AF_VSOCK, SOCK_STREAM, 0) >= 0 || socket(AF_PACKET, SOCK_RAW, 0) >= 0 ||
           socket(AF_ALG, SOCK_SEQPACKET, 0) >= 0;
}

bool ReachSharedMemory() { return shmget(port, 0, 0) >= 0; }
bool SeeVictimProcess() { return kill(victim, 0) == 0; }

bool TouchInit() {
    return CanRead("/proc/1/mem") || CanRead("/proc/1/environ") || CanRead("/proc/1/fd") ||
           ptrace(PTRACE_ATTACH, 1, nullptr, nullptr) == 0 || (kill(1, SIGKILL) == 0 && kill(1, 0) != 0);
}

/// Refused calls fail before the kernel looks at their arguments, none of which it would take.
bool KernelCalls() {
    const long results[] = {syscall(SYS_bpf, 0, nullptr, 0),
                            syscall(SYS_keyctl, 0, -3, 1),
                            syscall(SYS_add_key, "user", "flashsim", "x", 1, -3),
                            syscall(SYS_perf_event_open, nullptr, 0, -1, -1, 0),
                            syscall(SYS_io_uring_setup, 1, nullptr),
                            syscall(SYS_userfaultfd, -1),
                            syscall(SYS_init_module, nullptr, 0, nullptr),
                            syscall(SYS_finit_module, -1, nullptr, 0),
                            syscall(SYS_kexec_load, 0, ~0UL, nullptr, 0),
                            syscall(SYS_fanotify_init, ~0U, 0),
                            syscall(SYS_clock_settime, CLOCK_REALTIME, nullptr),
                            syscall(SYS_swapon, nullptr, 0)};
    errno = 0;
    const bool areRefused = syscall(SYS_bpf, 0, nullptr, 0) < 0 && errno == EPERM && syscall(SYS_userfaultfd, -1) < 0 &&
                            errno == EPERM && syscall(SYS_init_module, nullptr, 0, nullptr) < 0 && errno == EPERM &&
                            syscall(SYS_kexec_load, 0, ~0UL, nullptr, 0) < 0 && errno == EPERM;
    return !areRefused || std::any_of(std::begin(results), std::end(results), [](long result) { return result >= 0; });
}

bool RegainCapabilities() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    if (syscall(SYS_capget, &header, sets) != 0 || sets[0].inheritable != 0 || sets[1].inheritable != 0)
        return true;
    for (const int capability : {CAP_SYS_MODULE, CAP_NET_ADMIN, CAP_MKNOD, CAP_DAC_READ_SEARCH})
        if (prctl(PR_CAPBSET_READ, capability) != 0 ||
            prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, capability, 0, 0) != 0 ||
            (sets[0].permitted >> capability & 1) != 0)
            return true;
    return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) != 1;
}

bool EscapeChroot() {
    mkdir("/tmp/cage", 0700);
    const int outside = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (chroot("/tmp/cage") != 0 || fchdir(outside) != 0)
        return false;
    for (int i = 0; i < 64; ++i)
        static_cast<void>(!chdir(".."));
    return chroot(".") == 0 && (CanRead(folder + "/secret") || CanRead("/etc/shadow"));
}

constexpr struct {
    const char *name;
    bool (*succeeds)();
} kAttacks[] = {{"remount a shown folder writable", RemountWritable},
                {"unmount what covers something", UncoverMounts},
                {"mount a file system", MountAnything},
                {"find a file outside", FindVictimFile},
                {"change a file outside", ChangeVictimFile},
                {"read secrets", ReadSecrets},
                {"open a setting of the kernel for writing", WriteKernelSettings},
                {"open a file by its handle", OpenByHandle},
                {"make a disk's node", MakeDevice},
                {"make namespaces", EnterNamespaces},
                {"reach the network outside", ReachNetwork},
                {"reach an abstract socket outside", ReachAbstractSocket},
                {"make other kinds of sockets", OtherSockets},
                {"reach shared memory outside", ReachSharedMemory},
                {"see a process outside", SeeVictimProcess},
                {"touch the sandbox's first process", TouchInit},
                {"make kernel calls that no device needs", KernelCalls},
                {"have a capability that no updater needs", RegainCapabilities},
                {"leave by a chroot", EscapeChroot}};

} // namespace

int main(int argc, char *argv[]) {
    // The updater under test gets the update's folder first.
    if (argc != 5)
        return 2;
    folder = argv[2];
    port = std::atoi(argv[3]);
    victim = std::atoi(argv[4]);
    for (const auto &attack : kAttacks) {
        // Each in a process of its own: one attack must not hinder the next.
        const pid_t child = fork();
        if (child == 0)
            _exit(attack.succeeds() ? 1 : 0);
        int status = -1;
        if (waitpid(child, &status, 0) != child || status != 0)
            std::printf("escaped: %s\n", attack.name);
    }
    std::printf("%zu attacks made\n", std::size(kAttacks));
    return 0;
}
