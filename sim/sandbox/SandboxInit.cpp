#include "sandbox/SandboxInit.h"

#include "base/ScopedFd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/close_range.h>
#include <map>
#include <set>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kScriptName = "flashrig.script";
/// What a command's message begins with; its words follow, each ended by a zero byte.
constexpr char kRuns = 'r';
constexpr char kTells = 't';
constexpr std::size_t kCommandLimit = 65536;

/// A boot environment takes no more.
constexpr off_t kMostShown = 0x40000;

constexpr int kLookMicroseconds = 500;
/// A command that never sleeps (a busy loop) is taken as up after so many looks.
constexpr int kMostLooks = 4000;

/// @return the words of a script, each once.
std::set<std::string> Words(const std::string &script) {
    constexpr const char *kBlanks = " \f\n\t\r\v";
    std::set<std::string> words;
    const std::size_t length = std::min(script.find('\0'), script.size());
    for (std::size_t start = 0; (start = script.find_first_not_of(kBlanks, start)) < length;) {
        const std::size_t end = std::min(script.find_first_of(kBlanks, start), length);
        words.insert(script.substr(start, end - start));
        start = end;
    }
    return words;
}

/// @return a file's size, and the bytes of a small one as hexadecimal digits behind it.
std::string Told(const std::string &path, const struct stat &status) {
    if (!S_ISREG(status.st_mode))
        return std::to_string(kNoSize) + " -";
    std::string told = std::to_string(status.st_size) + " ";
    if (status.st_size == 0 || status.st_size > kMostShown)
        return told + "-";
    std::ifstream file(path, std::ios::binary);
    constexpr const char *kDigits = "0123456789abcdef";
    for (auto byte = std::istreambuf_iterator<char>(file); byte != std::istreambuf_iterator<char>(); ++byte) {
        const auto value = static_cast<unsigned char>(*byte);
        told.append({kDigits[value / 16], kDigits[value % 16]});
    }
    return told;
}

