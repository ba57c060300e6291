#include "sandbox/SandboxInit.h"

#include "base/Places.h"
#include "base/ScopedFd.h"
#include "base/SystemError.h"
#include "base/Text.h"
#include "sandbox/Confinement.h"
#include "sandbox/OwnFiles.h"
#include "sandbox/UpdateReader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <linux/close_range.h>
#include <map>
#include <set>
#include <spawn.h>
#include <stdexcept>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::size_t kCommandLimit = 65536;
/// Bytes of a command ahead of its words: what the reply describes, and whether to look at the own files.
constexpr std::size_t kCommandHead = 2;
constexpr char kLooks = 'l';
using Clock = std::chrono::steady_clock;

/// How often the limits are checked while a program runs.
constexpr std::chrono::milliseconds kLookPeriod(100);
constexpr timespec kLookWait = {0, 100'000'000};
/// How many of these waits others get to end after the updater: a delayed restart of the device takes a few seconds.
constexpr int kLooksForOthers = 50;
/// Most names of those that have not.
constexpr std::size_t kMostNames = 8;

constexpr int kLookMicroseconds = 500;
/// A command that never sleeps (a busy loop) is taken as up after so many looks.
constexpr int kMostLooks = 4000;

std::vector<char *> Pointers(const std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string &text : texts)
        pointers.push_back(const_cast<char *>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/// The defaults, not what this process or its caller (nohup) ignores or holds.
void ResetSignals(const sigset_t &held) {
    for (int number = 1; number < NSIG; ++number)
        signal(number, SIG_DFL);
    sigprocmask(SIG_SETMASK, &held, nullptr);
}

sigset_t SignalSet(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals)
        sigaddset(&set, number);
    return set;
}

/// Calls `visit` with the number of each process of the sandbox but this one.
template <typename Visit> void VisitProcesses(Visit visit) {
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos && name != "1")
            visit(name);
    }
}

/// @return what the sandbox's processes have too much of, or nullptr.
const char *FindExcess() {
    std::size_t processes = 0;
    std::uint64_t pages = 0;
    VisitProcesses([&](const std::string &process) {
        ++processes;
        std::uint64_t size = 0;
        std::uint64_t resident = 0;
        std::uint64_t shared = 0;
        // The chip's pages are shared.
        if (std::ifstream("/proc/" + process + "/statm") >> size >> resident >> shared)
            pages += resident - std::min(shared, resident);
    });
    if (processes > kMostProcesses)
        return "processes";
    return pages > kMostMemory / static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) ? "memory" : nullptr;
}

/// @return the names of the sandbox's processes but this one, with commas: "sh,sleep". Bytes other than letters, digits
///         and a few marks are shown as "?".
std::string OtherNames() {
    std::set<std::string> names;
    VisitProcesses([&](const std::string &process) {
        std::string name;
        std::getline(std::ifstream("/proc/" + process + "/comm"), name);
        std::replace_if(
            name.begin(), name.end(),
            [](char character) {
                return std::isalnum(static_cast<unsigned char>(character)) == 0 && character != '-' &&
                       character != '_' && character != '.';
            },
            '?');
        if (!name.empty() && names.size() < kMostNames)
            names.insert(name);
    });
    return names.empty() ? "?" : JoinWords({names.begin(), names.end()}, ",");
}

/// Programs hold no signal; the first process already has all defaults.
struct SpawnDefaults {
    SpawnDefaults() {
        const sigset_t none = SignalSet({});
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    }
    ~SpawnDefaults() { posix_spawnattr_destroy(&attributes); }
    SpawnDefaults(const SpawnDefaults &) = delete;
    SpawnDefaults &operator=(const SpawnDefaults &) = delete;

    posix_spawnattr_t attributes = {};
};

class Init {
public:
    Init(const SandboxJob &job, const SandboxStreams &streams)
        : m_job(job), m_ownFiles(job.layout.mounts), m_nControl(streams.control), m_nReport(streams.report) {}

    /// Before any program runs: what it finds then can't be changed any more.
    void ReadGivenUpdate() { m_sGiven = DescribeUpdate(m_job.update); }

    void BringUpAll() {
        for (const std::string &command : m_job.starts)
            BringUp(command);
    }

