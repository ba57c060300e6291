#include "sandbox/SandboxRoot.h"

#include "base/ScopedFd.h"
#include "preload/Interface.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/capability.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// Folders of the host whose programs the device has; links among them (merged /usr) stay links.
constexpr const char *kSystemFolders[] = {"usr", "lib", "lib32", "lib64", "libx32", "sbin", "etc"};

/// Device nodes that reach nothing but the process that opens them.
constexpr const char *kNodes[] = {"null", "zero", "full", "random", "urandom", "tty"};

constexpr struct {
    const char *name;
    const char *target;
} kLinks[] = {{"/dev/fd", "/proc/self/fd"},
              {"/dev/stdin", "/proc/self/fd/0"},
              {"/dev/stdout", "/proc/self/fd/1"},
              {"/dev/stderr", "/proc/self/fd/2"}};

constexpr struct {
    const char *path;
    mode_t mode;
} kFolders[] = {{"/dev", 0755}, {"/sys", 0755}, {"/tmp", 01777}, {"/run", 0755},       {"/app", 0755},
                {"/opt", 0755}, {"/var", 0755}, {"/root", 0700}, {"/.flashsim", 0755}, {"/.flashsim/root", 0755}};

constexpr const char *kRootCopy = "/.flashsim/root";

/// Parts of /proc through which root would set up the host's kernel.
constexpr const char *kKernelControls[] = {"/proc/sys", "/proc/sysrq-trigger"};

/// Powers that no namespace of ours holds in.
constexpr int kForbidden[] = {CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_SYS_TIME,  CAP_SYS_BOOT,
                              CAP_NET_ADMIN,  CAP_MKNOD,     CAP_SYS_PACCT, CAP_SYSLOG};

[[noreturn]] void Fail(const std::string &what) { throw std::runtime_error(what + ": " + strerror(errno)); }

void Check(int result, const std::string &what) {
    if (result < 0)
        Fail(what);
}

void WriteText(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file)
        Fail("can't write " + path);
}

