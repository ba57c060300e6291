#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

/// How a file or folder of the host is shown in a simulated device.
enum class Showing {
    ReadOnly, ///< the host's own, not writable
    Shared,   ///< the host's own: what the device writes reaches it
    Private   ///< the device's own: it may change it, the host's stays as it is
};

/// One file or folder of the host and its place in the device.
struct ShownFile {
    std::string source; ///< path on the host
    std::string place;  ///< absolute path in the device; folders on the way are made
    Showing showing;
};

/// What a simulated device holds besides the host's programs.
struct SandboxLayout {
    std::string root;                         ///< host folder laid over the device's files; empty for none
    std::vector<std::string> mounts;          ///< places that are mounts of their own, parents before children
    std::vector<ShownFile> shown;             ///< shown in this order, over what stands there
    std::map<std::string, std::string> texts; ///< files by place and content
    std::map<std::string, unsigned> nodes;    ///< nodes of MTD devices: minor numbers by place
    std::map<std::string, long>
        live;               ///< which of the texts the preload library renews, with the numbers of kSysfsStamp
    uid_t user = geteuid(); ///< the host's user and group that the device's root is
    gid_t group = getegid();
};

/// Makes a process in mount, process and host-name namespaces of its own; for a user other than root in a user
/// namespace too. Works like fork: gives 0 in the new process, which is the init (process 1) of the new process
/// namespace: everything in there ends with it. Nothing mounted, unmounted or killed in there reaches the host.
/// It must go on to EnterSandboxRoot before it starts anything. The caller has one thread.
/// @throws std::runtime_error with one line, in the caller alone.
pid_t ForkIntoNamespaces();

/// Builds the device's root and makes it the caller's; the host's files are out of reach behind it.
/// The root is in memory: "/usr", "/lib", "/sbin" and "/etc" are the host's, read-only; "/bin" is the host's with
/// changes kept in memory; "/proc" is that of the process namespace, "/dev" has the harmless nodes, "/sys" is empty.
/// Files of the layout's root are copied, except those for the host's folders, over which they are laid.
/// Powers that reach beyond the namespaces (modules, clock, network, raw devices) are given up for all programs.
/// @throws std::runtime_error with one line; the caller has to end then.
void EnterSandboxRoot(const SandboxLayout &layout);
