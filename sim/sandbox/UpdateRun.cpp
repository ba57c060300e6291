#include "sandbox/UpdateRun.h"

#include "base/Number.h"
#include "base/Places.h"
#include "base/SystemError.h"
#include "base/Text.h"
#include "chip/ChipFile.h"
#include "preload/Interface.h"
#include "sandbox/Confinement.h"
#include "sandbox/Namespaces.h"
#include "sandbox/Reply.h"
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
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace {

/// Beside the cells, as ChipFile keeps it.
constexpr const char *kChipStates = ".chip";
constexpr const char *kChipSums = ".sums";

/// The caller's variables that reach the sandbox's programs.
constexpr const char *kPassedOn[] = {"TERM", "LSAN_OPTIONS", "UBSAN_OPTIONS"};

/// Both ends of one of the sandbox's streams.
struct Channel {
    ScopedFd reader;
    ScopedFd writer;
};

Channel MakePipe() {
    int ends[2];
    Check(pipe2(ends, O_CLOEXEC), "can't make a pipe");
    return {ScopedFd(ends[0]), ScopedFd(ends[1])};
}

/// A terminal that changes no byte, like a serial console without its line discipline.
Channel MakeConsole() {
    Channel console = {ScopedFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)), ScopedFd()};
    char name[64];
    if (console.reader.Get() < 0 || unlockpt(console.reader.Get()) < 0 ||
        ptsname_r(console.reader.Get(), name, sizeof name) != 0)
        throw SystemError("can't make a console");
    console.writer = ScopedFd(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios mode = {};
    if (console.writer.Get() < 0 || tcgetattr(console.writer.Get(), &mode) < 0)
        throw SystemError("can't make a console");
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
    // The working folder of a foreign sandbox: its user may not come as far as that by a path from the root.
    const std::string folder =
        SandboxUser().IsForeign() ? std::filesystem::path(state).parent_path().string() + "/" : "";
    const auto seen = [&folder](const std::string &path) {
        return !folder.empty() && path.rfind(folder, 0) == 0 ? path.substr(folder.size()) : path;
    };
    job.layout.root = seen(settings.root);
    job.layout.mounts = settings.mounts;
    std::sort(job.layout.mounts.begin(), job.layout.mounts.end());
    AddMtdFiles(settings, ChipFile(chip).Chip(), job.layout);
    job.layout.shown = {
        {seen(settings.preload), kPreloadPlace, Showing::ReadOnly},
        {seen(chip), kChipPlace, Showing::Shared},
        {seen(chip + kChipStates), std::string(kChipPlace) + kChipStates, Showing::Shared},
        {seen(state), kStatePlace, Showing::Shared},
        {seen(settings.program), UpdaterPlace(settings), Showing::ReadOnly},
        {seen(settings.update), settings.place, Showing::Private},
    };
    if (ChipFile::HasSums(chip))
        job.layout.shown.insert(job.layout.shown.begin(),
                                {seen(chip + kChipSums), std::string(kChipPlace) + kChipSums, Showing::Shared});
    job.environment = Environment(std::filesystem::path(settings.program).filename());
    job.starts = settings.starts;
    job.waitsForOthers = settings.waitsForOthers;
    job.update = IsImage(settings) ? kUnpackedUpdate : settings.place;
    return job;
}