/// A user may map itself alone; its group only once it can't change its groups any more.
void BecomeRootOfUserNamespace(uid_t user, gid_t group) {
    WriteText("/proc/self/setgroups", "deny");
    WriteText("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    WriteText("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

/// A mount of its own of a host path, not yet put anywhere. Mounts below it come along: leaving them out would
/// uncover what they hide, which the kernel refuses to a user.
ScopedFd TakeMount(const std::string &source) {
    ScopedFd mount(open_tree(AT_FDCWD, source.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
    Check(mount.Get(), "can't show " + source);
    return mount;
}

void MakeReadOnly(const ScopedFd &mount, const std::string &source) {
    mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID;
    Check(mount_setattr(mount.Get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof(attributes)),
          "can't make read-only " + source);
}

void PutMount(const ScopedFd &mount, const std::string &place) {
    Check(move_mount(mount.Get(), "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH), "can't mount on " + place);
}

bool IsFolder(const ScopedFd &mount) {
    struct stat record = {};
    return fstat(mount.Get(), &record) == 0 && S_ISDIR(record.st_mode);
}

/// Makes sure that a place can be mounted on: a folder, or an empty file in its folder.
void MakePlace(const std::string &place, bool isFolder) {
    if (isFolder) {
        fs::create_directories(place);
        return;
    }
    fs::create_directories(fs::path(place).parent_path());
    const ScopedFd file(open(place.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    Check(file.Get(), "can't make " + place);
}

/// Folders in memory, each used once, for the layers of overlays.
std::string MakeScratch() {
    char path[] = "/.flashsim/layerXXXXXX";
    if (mkdtemp(path) == nullptr)
        Fail("can't make a folder in memory");
    Check(chmod(path, 0755), path);
    return path;
}

/// Lays folders over each other, the first on top. The mount table shows the folders' names as they are given
/// here, and the updater searches that table: none may come from a path of the host.
void MountOverlay(const std::vector<std::string> &folders, bool isWritable, const std::string &place) {
    std::string options = "lowerdir=";
    for (const std::string &folder : folders)
        options.append(folder).append(":");
    options.pop_back();
    if (isWritable) {
        const std::string scratch = MakeScratch();
        fs::create_directory(scratch + "/upper");
        fs::create_directory(scratch + "/work");
        options += ",upperdir=" + scratch + "/upper,workdir=" + scratch + "/work";
    }
    Check(mount("overlay", place.c_str(), "overlay", MS_NOSUID, options.c_str()), "can't lay files over " + place);
}

/// A mount put where only overlays look for it.
std::string PutAside(const ScopedFd &mount) {
    std::string folder = MakeScratch();
    PutMount(mount, folder);
    return folder;
}

void MountMemory(const std::string &place, const char *options) {
    Check(mount("tmpfs", place.c_str(), "tmpfs", MS_NOSUID, options), "can't mount on " + place);
}

/// Marks a file for the preload library.
void Stamp(const std::string &place, long seconds, long number) {
    const timespec time = {seconds, number};
    const timespec times[] = {time, time};
    Check(utimensat(AT_FDCWD, place.c_str(), times, 0), "can't mark " + place);
}

/// A device that nobody can open, which a user may make too. The preload library opens it.
void MakeNode(const std::string &place, unsigned minor) {
    fs::create_directories(fs::path(place).parent_path());
    unlink(place.c_str());
    Check(mknod(place.c_str(), S_IFCHR | 0600, 0), "can't make " + place);
    Stamp(place, kNodeStamp, static_cast<long>(minor));
}

void CopyTree(const fs::path &source, const fs::path &target) {
    constexpr auto kHow =
        fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing;
    fs::copy(source, target, kHow);
}

/// A mount point missing in a read-only folder of the host comes in with a layer that holds nothing else.
void MakeMountPoint(const std::string &place) {
    fs::path present = place;
    while (!fs::exists(present))
        present = present.parent_path();
    if (present == place)
        return;
    if (access(present.c_str(), W_OK) == 0) {
        fs::create_directories(place);
        return;
    }
    const std::string layer = MakeScratch();
    fs::create_directories(layer / fs::path(place).lexically_relative(present));
    const std::string covered = fs::canonical(present);
    MountOverlay({layer, covered}, false, covered);
}

/// Everything of the host that the device shows, taken before the host's root goes out of sight.
class RootBuilder {
public:
    explicit RootBuilder(const SandboxLayout &layout) : m_layout(layout) {
        for (const char *folder : kSystemFolders)
            TakeSystemFolder(folder);
        m_bin = TakeReadOnly("/bin");
        for (const char *node : kNodes)
            m_nodes.push_back(TakeMount(std::string("/dev/") + node));
        if (!layout.root.empty())
            m_root = TakeReadOnly(layout.root);
        for (const ShownFile &file : layout.shown)
            m_shown.push_back(file.showing == Showing::Shared ? TakeMount(file.source) : TakeReadOnly(file.source));
    }

    /// To be called with the new, empty root in place.
    void Build() {
        for (const auto &folder : kFolders) {
            fs::create_directory(folder.path);
            Check(chmod(folder.path, folder.mode), folder.path);
        }
        if (m_root.Get() >= 0)
            PutMount(m_root, kRootCopy);
        BuildSystem();
        BuildDev();
        if (m_root.Get() >= 0)
            LayOverSystem();
        // All of them before the first mount: a layer would cover what is mounted below it.
        for (const std::string &place : m_layout.mounts)
            MakeMountPoint(place);
        for (const std::string &place : m_layout.mounts) {
            fs::create_directories(place);
            MountMemory(place, "mode=0755");
        }
        if (m_root.Get() >= 0)
            CopyRootFiles();
        for (const auto &text : m_layout.texts) {
            MakePlace(text.first, false);
            WriteText(text.first, text.second);
        }
        for (const auto &file : m_layout.live)
            Stamp(file.first, kSysfsStamp, file.second);
        for (const auto &node : m_layout.nodes)
            MakeNode(node.first, node.second);
        for (size_t i = 0; i < m_shown.size(); ++i)
            Show(m_layout.shown[i], m_shown[i]);
        for (const char *control : kKernelControls) {
            if (!fs::exists(control))
                continue;
            const ScopedFd mount = TakeReadOnly(control);
            PutMount(mount, control);
        }
    }

private:
    struct SystemFolder {
        std::string name;
        std::string link; ///< target of the link that it is; empty for a folder
        ScopedFd mount;
    };

    static ScopedFd TakeReadOnly(const std::string &source) {
        ScopedFd mount = TakeMount(source);
        MakeReadOnly(mount, source);
        return mount;
    }

    void TakeSystemFolder(const std::string &name) {
        const fs::path path = "/" + name;
        if (fs::is_symlink(path))
            m_system.push_back({name, fs::read_symlink(path), ScopedFd()});
        else if (fs::is_directory(path))
            m_system.push_back({name, "", TakeReadOnly(path)});
    }

    bool IsSystemFolder(const std::string &name) const {
        for (const SystemFolder &folder : m_system) {
            if (folder.name == name)
                return true;
        }
        return false;
    }

    void BuildSystem() {
        for (const SystemFolder &folder : m_system) {
            const std::string place = "/" + folder.name;
            if (!folder.link.empty()) {
                fs::create_symlink(folder.link, place);
                continue;
            }
            fs::create_directory(place);
            PutMount(folder.mount, place);
        }
        fs::create_directory("/bin");
        std::vector<std::string> folders = {PutAside(m_bin)};
        const std::string own = std::string(kRootCopy) + "/bin";
        if (fs::is_directory(own))
            folders.insert(folders.begin(), own);
        MountOverlay(folders, true, "/bin");
    }

    void BuildDev() {
        for (size_t i = 0; i < m_nodes.size(); ++i) {
            const std::string place = std::string("/dev/") + kNodes[i];
            MakePlace(place, false);
            PutMount(m_nodes[i], place);
        }
        for (const auto &link : kLinks)
            fs::create_symlink(link.target, link.name);
    }

    void LayOverSystem() {
        for (const SystemFolder &folder : m_system) {
            const std::string layer = std::string(kRootCopy).append("/").append(folder.name);
            if (!fs::is_directory(layer))
                continue;
            const std::string covered = fs::canonical(fs::path("/") / folder.name);
            MountOverlay({layer, covered}, false, covered);
        }
    }

    void CopyRootFiles() {
        for (const auto &entry : fs::directory_iterator(kRootCopy)) {
            const std::string name = entry.path().filename();
            if (!IsSystemFolder(name) && name != "bin")
                CopyTree(entry.path(), "/" + name);
        }
        // Those below read-only folders; the others have come with their parents.
        for (const std::string &place : m_layout.mounts) {
            const fs::path source = std::string(kRootCopy).append(place);
            if (fs::is_directory(source))
                CopyTree(source, place);
        }
    }

    static void Show(const ShownFile &file, const ScopedFd &mount) {
        const bool isFolder = IsFolder(mount);
        MakePlace(file.place, isFolder);
        if (file.showing != Showing::Private) {
            PutMount(mount, file.place);
        } else if (isFolder) {
            MountOverlay({PutAside(mount)}, true, file.place);
        } else {
            const std::string aside = MakeScratch() + "/file";
            MakePlace(aside, false);
            PutMount(mount, aside);
            fs::copy_file(aside, file.place, fs::copy_options::overwrite_existing);
        }
    }

    const SandboxLayout &m_layout;
    std::vector<SystemFolder> m_system;
    ScopedFd m_bin;
    ScopedFd m_root;
    std::vector<ScopedFd> m_nodes;
    std::vector<ScopedFd> m_shown;
};

/// Makes an empty file system in memory the root and lets go of the host's.
void EnterEmptyRoot() {
    // Any folder does for a moment: the host doesn't see what is mounted here.
    constexpr const char *kFoothold = "/tmp";
    MountMemory(kFoothold, "mode=0755");
    Check(chdir(kFoothold), kFoothold);
    // A user may mount /proc only while another whole one is in sight.
    Check(mkdir("proc", 0755), "/proc");
    Check(mount("proc", "proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), "can't mount /proc");
    // The old root ends up on top of the new one and is taken off from there.
    Check(static_cast<int>(syscall(SYS_pivot_root, ".", ".")), "can't change the root");
    Check(umount2(".", MNT_DETACH), "can't leave the old root");
    Check(chdir("/"), "/");
}

} // namespace

pid_t ForkIntoNamespaces() {
    const bool isRoot = geteuid() == 0;
    const int kinds = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS | (isRoot ? 0 : CLONE_NEWUSER);
    const auto pid = static_cast<pid_t>(syscall(SYS_clone, kinds | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    Check(pid, isRoot ? "no namespaces to be had here" : "no namespaces to be had by a user here (root may get them)");
    return pid;
}

void EnterSandboxRoot(const SandboxLayout &layout) {
    if (layout.user != 0)
        BecomeRootOfUserNamespace(layout.user, layout.group);
    // Before anything else: what is mounted from here on must not spread to the host.
    Check(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "can't part from the host's mounts");
    umask(022);
    RootBuilder builder(layout);
    EnterEmptyRoot();
    builder.Build();
    for (int power : kForbidden)
        Check(prctl(PR_CAPBSET_DROP, power, 0, 0, 0), "can't give up a power");
}
