#include "sandbox/Namespaces.h"

#include "base/ScopedFd.h"
#include "base/SystemError.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <linux/capability.h>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Ids for the sandboxes of root. No distribution gives out the first ones; a container that has none of them has
/// nobody. In a container that has neither, root itself is an ordinary user of the machine.
constexpr OutsideUser kForeignUsers[] = {{0x70000000, 0x70000000, 65536}, {65534, 65534, 1}};

constexpr int kNamespaces =
    CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;

/// Settings that keep a user from namespaces, with the value that grants them.
constexpr struct {
    const char *path;
    const char *name;
    const char *refusing;
    const char *granting;
} kSettings[] = {
    {"/proc/sys/user/max_user_namespaces", "user.max_user_namespaces", "0", "15000"},
    {"/proc/sys/kernel/unprivileged_userns_clone", "kernel.unprivileged_userns_clone", "0", "1"},
    {"/proc/sys/kernel/apparmor_restrict_unprivileged_userns", "kernel.apparmor_restrict_unprivileged_userns", "1",
     "0"},
};

[[noreturn]] void RefuseNamespaces(const std::string &step, int error) {
    std::string advice = "the container must allow user namespaces (docker: --security-opt seccomp=unconfined "
                         "--security-opt apparmor=unconfined --security-opt systempaths=unconfined)";
    for (const auto &setting : kSettings) {
        std::ifstream file(setting.path);
        std::string value;
        if (file >> value && value == setting.refusing)
            advice = std::string("set ") + setting.name + "=" + setting.granting;
    }
    throw std::runtime_error("no sandbox: " + step + ": " + strerror(error) + "; " + advice);
}

