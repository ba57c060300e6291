#include "sandbox/SandboxRoot.h"

#include "base/Places.h"
#include "base/ScopedFd.h"
#include "base/SystemError.h"
#include "preload/Interface.h"
#include "sandbox/HostView.h"
#include "sandbox/Namespaces.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// Nothing in memory grows beyond it; so many small files take no more either.
constexpr const char *kInMemory = "mode=0755,size=2g,nr_inodes=200k";

const std::string kRootCopy = std::string(kOwnFolder) + "/root";

void WriteText(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file)
        throw SystemError("can't write " + path);
}

/// A mount of its own of a path outside, not yet put anywhere. Mounts below it come along: leaving them out would
/// uncover what they hide, which the kernel refuses to a user.
ScopedFd TakeMount(const std::string &source) {
    return ScopedFd(Check(open_tree(AT_FDCWD, source.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE),
                          "can't show " + source));
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
    // An existing file may be somebody else's, and mounting on it takes no permission.
    if (fs::exists(place))
        return;
    fs::create_directories(fs::path(place).parent_path());
    const ScopedFd file(open(place.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    Check(file.Get(), "can't make " + place);
}

/// Folders in memory, each used once, for the layers of overlays. Every sandbox of a job has the same ones.
std::string MakeScratch() {
    static unsigned made = 0;
    std::string path = std::string(kOwnFolder) + "/layer" + std::to_string(++made);
    Check(mkdir(path.c_str(), 0755), "can't make a folder in memory");
    return path;
}

/// Lays folders over each other, the first on top. The mount table shows the folders' names as they are given
/// here, and the updater searches that table: none may come from a path outside.
void MountOverlay(const std::vector<std::string> &folders, bool isWritable, const std::string &place) {
    std::string options = "lowerdir=";
    for (const std::string &folder : folders)
        options.append(folder).append(":");
    options.pop_back();
    if (isWritable) {
        const std::string scratch = MakeScratch();
        fs::create_directory(scratch + "/upper");
        fs::create_directory(scratch + "/work");
        // A user's overlay keeps in user attributes which folders replace those below.
        options += ",userxattr,upperdir=" + scratch + "/upper,workdir=" + scratch + "/work";
    }
    Check(mount("overlay", place.c_str(), "overlay", MS_NOSUID | MS_NODEV, options.c_str()),
          "can't lay files over " + place);
}

/// A mount put where only overlays look for it.
std::string PutAside(const ScopedFd &mount) {
    std::string folder = MakeScratch();
    PutMount(mount, folder);
    return folder;
}

void MountMemory(const std::string &place) {
    Check(mount("tmpfs", place.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, kInMemory), "can't mount on " + place);
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

/// Copies one entry of a folder, over what is there.
void CopyEntry(const fs::directory_entry &entry, const std::string &target) {
    const fs::file_status status = entry.symlink_status();
    if (fs::is_directory(status)) {
        fs::create_directories(target);
        CopyTree(entry.path(), target);
        fs::permissions(target, status.permissions());
    } else if (fs::is_symlink(status)) {
        fs::remove_all(target);
        fs::copy_symlink(entry.path(), target);
    } else if (fs::is_regular_file(status)) {
        fs::copy_file(entry.path(), target, fs::copy_options::overwrite_existing);
    } else if (fs::is_fifo(status)) {
        Check(mkfifo(target.c_str(), 0600), target);
    }
}

/// A mount point missing in a read-only folder comes in with a layer that holds nothing else.
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

/// Shows nothing where a file or folder is.
void Cover(const std::string &place, bool isFolder) {
    static const std::string kNothing = MakeScratch();
    static const std::string kEmptyFile = kNothing + "/file";
    static const std::string kEmptyFolder = kNothing + "/folder";
    MakePlace(kEmptyFile, false);
    MakePlace(kEmptyFolder, true);
    const std::string &source = isFolder ? kEmptyFolder : kEmptyFile;
    const ScopedFd mount = TakeMount(source);
    MakeReadOnly(mount, source);
    PutMount(mount, place);
}

template <std::size_t N> bool IsListed(const char *const (&names)[N], const std::string &name) {
    return std::any_of(std::begin(names), std::end(names), [&name](const char *it) { return name == it; });
}

/// What is shown of this machine, taken before its root goes out of sight.
class RootBuilder {
public:
    explicit RootBuilder(const SandboxLayout &layout) : m_layout(layout) {
        for (const char *folder : kProgramFolders)
            TakeProgramFolder(folder);
        m_bin = TakeReadOnly("/bin");
        for (const char *node : kNodes)
            m_nodes.push_back(TakeMount(std::string("/dev/") + node));
        for (const char *name : kEtcFolders) {
            const std::string folder = std::string("/etc/") + name;
            const bool isOwn = !layout.root.empty() && fs::exists(layout.root + folder);
            if (!isOwn && fs::is_directory(folder))
                m_etcFolders.emplace_back(folder, TakeReadOnly(folder));
        }
        for (const char *name : kEtcFiles) {
            std::ifstream file(std::string("/etc/") + name, std::ios::binary);
            if (file)
                m_etcFiles.emplace_back(name, std::string(std::istreambuf_iterator<char>(file), {}));
        }
        if (!layout.root.empty())
            m_root = TakeReadOnly(layout.root);
        for (const ShownFile &file : layout.shown)
            m_shown.push_back(file.showing == Showing::Shared ? TakeMount(file.source) : TakeReadOnly(file.source));
    }

    /// Everything that is to be locked. To be called with the new, empty root in place.
    void BuildLocked() {
        for (const auto &folder : kFolders) {
            fs::create_directory(folder.path);
            Check(chmod(folder.path, folder.mode), folder.path);
        }
        fs::create_directories(kRootCopy);
        if (HasRoot())
            PutMount(m_root, kRootCopy);
        BuildPrograms();
        BuildEtc();
        BuildDev();
        if (HasRoot())
            LayOverPrograms();
        // All of them before the first mount: a layer would cover what is mounted below it.
        for (const std::string &place : m_layout.mounts)
            MakeMountPoint(place);
        mount_attr attributes = {};
        attributes.attr_set = MOUNT_ATTR_RDONLY;
        Check(mount_setattr(AT_FDCWD, "/etc", 0, &attributes, sizeof attributes), "can't make read-only /etc");
        for (std::size_t i = 0; i < m_shown.size(); ++i) {
            const ShownFile &file = m_layout.shown[i];
            const bool isFolder = IsFolder(m_shown[i]);
            if (file.showing == Showing::Private) {
                m_aside.push_back(MakeScratch() + "/source");
                MakePlace(m_aside.back(), isFolder);
                PutMount(m_shown[i], m_aside.back());
            } else {
                MakePlace(file.place, isFolder);
                PutMount(m_shown[i], file.place);
            }
        }
        CoverProc();
    }

    /// The rest: the sandbox's own mounts and files.
    void BuildOwn() {
        for (const std::string &place : m_layout.mounts) {
            fs::create_directories(place);
            MountMemory(place);
        }
        if (HasRoot())
            CopyRootFiles();
        for (const auto &[place, text] : m_layout.texts) {
            MakePlace(place, false);
            WriteText(place, text);
        }
        for (const auto &file : m_layout.live)
            Stamp(file.first, kSysfsStamp, file.second);
        for (const auto &node : m_layout.nodes)
            MakeNode(node.first, node.second);
        auto aside = m_aside.begin();
        for (const ShownFile &file : m_layout.shown) {
            if (file.showing == Showing::Private)
                ShowPrivate(*aside++, file.place);
        }
    }

private:
    struct ProgramFolder {
        std::string name;
        std::string link; ///< target of the link that it is; empty for a folder
        ScopedFd mount;
    };

    static ScopedFd TakeReadOnly(const std::string &source) {
        ScopedFd mount = TakeMount(source);
        MakeReadOnly(mount, source);
        return mount;
    }

    bool HasRoot() const { return !m_layout.root.empty(); }

    void TakeProgramFolder(const std::string &name) {
        const fs::path path = "/" + name;
        if (fs::is_symlink(path))
            m_programs.push_back({name, fs::read_symlink(path), ScopedFd()});
        else if (fs::is_directory(path))
            m_programs.push_back({name, "", TakeReadOnly(path)});
    }

    void BuildPrograms() {
        for (const ProgramFolder &folder : m_programs) {
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
        const std::string own = kRootCopy + "/bin";
        if (HasRoot() && fs::is_directory(own))
            folders.insert(folders.begin(), own);
        MountOverlay(folders, true, "/bin");
    }

    void BuildEtc() {
        MountMemory("/etc");
        for (const auto &[name, text] : m_etcFiles)
            WriteText("/etc/" + name, text);
        if (HasRoot() && fs::is_directory(kRootCopy + "/etc"))
            CopyTree(kRootCopy + "/etc", "/etc");
        for (const auto &[folder, mount] : m_etcFolders) {
            fs::create_directory(folder);
            PutMount(mount, folder);
        }
    }

    void BuildDev() {
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            const std::string place = std::string("/dev/") + kNodes[i];
            MakePlace(place, false);
            PutMount(m_nodes[i], place);
        }
        for (const auto &link : kLinks)
            fs::create_symlink(link.target, link.name);
    }

    static void CoverProc() {
        std::vector<fs::directory_entry> covered;
        for (const auto &entry : fs::directory_iterator("/proc")) {
            const std::string name = entry.path().filename();
            const bool isProcess = name.find_first_not_of("0123456789") == std::string::npos;
            if (!isProcess && !IsListed(kProcEntries, name) && !entry.is_symlink())
                covered.push_back(entry);
        }
        for (const auto &entry : covered)
            Cover(entry.path(), entry.is_directory());
    }

    void LayOverPrograms() {
        for (const ProgramFolder &folder : m_programs) {
            const std::string layer = kRootCopy + "/" + folder.name;
            if (!fs::is_directory(layer))
                continue;
            const std::string covered = fs::canonical(fs::path("/") / folder.name);
            MountOverlay({layer, covered}, false, covered);
        }
    }

    void CopyRootFiles() {
        const auto isShown = [this](const std::string &name) {
            return name == "bin" || name == "etc" ||
                   std::any_of(m_programs.begin(), m_programs.end(),
                               [&name](const ProgramFolder &folder) { return folder.name == name; });
        };
        for (const auto &entry : fs::directory_iterator(kRootCopy)) {
            const std::string name = entry.path().filename();
            if (!isShown(name))
                CopyEntry(entry, "/" + name);
        }
        // Those below read-only folders; the others have come with their parents.
        for (const std::string &place : m_layout.mounts) {
            if (fs::is_directory(kRootCopy + place))
                CopyTree(kRootCopy + place, place);
        }
    }

    static void ShowPrivate(const std::string &aside, const std::string &place) {
        const bool isFolder = fs::is_directory(aside);
        MakePlace(place, isFolder);
        if (isFolder)
            MountOverlay({aside}, true, place);
        else
            fs::copy_file(aside, place, fs::copy_options::overwrite_existing);
    }

    const SandboxLayout &m_layout;
    std::vector<ProgramFolder> m_programs;
    std::vector<std::pair<std::string, ScopedFd>> m_etcFolders;
    std::vector<std::pair<std::string, std::string>> m_etcFiles;
    ScopedFd m_bin;
    ScopedFd m_root;
    std::vector<ScopedFd> m_nodes;
    std::vector<ScopedFd> m_shown;
    std::vector<std::string> m_aside; ///< where the private ones of `shown` are kept
};

/// Makes an empty file system in memory the root and lets go of the old one.
void EnterEmptyRoot() {
    // Any folder does for a moment: nothing outside sees what is mounted here.
    constexpr const char *kFoothold = "/tmp";
    MountMemory(kFoothold);
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

void EnterSandboxRoot(const SandboxLayout &layout) {
    // Before anything else: what is mounted from here on must not spread.
    Check(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "can't part from the mounts outside");
    umask(022);
    RootBuilder builder(layout);
    EnterEmptyRoot();
    builder.BuildLocked();
    LockMounts();
    builder.BuildOwn();
}

void CopyTree(const std::string &source, const std::string &target) {
    for (const auto &entry : fs::directory_iterator(source))
        CopyEntry(entry, target + "/" + entry.path().filename().string());
}