std::vector<char *> Pointers(const std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string &text : texts)
        pointers.push_back(const_cast<char *>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/// Programs start with the signals as a device has them, not as this process or its caller (nohup) holds them.
void FreeSignals() {
    for (int number = 1; number < NSIG; ++number)
        signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

class Device {
public:
    Device(const SandboxJob &job, const DeviceStreams &streams)
        : m_job(job), m_nControl(streams.control), m_nReport(streams.report) {}

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
        command.tellsUpdate = message[0] == kTells;
        command.program.clear();
        const char *end = message.data() + length;
        for (const char *word = message.data() + 1; word < end; word += command.program.back().size() + 1)
            command.program.emplace_back(word);
        return true;
    }

    void CarryOut(const SandboxCommand &command) {
        ClearReport();
        const pid_t program = Start(command.program);
        int status = 0;
        while (Reap(program, status, 0) != program)
            continue;
        int ignored = 0;
        pid_t ended = 0;
        while ((ended = Reap(0, ignored, WNOHANG)) > 0)
            continue;
        const bool isAlone = ended < 0;
        dprintf(m_nReport, "status %d%s\n", status, isAlone ? "" : " busy");
        if (command.tellsUpdate)
            TellUpdate();
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

    /// Writes what the update holds to the report.
    void TellUpdate() const {
        namespace fs = std::filesystem;
        const bool isUsual = fs::exists(fs::path(m_job.update) / kScriptName);
        const fs::path folder = isUsual ? fs::path(m_job.update) : "/";
        std::ifstream file(folder / kScriptName, std::ios::binary);
        const std::string script(std::istreambuf_iterator<char>(file), {});
        std::string text;
        // Found as the updater finds them: "./a" and links lead to files as well.
        const std::string start = isUsual ? m_job.update + "/" : "/";
        for (const std::string &word : Words(script)) {
            struct stat status = {};
            if (stat((start + word).c_str(), &status) == 0)
                text += Told(start + word, status) + " " + word + "\n";
        }
        text += "\n" + script;
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t written = write(m_nReport, text.data() + done, text.size() - done);
            if (written <= 0)
                return;
            done += static_cast<std::size_t>(written);
        }
    }

    pid_t Start(const std::vector<std::string> &command) {
        const pid_t pid = fork();
        if (pid < 0)
            throw std::runtime_error(std::string("can't start a process: ") + strerror(errno));
        if (pid == 0) {
            FreeSignals();
            execve(command[0].c_str(), Pointers(command).data(), Pointers(m_job.environment).data());
            dprintf(m_nReport, "error can't run %s: %s\n", command[0].c_str(), strerror(errno));
            _exit(127);
        }
        return pid;
    }

    /// Everything that loses its parent in the device becomes a child of this process.
    /// @return what waitpid gives; `status` is set when it was the process asked for.
    static pid_t Reap(pid_t wanted, int &status, int options) {
        int any = 0;
        const pid_t ended = waitpid(-1, &any, options);
        if (ended == wanted)
            status = any;
        return ended;
    }

    void BringUp(const std::string &command) {
        const pid_t pid = Start({"/bin/sh", "-c", command});
        std::map<std::string, std::string> before;
        for (int look = 0; look < kMostLooks; ++look) {
            usleep(kLookMicroseconds);
            int status = 0;
            pid_t ended = 0;
            while ((ended = Reap(pid, status, WNOHANG)) > 0) {
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
        for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
            const std::string name = entry.path().filename();
            if (name.find_first_not_of("0123456789") != std::string::npos || name == "1")
                continue;
            std::ifstream file(entry.path() / "status");
            std::string line;
            while (std::getline(file, line)) {
                if (line.rfind("State:", 0) == 0 && line.find_first_of("RD") != std::string::npos)
                    allSleep = false;
                if (line.find("ctxt_switches:") != std::string::npos)
                    switches[name] += line;
            }
        }
        return allSleep;
    }

    const SandboxJob &m_job;
    int m_nControl;
    int m_nReport;
};

/// No descriptor of the host but these reaches the device, and only the first two its programs.
void SetStreams(const DeviceStreams &streams) {
    const ScopedFd none(open("/dev/null", O_RDONLY | O_CLOEXEC));
    bool isDone = dup2(none.Get(), STDIN_FILENO) >= 0 && dup2(streams.out, STDOUT_FILENO) >= 0 &&
                  dup2(streams.err, STDERR_FILENO) >= 0;
    // The host's own ends too: the device must see when they close.
    unsigned from = STDERR_FILENO + 1;
    for (const int kept : {std::min(streams.control, streams.report), std::max(streams.control, streams.report)}) {
        const auto number = static_cast<unsigned>(kept);
        isDone = isDone && (from == number || close_range(from, number - 1, 0) == 0) &&
                 fcntl(kept, F_SETFD, FD_CLOEXEC) == 0;
        from = number + 1;
    }
    if (!isDone || close_range(from, ~0U, 0) < 0)
        throw std::runtime_error(std::string("can't set up the device's streams: ") + strerror(errno));
}

} // namespace

void RunSandbox(const SandboxJob &job, const DeviceStreams &streams) {
    Device device(job, streams);
    try {
        // A signal to a whole process group must not leave the device, nor the terminal's enter it.
        setsid();
        prctl(PR_SET_NAME, "init");
        EnterSandboxRoot(job.layout);
        SetStreams(streams);
        device.BringUpAll();
        for (SandboxCommand command; device.Receive(command);)
            device.CarryOut(command);
    } catch (const std::exception &failure) {
        device.Refuse(failure.what());
    }
    _exit(0);
}

bool SendCommand(int control, const SandboxCommand &command) {
    std::string message(1, command.tellsUpdate ? kTells : kRuns);
    for (const std::string &word : command.program)
        message.append(word).push_back('\0');
    if (message.size() > kCommandLimit)
        throw std::runtime_error("too many arguments for the updater");
    return send(control, message.data(), message.size(), MSG_NOSIGNAL) >= 0;
}
