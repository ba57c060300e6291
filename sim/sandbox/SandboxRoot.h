#pragma once

#include <map>
#include <string>
#include <vector>

/// How a file or folder of this machine is shown in a sandbox.
enum class Showing {
    ReadOnly, ///< the file itself, not writable
    Shared,   ///< the file itself: what the sandbox writes reaches it
    Private   ///< a copy, or a folder whose changes stay in the sandbox
};

/// One file or folder and its place in the sandbox.
struct ShownFile {
    std::string source; ///< path outside
    std::string place;  ///< absolute path in the sandbox; folders on the way are made
    Showing showing;
};

/// What a sandbox holds besides what HostView.h lists.
struct SandboxLayout {
    std::string root;                         ///< folder laid over the sandbox's files; empty for none
    std::vector<std::string> mounts;          ///< places that are mounts of their own, parents before children
    std::vector<ShownFile> shown;             ///< shown in this order, private ones last
    std::map<std::string, std::string> texts; ///< files by place and content
    std::map<std::string, unsigned> nodes;    ///< nodes of MTD devices: minor numbers by place
    /// Which of the texts the preload library renews, with the numbers of kSysfsStamp.
    std::map<std::string, long> live;
};

/// Builds the sandbox's root and makes it the caller's: the root of this machine is out of reach afterwards.
///
/// The root is in memory. Programs, libraries and what is needed of /etc, /proc and /dev are this machine's, read-only;
/// "/bin" can be changed in memory. Files of the layout's root are copied; those in folders of programs are laid over
/// them. All mounts are locked but the layout's `mounts`.
/// The caller is the process that ForkIntoNamespaces made.
/// @throws std::runtime_error with one line; the caller has to end then
void EnterSandboxRoot(const SandboxLayout &layout);

/// Copies a folder with its files, folders, links and FIFOs; devices and sockets are left out. Nothing behind a link is
/// read. `target` exists.
/// @throws std::system_error
void CopyTree(const std::string &source, const std::string &target);
