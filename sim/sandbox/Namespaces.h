#pragma once

#include <cstdint>
#include <sys/types.h>

/// Who the sandbox's root is outside.
///
/// A sandbox never has a power of the machine's root: when root runs it, its processes are those of an id that no
/// account has, and no file outside belongs to them.
struct OutsideUser {
    uid_t user;
    gid_t group;
    std::uint32_t count; ///< ids that the sandbox has, from these on: 1 for a user other than root

    /// @return whether the caller's own files belong to others in there.
    bool IsForeign() const;
};

/// @return the same ids for every sandbox of this process.
const OutsideUser &SandboxUser();

/// Starts the first process of a sandbox, in user, mount, process, network, IPC, host-name and cgroup namespaces of its
/// own. Works like fork: gives 0 in the new process, which is root (user 0) of the new user namespace and init (process
/// 1) of the new process namespace: everything in there ends with it. Its network is a loopback device alone. The
/// caller has one thread.
/// @param folder the working folder of the new process, where it is foreign
/// @throws std::runtime_error with one line that names the missing setting, in the caller alone
pid_t ForkIntoNamespaces(const char *folder);

/// Enters a second user and mount namespace: every mount that is there now is locked. Nothing can change, move or
/// uncover one any more; what is mounted from here on can be unmounted.
/// @throws SystemError; the caller has to end then
void LockMounts();
