#include "sandbox/UpdateRun.h"

#include "chip/ChipFile.h"
#include "preload/Interface.h"
#include "sandbox/SandboxInit.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace {

/// Beside the cells, as ChipFile keeps it.
constexpr const char *kChipStates = ".chip";

/// The caller's variables that reach the device's programs.
constexpr const char *kPassedOn[] = {"TERM", "LSAN_OPTIONS", "UBSAN_OPTIONS"};

[[noreturn]] void Fail(const std::string &what) { throw std::runtime_error(what + ": " + strerror(errno)); }

/// What one of the device's streams goes through.
struct Channel {
    ScopedFd reader;
    ScopedFd writer;
};

Channel MakePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        Fail("can't make a pipe");
    return {ScopedFd(ends[0]), ScopedFd(ends[1])};
}

/// A terminal that changes no byte, like a device's serial console without its line discipline.
Channel MakeConsole() {
    Channel console = {ScopedFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)), ScopedFd()};
    char name[64];
    if (console.reader.Get() < 0 || unlockpt(console.reader.Get()) < 0 ||
        ptsname_r(console.reader.Get(), name, sizeof name) != 0)
        Fail("can't make a console");
    console.writer = ScopedFd(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios mode = {};
    if (console.writer.Get() < 0 || tcgetattr(console.writer.Get(), &mode) < 0)
        Fail("can't make a console");
    cfmakeraw(&mode);
    tcsetattr(console.writer.Get(), TCSANOW, &mode);
    return console;
}

std::string UpdaterPlace(const RunSettings &settings) {
    return "/bin/" + std::filesystem::path(settings.program).filename().string();
}

/// The nodes and sysfs files by which programs find the MTD devices.
void AddMtdFiles(const RunSettings &settings, const NandChip &chip, SandboxLayout &layout) {
    const auto &missing = settings.missingSysfs;
    long place = 0;
    for (const SimDevice &device : settings.sim.devices) {
        const std::string name = "mtd" + std::to_string(device.number);
        const auto minor = static_cast<unsigned>(2 * device.number);
        layout.nodes["/dev/" + name] = minor;
        layout.nodes["/dev/" + name + "ro"] = minor + 1;
        layout.texts["/sys/class/mtd/" + name + "ro/dev"] = "90:" + std::to_string(minor + 1) + "\n";
        const MtdCounters unused = {};
        for (std::size_t i = 0; i < kSysfsFileCount; ++i) {
            if (std::find(missing.begin(), missing.end(), kSysfsFiles[i]) != missing.end())
                continue;
            const std::string file = "/sys/class/mtd/" + name + "/" + kSysfsFiles[i];
            layout.texts[file] = SysfsText(i, device, chip, unused);
            if (IsLiveSysfs(i))
                layout.live[file] = place * kSysfsPlaces + static_cast<long>(i);
        }
        ++place;
    }
}

std::vector<std::string> Environment(const std::string &programName) {
    const char *asan = getenv("ASAN_OPTIONS");
    std::vector<std::string> environment = {
        "PATH=/bin:/usr/bin:/sbin:/usr/sbin",
        "HOME=/root",
        std::string("LD_PRELOAD=") + kPreloadPlace,
        std::string(kChipVariable) + "=" + kChipPlace,
        std::string(kStateVariable) + "=" + kStatePlace,
        std::string(kProgramVariable) + "=" + programName,
        std::string(kNodesVariable) + "=1",
        // A sanitized updater finds the preloaded library in front of its own.
        "ASAN_OPTIONS=" + (asan != nullptr ? std::string(asan) + ":" : "") + "verify_asan_link_order=0",
    };
    for (const char *name : kPassedOn) {
        if (const char *value = getenv(name))
            environment.push_back(std::string(name) + "=" + value);
    }
    return environment;
}

SandboxJob MakeJob(const RunSettings &settings, const std::string &chip, const std::string &state) {
    SandboxJob job;
    job.layout.root = settings.root;
    job.layout.mounts = settings.mounts;
    std::sort(job.layout.mounts.begin(), job.layout.mounts.end());
    AddMtdFiles(settings, ChipFile(chip).Chip(), job.layout);
    job.layout.shown = {
        {settings.preload, kPreloadPlace, Showing::ReadOnly},
        {chip, kChipPlace, Showing::Shared},
        {chip + kChipStates, std::string(kChipPlace) + kChipStates, Showing::Shared},
        {state, kStatePlace, Showing::Shared},
        {settings.program, UpdaterPlace(settings), Showing::ReadOnly},
        {settings.update, settings.place, Showing::Private},
    };
    job.environment = Environment(std::filesystem::path(settings.program).filename());
    job.starts = settings.starts;
    job.update = IsImage(settings) ? kUnpackedUpdate : settings.place;
    return job;
}