    /// Waits for the next command.
    /// @return false when none will come.
    bool Receive(SandboxCommand &command) const {
        std::vector<char> message(kCommandLimit);
        const ssize_t length = recv(m_nControl, message.data(), message.size(), 0);
        if (length <= 0)
            return false;
        command.describes = static_cast<Describes>(message[0]);
        command.looks = message[1] == kLooks;
        command.program.clear();
        const char *end = message.data() + length;
        for (const char *word = message.data() + kCommandHead; word < end; word += command.program.back().size() + 1)
            command.program.emplace_back(word);
        return true;
    }

    void CarryOut(const SandboxCommand &command) {
        ClearReport();
        if (command.looks && m_sBefore.empty())
            m_sBefore = m_isFirst ? m_ownFiles.Word() : OwnFiles::kUnknown;
        m_isFirst = false;
        const pid_t program = Start(command.program);
        int status = 0;
        const char *excess = nullptr;
        const sigset_t child = SignalSet({SIGCHLD});
        auto nextLook = Clock::now() + kLookPeriod;
        for (pid_t ended = Reap(program, status); ended != program; ended = Reap(program, status)) {
            if (ended == 0)
                sigtimedwait(&child, nullptr, &kLookWait);
            // By the clock: processes that end all the time must not keep it from looking.
            if (excess != nullptr || Clock::now() < nextLook)
                continue;
            excess = FindExcess();
            nextLook = Clock::now() + kLookPeriod;
            if (excess != nullptr)
                kill(-1, SIGKILL);
        }
        if (command.describes == Describes::AsLeft)
            kill(-1, SIGKILL);
        bool isAlone = ReapAll(command.describes == Describes::AsLeft);
        for (int look = 0; m_job.waitsForOthers && !isAlone && excess == nullptr && look < kLooksForOthers; ++look) {
            sigtimedwait(&child, nullptr, &kLookWait);
            isAlone = ReapAll(false);
            excess = FindExcess();
        }
        if (m_job.waitsForOthers && excess != nullptr)
            kill(-1, SIGKILL);
        const std::string left = m_job.waitsForOthers && !isAlone && excess == nullptr ? " left " + OtherNames() : "";
        // Processes that are left may go on changing files.
        const std::string own = command.looks && isAlone ? " own " + m_sBefore + " " + m_ownFiles.Word() : "";
        dprintf(m_nReport, "status %d%s%s%s%s%s\n", status, isAlone ? "" : " busy", left.c_str(),
                excess != nullptr ? " limit " : "", excess != nullptr ? excess : "", own.c_str());
        if (command.describes != Describes::Nothing)
            Report(command.describes == Describes::AsGiven ? m_sGiven : DescribeUpdate(m_job.update));
        Reply();
    }

    void Refuse(const char *why) const {
        ClearReport();
        dprintf(m_nReport, "error %s\n", why);
    }

private:
    void ClearReport() const {
        if (ftruncate(m_nReport, 0) == 0)
            lseek(m_nReport, 0, SEEK_SET);
    }

    void Reply() const { send(m_nControl, "", 1, MSG_NOSIGNAL); }