bool CanBecome(const OutsideUser &user) {
    const pid_t child = fork();
    if (child == 0)
        _exit(setgroups(0, nullptr) == 0 && setresgid(user.group, user.group, user.group) == 0 &&
                      setresuid(user.user, user.user, user.user) == 0
                  ? 0
                  : 1);
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

OutsideUser ChooseUser() {
    if (geteuid() == 0) {
        for (const OutsideUser &user : kForeignUsers) {
            if (CanBecome(user))
                return user;
        }
    }
    return {geteuid(), getegid(), 1};
}

/// Gives up root, but for what it takes to make a user namespace where ordinary users may not, and to map more than one
/// id into it.
void BecomeForeign(const OutsideUser &user) {
    Check(prctl(PR_SET_KEEPCAPS, 1), "can't keep capabilities");
    Check(setgroups(0, nullptr), "can't leave root's groups");
    Check(setresgid(user.group, user.group, user.group), "can't leave root's group");
    Check(setresuid(user.user, user.user, user.user), "can't leave root");
    constexpr std::uint32_t kKept = 1U << CAP_SYS_ADMIN | 1U << CAP_SETUID | 1U << CAP_SETGID;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, 2> kept = {{{kKept, kKept, 0}, {0, 0, 0}}};
    // A container's root may lack some of them; what fails for want of one tells so.
    if (syscall(SYS_capset, &header, kept.data()) != 0)
        prctl(PR_SET_KEEPCAPS, 0);
    // Else /proc would show this process and its child as root's.
    Check(prctl(PR_SET_DUMPABLE, 1), "can't open its own /proc");
}

/// @return false with errno when the kernel refuses.
bool WriteFile(const std::string &path, const std::string &text) {
    const ScopedFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return file.Get() >= 0 && write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Gives a process in a new user namespace the ids from 0 to count - 1.
bool MapIds(pid_t process, uid_t user, gid_t group, std::uint32_t count) {
    const std::string folder = "/proc/" + std::to_string(process) + "/";
    const auto extent = [count](std::uint32_t first) {
        return "0 " + std::to_string(first) + " " + std::to_string(count);
    };
    // Without a capability outside, a single group may be mapped once the process can't change its groups.
    return (count > 1 || WriteFile(folder + "setgroups", "deny")) && WriteFile(folder + "uid_map", extent(user)) &&
           WriteFile(folder + "gid_map", extent(group));
}

/// One byte from one process to another.
class Gate {
public:
    Gate() {
        int ends[2];
        Check(pipe2(ends, O_CLOEXEC), "can't make a pipe");
        m_reader = ScopedFd(ends[0]);
        m_writer = ScopedFd(ends[1]);
    }
    void Close() {
        m_reader.Close();
        m_writer.Close();
    }
    void Open() const { static_cast<void>(!write(m_writer.Get(), "", 1)); }
    /// @return false when the other process has ended without opening.
    bool Pass() {
        m_writer.Close();
        char byte = 0;
        return read(m_reader.Get(), &byte, 1) == 1;
    }

private:
    ScopedFd m_reader;
    ScopedFd m_writer;
};

/// What the helper of ForkIntoNamespaces says to its parent.
struct Started {
    pid_t pid;
    int error; ///< of what failed; 0 when nothing did
    char step[60];
};

void RaiseLoopback() {
    const ScopedFd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    // A kernel without a network has nothing to raise.
    ioctl(any.Get(), SIOCSIFFLAGS, &request);
}

} // namespace

bool OutsideUser::IsForeign() const { return user != geteuid(); }

const OutsideUser &SandboxUser() {
    static const OutsideUser user = ChooseUser();
    return user;
}

pid_t ForkIntoNamespaces(const char *folder) {
    const OutsideUser &user = SandboxUser();
    Gate mapped;
    int ends[2];
    Check(pipe2(ends, O_CLOEXEC), "can't make a pipe");
    const ScopedFd answer(ends[0]);
    ScopedFd question(ends[1]);
    // A process of its own gives up root and asks for the namespaces; the sandbox becomes a child of the caller.
    const pid_t helper = Check(fork(), "can't start a process");
    if (helper == 0) {
        Started started = {-1, 0, ""};
        try {
            if (user.IsForeign()) {
                Check(chdir(folder), folder);
                BecomeForeign(user);
            }
            const auto pid = static_cast<pid_t>(
                syscall(SYS_clone, kNamespaces | CLONE_PARENT | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
            started.pid = Check(pid, "no user namespace");
            if (pid == 0) {
                if (!mapped.Pass())
                    _exit(1);
                // Root in there, whatever id it was.
                if (setresgid(0, 0, 0) != 0 || setresuid(0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 1) != 0)
                    _exit(1);
                RaiseLoopback();
                return 0;
            }
            if (!MapIds(pid, user.user, user.group, user.count))
                throw SystemError("no ids for a user namespace");
            mapped.Open();
        } catch (const SystemError &failure) {
            started.error = failure.code().value();
            std::string(failure.what()).copy(started.step, sizeof started.step - 1);
        }
        static_cast<void>(!write(question.Get(), &started, sizeof started));
        _exit(0);
    }
    question.Close();
    Started started = {-1, 0, ""};
    const bool isAnswered = read(answer.Get(), &started, sizeof started) == static_cast<ssize_t>(sizeof started);
    waitpid(helper, nullptr, 0);
    if (isAnswered && started.error == 0)
        return started.pid;
    // The sandbox's process ends by itself: nobody opens its gate.
    mapped.Close();
    if (started.pid > 0)
        waitpid(started.pid, nullptr, 0);
    const std::string step(started.step);
    RefuseNamespaces(step.substr(0, step.rfind(": ")), started.error);
}

void LockMounts() {
    const std::uint32_t count = SandboxUser().count;
    Gate entered;
    // Only a process outside of the new user namespace may map more than one id.
    const pid_t helper = Check(fork(), "can't start a process");
    if (helper == 0)
        _exit(entered.Pass() && MapIds(1, 0, 0, count) ? 0 : 1);
    Check(unshare(CLONE_NEWUSER | CLONE_NEWNS), "no second user namespace");
    entered.Open();
    int status = -1;
    if (waitpid(helper, &status, 0) != helper || status != 0)
        throw SystemError("no ids for a second user namespace", EPERM);
}