/// The text of a reply. Only the sandbox's first process can write one.
std::string ReplyText(const ScopedFd &report) {
    std::string text;
    char buffer[65536];
    for (ssize_t count = 0; (count = pread(report.Get(), buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
        text.append(buffer, static_cast<size_t>(count));
    return text;
}

using Clock = std::chrono::steady_clock;

/// @return milliseconds until an end, as poll takes them.
int TimeLeft(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

} // namespace

/// One of the sandbox's streams on its way to its reader.
struct Sandbox::Stream {
    ScopedFd source;
    int passTo;
    bool isForPeople; ///< passed on in visible characters, and no more than kMostOutput
    bool isTerminal;  ///< output is passed on to a terminal
    std::string text;
    std::string begun; ///< what is not passed on yet: the start of a character, or of a line where lines settle
    bool isCut = false;
    bool isLost = false;

    /// Takes what has come; closes the source at its end.
    void Take() {
        char buffer[65536];
        const ssize_t count = read(source.Get(), buffer, sizeof(buffer));
        if (count <= 0) {
            source.Close();
            PassBegun(begun.size());
            return;
        }
        const auto length = static_cast<size_t>(count);
        const size_t kept = std::min(length, kMostOutput - text.size());
        text.append(buffer, kept);
        isCut = isCut || kept < length;
        if (!isForPeople) {
            Pass(buffer, length);
            return;
        }
        const std::size_t lastLine = std::string_view(buffer, kept).rfind('\n');
        const std::size_t lines = lastLine == std::string_view::npos ? 0 : begun.size() + lastLine + 1;
        begun.append(buffer, kept);
        PassBegun(isTerminal ? WholeCharacters(begun) : lines);
    }

    void PassBegun(std::size_t length) {
        const std::string part = begun.substr(0, length);
        const std::string visible = isTerminal ? LiveLines(part) : SettledLines(part);
        begun.erase(0, length);
        Pass(visible.data(), visible.size());
    }

    /// Whoever reads along may have gone: the run goes on to its end or to the held signal that tells of it.
    void Pass(const char *bytes, size_t length) {
        for (size_t done = 0; passTo >= 0 && done < length;) {
            const ssize_t written = write(passTo, bytes + done, length - done);
            if (written < 0 && errno != EINTR) {
                isLost = errno != EPIPE;
                passTo = -1;
            }
            if (written > 0)
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

namespace {

/// Opens a file of the run to the sandbox's user, where that is another one; the owner stays the same, so that nobody
/// in there can change its mode.
void OpenToSandbox(const std::string &path, mode_t mode) {
    const OutsideUser &user = SandboxUser();
    if (!user.IsForeign())
        return;
    Check(chown(path.c_str(), static_cast<uid_t>(-1), user.group), path);
    Check(chmod(path.c_str(), mode), path);
}

} // namespace

void StageForSandbox(RunSettings &settings, const std::string &folder) {
    namespace fs = std::filesystem;
    const OutsideUser &user = SandboxUser();
    if (!user.IsForeign())
        return;
    const fs::path staged = fs::path(folder) / "staged";
    const auto makeFolder = [](const fs::path &path) {
        fs::create_directory(path);
        fs::permissions(path, fs::perms(0755)); // whatever the umask
    };
    makeFolder(staged);
    const auto stage = [&](std::string &path, const char *name) {
        if (path.empty())
            return;
        const fs::path target = staged / name;
        makeFolder(target);
        // A program keeps its name.
        const fs::path copy = fs::is_directory(path) ? target / "folder" : target / fs::path(path).filename();
        if (fs::is_directory(path)) {
            makeFolder(copy);
            CopyTree(path, copy);
        } else {
            fs::copy_file(path, copy);
        }
        path = copy;
    };
    stage(settings.program, "program");
    stage(settings.preload, "preload");
    stage(settings.update, "update");
    stage(settings.root, "root");
    const auto give = [&user](const fs::path &path) { Check(lchown(path.c_str(), user.user, user.group), path); };
    for (const auto &entry : fs::recursive_directory_iterator(staged))
        give(entry.path());
    give(staged);
}

Sandbox::Sandbox(const RunSettings &settings, const std::string &chip, const std::string &state, bool describesUpdate)
    : m_settings(settings), m_sChip(chip), m_sState(state),
      // A reply may be more than a message holds.
      m_report(Check(memfd_create("report", MFD_CLOEXEC), "can't make the sandbox's streams")) {
    constexpr mode_t kPassable = 0710;
    constexpr mode_t kWritable = 0660;
    const std::filesystem::path folder = std::filesystem::path(state).parent_path();
    OpenToSandbox(folder, kPassable);
    for (const std::string &path : {chip, chip + kChipStates, state})
        OpenToSandbox(path, kWritable);
    if (ChipFile::HasSums(chip))
        OpenToSandbox(chip + kChipSums, kWritable);
    SandboxJob job = MakeJob(settings, chip, state);
    job.describesGiven = describesUpdate;
    PrepareConfinement();
    Channel out = settings.isConsole ? MakeConsole() : MakePipe();
    Channel err = MakePipe();
    int ends[2];
    Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), "can't make the sandbox's streams");
    m_control = ScopedFd(ends[0]);
    const ScopedFd control(ends[1]);
    m_nPid = ForkIntoNamespaces(folder.c_str());
    if (m_nPid == 0) {
        // Not even a killed simulator leaves its sandbox running.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        RunSandbox(job, {out.writer.Get(), err.writer.Get(), control.Get(), m_report.Get()});
    }
    const auto stream = [&settings](Channel &channel, int passTo) {
        return std::make_unique<Stream>(
            Stream{std::move(channel.reader), passTo, settings.isConsole, isatty(passTo) == 1, "", ""});
    };
    m_out = stream(out, settings.passOut);
    m_err = stream(err, settings.passErr);
}

Sandbox::~Sandbox() { End(); }

/// Everything in the sandbox ends with its first process.
void Sandbox::End() {
    if (m_nPid <= 0)
        return;
    kill(m_nPid, SIGKILL);
    waitpid(std::exchange(m_nPid, -1), nullptr, 0);
}

RunOutcome Sandbox::Run(const std::vector<std::string> &program, bool describesUpdate, const HeldSignals &signals,
                        int milliseconds, bool looks) {
    // An image is a folder only after the prepare script: it is unpacked once more, where nothing of it runs.
    const bool readsApart = describesUpdate && IsImage(m_settings);
    RunOutcome read;
    if (readsApart)
        read = ReadUpdate(m_settings, m_sChip, m_sState, signals);
    if (read.isInterrupted || read.isOverdue)
        return read;
    const Describes describes = describesUpdate && !readsApart ? Describes::AsGiven : Describes::Nothing;
    RunOutcome outcome = RunCommand({program, describes, looks}, signals, milliseconds);
    if (readsApart) {
        outcome.script = std::move(read.script);
        outcome.files = std::move(read.files);
        outcome.contents = std::move(read.contents);
    }
    return outcome;
}

void Sandbox::Start(const std::vector<std::string> &program) {
    SendCommand(m_control.Get(), {program, Describes::Nothing});
}

bool Sandbox::TakeOutput(RunOutcome &outcome) {
    pollfd wait = {m_control.Get(), POLLIN, 0};
    const bool isRunning = poll(&wait, 1, 0) == 0;
    const auto take = [&outcome](Stream &stream, std::string &text) {
        stream.TakeRest();
        text.append(stream.text, 0, kMostOutput - text.size());
        outcome.isCut = outcome.isCut || stream.isCut;
        stream.text.clear();
    };
    take(*m_out, outcome.out);
    take(*m_err, outcome.err);
    return isRunning;
}

RunOutcome Sandbox::RunCommand(const SandboxCommand &command, const HeldSignals &signals, int milliseconds) {
    RunOutcome outcome;
    // A sandbox that has ended says in its report why.
    SendCommand(m_control.Get(), command);
    const bool isDone = Follow(outcome, signals, milliseconds);
    // What was printed on a console comes later than the reply; its end doesn't.
    if (!isDone || m_settings.isConsole)
        End();
    for (Stream *stream : {m_out.get(), m_err.get()}) {
        if (m_nPid > 0)
            stream->TakeRest();
        else
            stream->TakeAll();
    }
    outcome.out.swap(m_out->text);
    outcome.err.swap(m_err->text);
    outcome.isCut = m_out->isCut || m_err->isCut;
    outcome.isOutputLost = m_out->isLost;
    if (isDone)
        ReadReply(ReplyText(m_report), outcome);
    return outcome;
}

/// Takes the streams as they come until the sandbox replies.
/// @return false when the run is to end before.
bool Sandbox::Follow(RunOutcome &outcome, const HeldSignals &signals, int milliseconds) {
    m_out->text.clear();
    m_err->text.clear();
    m_out->isCut = m_err->isCut = false;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (true) {
        pollfd waits[] = {{signals.Descriptor(), POLLIN, 0},
                          {m_out->source.Get(), POLLIN, 0},
                          {m_err->source.Get(), POLLIN, 0},
                          {m_control.Get(), POLLIN, 0}};
        const int timeLeft = milliseconds == kNoLimit ? -1 : TimeLeft(end);
        const int count = poll(waits, std::size(waits), timeLeft);
        if (count < 0 && errno != EINTR)
            throw SystemError("can't follow the updater");
        outcome.isInterrupted = waits[0].revents != 0;
        // Output that never pauses must not keep the clock from being read.
        outcome.isOverdue = waits[3].revents == 0 && timeLeft == 0;
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
    RunSettings patient = settings;
    // Background commands keep on running.
    patient.waitsForOthers = settings.starts.empty();
    return Sandbox(patient, chip, state).Run(UpdaterCommand(settings), true, signals, settings.milliseconds);
}

RunOutcome ReadUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                      const HeldSignals &signals) {
    RunSettings quiet = settings;
    quiet.starts.clear();
    quiet.passOut = quiet.passErr = -1;
    quiet.isConsole = false;
    quiet.sim.faults.clear();
    quiet.sim.cutAtChange = quiet.sim.traceLimit = 0;
    const std::string ownChip = chip + ".read";
    const std::string ownState = state + ".read";
    ChipFile::Copy(chip, ownChip);
    SimState::Create(ownState, quiet.sim);
    const std::string command = IsImage(settings) ? std::string(kPrepareScript) + " " + settings.place : ":";
    RunOutcome outcome =
        Sandbox(quiet, ownChip, ownState)
            .RunCommand({{"/bin/sh", "-c", command}, Describes::AsLeft}, signals, settings.milliseconds);
    for (const std::string &path : {ownChip, ownChip + kChipStates, ownState})
        unlink(path.c_str());
    return outcome;
}