    void Report(const std::string &text) const {
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t written = write(m_nReport, text.data() + done, text.size() - done);
            if (written <= 0)
                return;
            done += static_cast<std::size_t>(written);
        }
    }

    pid_t Start(const std::vector<std::string> &command) {
        // Unlike fork, it copies none of the simulator's memory.
        pid_t pid = -1;
        const int error = posix_spawn(&pid, command[0].c_str(), nullptr, &m_defaults.attributes,
                                      Pointers(command).data(), Pointers(m_job.environment).data());
        if (error != 0)
            throw SystemError("can't run " + command[0], error);
        return pid;
    }

    /// Everything that loses its parent in the sandbox becomes a child of this process.
    /// @return a process that has ended, 0 when none has, -1 when none is left; `status` is set when it was `wanted`
    static pid_t Reap(pid_t wanted, int &status) {
        int any = 0;
        const pid_t ended = waitpid(-1, &any, WNOHANG);
        if (ended == wanted)
            status = any;
        return ended;
    }

    /// @param isPatient whether to wait for those that have not ended
    /// @return whether no process is left.
    static bool ReapAll(bool isPatient) {
        pid_t ended = 0;
        while ((ended = waitpid(-1, nullptr, isPatient ? 0 : WNOHANG)) > 0)
            continue;
        return ended < 0;
    }

    void BringUp(const std::string &command) {
        const pid_t pid = Start({"/bin/sh", "-c", command});
        std::map<std::string, std::string> before;
        for (int look = 0; look < kMostLooks; ++look) {
            usleep(kLookMicroseconds);
            int status = 0;
            pid_t ended = 0;
            while ((ended = Reap(pid, status)) > 0) {
                if (ended == pid && status != 0)
                    throw std::runtime_error("a background command didn't come up: " + command);
            }
            std::map<std::string, std::string> now;
            if (AllSleep(now) && now == before)
                return;
            before.swap(now);
        }
    }

    /// Notes how often each process but this one has been switched.
    /// @return whether all of them sleep. Two looks that give the same say that nothing ran in between.
    static bool AllSleep(std::map<std::string, std::string> &switches) {
        bool allSleep = true;
        VisitProcesses([&](const std::string &process) {
            std::ifstream file("/proc/" + process + "/status");
            std::string line;
            while (std::getline(file, line)) {
                if (line.rfind("State:", 0) == 0 && line.find_first_of("RD") != std::string::npos)
                    allSleep = false;
                if (line.find("ctxt_switches:") != std::string::npos)
                    switches[process] += line;
            }
        });
        return allSleep;
    }

    const SandboxJob &m_job;
    const SpawnDefaults m_defaults;
    OwnFiles m_ownFiles;
    int m_nControl;
    int m_nReport;
    std::string m_sGiven;  ///< the update, described before any program ran
    std::string m_sBefore; ///< the own files then; empty when nobody has asked
    bool m_isFirst = true; ///< no command has come yet
};

/// No other descriptor reaches the sandbox, and only the first two its programs.
void SetStreams(const SandboxStreams &streams) {
    const ScopedFd none(open("/dev/null", O_RDONLY | O_CLOEXEC));
    bool isDone = dup2(none.Get(), STDIN_FILENO) >= 0 && dup2(streams.out, STDOUT_FILENO) >= 0 &&
                  dup2(streams.err, STDERR_FILENO) >= 0;
    // The tool's own ends are closed too: the sandbox must see when the tool closes them.
    unsigned from = STDERR_FILENO + 1;
    for (const int kept : {std::min(streams.control, streams.report), std::max(streams.control, streams.report)}) {
        const auto number = static_cast<unsigned>(kept);
        isDone = isDone && (from == number || close_range(from, number - 1, 0) == 0) &&
                 fcntl(kept, F_SETFD, FD_CLOEXEC) == 0;
        from = number + 1;
    }
    if (!isDone || close_range(from, ~0U, 0) < 0)
        throw SystemError("can't set up the sandbox's streams");
}

} // namespace

void RunSandbox(const SandboxJob &job, const SandboxStreams &streams) {
    Init init(job, streams);
    try {
        // A signal to a whole process group must not leave the sandbox, nor the terminal's enter it.
        setsid();
        ResetSignals(SignalSet({SIGCHLD}));
        prctl(PR_SET_NAME, "init");
        EnterSandboxRoot(job.layout);
        SetStreams(streams);
        if (job.describesGiven)
            init.ReadGivenUpdate();
        ConfineProcess();
        // What runs from here on has the same user: nothing of this process may be open to it.
        Check(prctl(PR_SET_DUMPABLE, 0), "can't close /proc/1");
        init.BringUpAll();
        for (SandboxCommand command; init.Receive(command);)
            init.CarryOut(command);
    } catch (const std::exception &failure) {
        init.Refuse(failure.what());
    }
    _exit(0);
}

bool SendCommand(int control, const SandboxCommand &command) {
    std::string message = {static_cast<char>(command.describes), command.looks ? kLooks : '-'};
    for (const std::string &word : command.program)
        message.append(word).push_back('\0');
    if (message.size() > kCommandLimit)
        throw std::runtime_error("too many arguments for the updater");
    return send(control, message.data(), message.size(), MSG_NOSIGNAL) >= 0;
}