/// Takes a device's reply to a command into an outcome.
void TakeReport(const ScopedFd &report, RunOutcome &outcome) {
    std::string text;
    char buffer[65536];
    for (ssize_t count = 0; (count = pread(report.Get(), buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
        text.append(buffer, static_cast<size_t>(count));
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    if (line.rfind("error ", 0) == 0)
        throw std::runtime_error(line.substr(strlen("error ")));
    if (sscanf(line.c_str(), "status %d", &outcome.status) != 1)
        throw std::runtime_error("the simulated device ended without a word");
    outcome.leavesProcesses = line.find(" busy") != std::string::npos;
    while (std::getline(lines, line) && !line.empty()) {
        std::istringstream words(line);
        std::int64_t size = 0;
        std::string digits, name;
        words >> size >> digits >> name;
        outcome.files[name] = size;
        for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
            outcome.contents[name] += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    outcome.script.assign(std::istreambuf_iterator<char>(lines), {});
}

using Clock = std::chrono::steady_clock;

/// @return milliseconds until an end, as poll takes them.
int TimeLeft(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

} // namespace

/// One of the device's streams on its way to its reader.
struct Sandbox::Stream {
    ScopedFd source;
    int passTo;
    std::string text;

    /// Takes what has come; closes the source at its end.
    void Take() {
        char buffer[65536];
        const ssize_t count = read(source.Get(), buffer, sizeof(buffer));
        if (count <= 0) {
            source.Close();
            return;
        }
        const auto length = static_cast<size_t>(count);
        text.append(buffer, length);
        // Whoever reads along may have gone: the run goes on to its end or to the held signal that tells of it.
        for (size_t done = 0; passTo >= 0 && done < length;) {
            const ssize_t written = write(passTo, buffer + done, length - done);
            if (written < 0 && errno != EINTR)
                passTo = -1;
            else if (written > 0)
                done += static_cast<size_t>(written);
        }
    }

    /// Takes what comes until all who may write have ended.
    void TakeAll() {
        while (source.Get() >= 0)
            Take();
    }

    /// Takes what is there, without waiting for more.
    void TakeRest() {
        for (int left = 0; source.Get() >= 0 && ioctl(source.Get(), FIONREAD, &left) == 0 && left > 0;)
            Take();
    }
};

Sandbox::Sandbox(const RunSettings &settings, const std::string &chip, const std::string &state)
    // A reply may be more than a message holds.
    : m_report(memfd_create("report", MFD_CLOEXEC)), m_bIsConsole(settings.isConsole) {
    const SandboxJob job = MakeJob(settings, chip, state);
    Channel out = settings.isConsole ? MakeConsole() : MakePipe();
    Channel err = MakePipe();
    int ends[2];
    if (m_report.Get() < 0 || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0)
        Fail("can't make the device's streams");
    m_control = ScopedFd(ends[0]);
    const ScopedFd control(ends[1]);
    m_nPid = ForkIntoNamespaces();
    if (m_nPid == 0) {
        // Not even a killed simulator leaves its device running.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        RunSandbox(job, {out.writer.Get(), err.writer.Get(), control.Get(), m_report.Get()});
    }
    m_out = std::make_unique<Stream>(Stream{std::move(out.reader), settings.passOut, ""});
    m_err = std::make_unique<Stream>(Stream{std::move(err.reader), settings.passErr, ""});
}

Sandbox::~Sandbox() { End(); }

/// Everything in the device ends with its first process.
void Sandbox::End() {
    if (m_nPid <= 0)
        return;
    kill(m_nPid, SIGKILL);
    waitpid(std::exchange(m_nPid, -1), nullptr, 0);
}

RunOutcome Sandbox::Run(const std::vector<std::string> &program, bool tellsUpdate, const HeldSignals &signals,
                        int milliseconds) {
    RunOutcome outcome;
    // A device that has ended says in its report why.
    SendCommand(m_control.Get(), {program, tellsUpdate});
    const bool isDone = Follow(outcome, signals, milliseconds);
    // What was printed on a console comes later than the reply; its end doesn't.
    if (!isDone || m_bIsConsole)
        End();
    for (Stream *stream : {m_out.get(), m_err.get()}) {
        if (m_nPid > 0)
            stream->TakeRest();
        else
            stream->TakeAll();
    }
    outcome.out.swap(m_out->text);
    outcome.err.swap(m_err->text);
    if (isDone)
        TakeReport(m_report, outcome);
    return outcome;
}

/// Takes the streams as they come until the device replies.
/// @return false when the run is to end before.
bool Sandbox::Follow(RunOutcome &outcome, const HeldSignals &signals, int milliseconds) {
    m_out->text.clear();
    m_err->text.clear();
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (true) {
        pollfd waits[] = {{signals.Descriptor(), POLLIN, 0},
                          {m_out->source.Get(), POLLIN, 0},
                          {m_err->source.Get(), POLLIN, 0},
                          {m_control.Get(), POLLIN, 0}};
        const int count = poll(waits, std::size(waits), milliseconds == kNoLimit ? -1 : TimeLeft(end));
        if (count < 0 && errno != EINTR)
            Fail("can't follow the updater");
        outcome.isInterrupted = waits[0].revents != 0;
        outcome.isOverdue = count == 0;
        if (outcome.isInterrupted || outcome.isOverdue)
            return false;
        if (waits[1].revents != 0)
            m_out->Take();
        if (waits[2].revents != 0)
            m_err->Take();
        if (waits[3].revents != 0) {
            char reply = 0;
            recv(m_control.Get(), &reply, sizeof reply, 0);
            return true;
        }
    }
}

bool IsImage(const RunSettings &settings) { return !std::filesystem::is_directory(settings.update); }

std::vector<std::string> UpdaterCommand(const RunSettings &settings) {
    std::vector<std::string> command = {UpdaterPlace(settings), settings.place};
    command.insert(command.end(), settings.arguments.begin(), settings.arguments.end());
    return command;
}

RunOutcome RunUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                     const HeldSignals &signals) {
    SimState::Create(state, settings.sim);
    return Sandbox(settings, chip, state).Run(UpdaterCommand(settings), true, signals);
}

RunOutcome ReadUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                      const HeldSignals &signals) {
    RunSettings quiet = settings;
    quiet.starts.clear();
    quiet.passOut = quiet.passErr = -1;
    quiet.isConsole = false;
    SimState::Create(state, quiet.sim);
    const std::string command = IsImage(settings) ? "/app/prepare_flashrig.sh " + settings.place : ":";
    return Sandbox(quiet, chip, state).Run({"/bin/sh", "-c", command}, true, signals);
}
