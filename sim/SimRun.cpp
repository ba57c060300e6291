#include "SimRun.h"

#include "ChipFile.h"
#include "DeviceInit.h"

#include <algorithm>
#include <cerrno>
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
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace {

constexpr const char *kPreloadPlace = "/.flashsim/libflashsim.so";
constexpr const char *kChipPlace = "/.flashsim/chip";
constexpr const char *kStatePlace = "/.flashsim/state";
/// Beside the cells, as ChipFile keeps it.
constexpr const char *kChipStates = ".chip";

/// Where a device's prepare script unpacks an image.
constexpr const char *kUnpackedUpdate = "/tmp/update";

/// The caller's variables that reach the device's programs.
constexpr const char *kPassedOn[] = {"TERM", "LSAN_OPTIONS", "UBSAN_OPTIONS"};

[[noreturn]] void Fail(const std::string &what) { throw std::runtime_error(what + ": " + strerror(errno)); }

struct Pipe {
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) < 0)
            Fail("can't make a pipe");
        reader = ScopedFd(ends[0]);
        writer = ScopedFd(ends[1]);
    }
    ScopedFd reader;
    ScopedFd writer;
};

/// The device's first process, seen from the host; everything in the device ends with it.
class DeviceProcess {
public:
    explicit DeviceProcess(pid_t pid) : m_nPid(pid) {}
    ~DeviceProcess() { End(); }
    DeviceProcess(const DeviceProcess &) = delete;
    DeviceProcess &operator=(const DeviceProcess &) = delete;

    /// Waits for its end.
    void Join() { waitpid(std::exchange(m_nPid, -1), nullptr, 0); }

    void End() {
        if (m_nPid > 0) {
            kill(m_nPid, SIGKILL);
            Join();
        }
    }

private:
    pid_t m_nPid;
};

/// The nodes and sysfs files by which programs find the MTD devices.
void AddMtdFiles(const RunSettings &settings, const NandGeometry &geometry, DeviceLayout &layout) {
    for (const SimDevice &device : settings.sim.devices) {
        const std::string name = "mtd" + std::to_string(device.number);
        layout.texts["/dev/" + name] = "";
        const std::pair<const char *, std::string> attributes[] = {
            {"size", std::to_string(device.size)},
            {"erasesize", std::to_string(geometry.eraseSize)},
            {"writesize", std::to_string(geometry.pageSize)},
            {"oobsize", std::to_string(geometry.oobSize)},
            {"name", device.name},
            {"type", "nand"},
        };
        const auto &missing = settings.missingSysfs;
        for (const auto &[attribute, value] : attributes) {
            if (std::find(missing.begin(), missing.end(), attribute) == missing.end())
                layout.texts["/sys/class/mtd/" + name + "/" + attribute] = value + "\n";
        }
    }
}

std::vector<std::string> Environment(const std::string &programName) {
    const char *asan = getenv("ASAN_OPTIONS");
    std::vector<std::string> environment = {
        "PATH=/bin:/usr/bin:/sbin:/usr/sbin",
        "HOME=/root",
        std::string("LD_PRELOAD=") + kPreloadPlace,
        std::string("FLASHSIM_CHIP=") + kChipPlace,
        std::string("FLASHSIM_STATE=") + kStatePlace,
        "FLASHSIM_PROGRAM=" + programName,
        // A sanitized updater finds the preloaded library in front of its own.
        "ASAN_OPTIONS=" + (asan != nullptr ? std::string(asan) + ":" : "") + "verify_asan_link_order=0",
    };
    for (const char *name : kPassedOn) {
        if (const char *value = getenv(name))
            environment.push_back(std::string(name) + "=" + value);
    }
    return environment;
}

DeviceJob MakeJob(const RunSettings &settings, const std::string &chip, const std::string &state) {
    DeviceJob job;
    const std::string programName = std::filesystem::path(settings.program).filename();
    const std::string program = "/bin/" + programName;
    job.layout.root = settings.root;
    job.layout.mounts = settings.mounts;
    std::sort(job.layout.mounts.begin(), job.layout.mounts.end());
    AddMtdFiles(settings, ChipFile(chip).Chip().Geometry(), job.layout);
    job.layout.shown = {
        {settings.preload, kPreloadPlace, Showing::ReadOnly},
        {chip, kChipPlace, Showing::Shared},
        {chip + kChipStates, std::string(kChipPlace) + kChipStates, Showing::Shared},
        {state, kStatePlace, Showing::Shared},
        {settings.program, program, Showing::ReadOnly},
        {settings.update, settings.place, Showing::Private},
    };
    job.environment = Environment(programName);
    job.starts = settings.starts;
    job.update = std::filesystem::is_directory(settings.update) ? settings.place : kUnpackedUpdate;
    job.program = {program, settings.place};
    job.program.insert(job.program.end(), settings.arguments.begin(), settings.arguments.end());
    return job;
}

/// One of the device's streams on its way to its reader.
struct Stream {
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
};

/// Follows both streams to their ends.
/// @return false when a held signal came before.
bool Follow(Stream &out, Stream &err, const HeldSignals &signals) {
    while (out.source.Get() >= 0 || err.source.Get() >= 0) {
        pollfd waits[] = {
            {signals.Descriptor(), POLLIN, 0}, {out.source.Get(), POLLIN, 0}, {err.source.Get(), POLLIN, 0}};
        if (poll(waits, 3, -1) < 0 && errno != EINTR)
            Fail("can't follow the updater");
        if (waits[0].revents != 0)
            return false;
        if (waits[1].revents != 0)
            out.Take();
        if (waits[2].revents != 0)
            err.Take();
    }
    return true;
}

/// Takes the device's report into an outcome.
void TakeReport(const ScopedFd &report, RunOutcome &outcome) {
    lseek(report.Get(), 0, SEEK_SET);
    Stream stream = {ScopedFd(dup(report.Get())), -1, ""};
    while (stream.source.Get() >= 0)
        stream.Take();
    std::istringstream text(stream.text);
    std::string line;
    std::getline(text, line);
    if (line.rfind("error ", 0) == 0)
        throw std::runtime_error(line.substr(strlen("error ")));
    if (sscanf(line.c_str(), "status %d", &outcome.status) != 1)
        throw std::runtime_error("the simulated device ended without a word");
    while (std::getline(text, line) && !line.empty()) {
        char *path = nullptr;
        const std::uint64_t size = strtoull(line.c_str(), &path, 10);
        if (*path == ' ')
            outcome.files[path + 1] = size;
    }
    outcome.script.assign(std::istreambuf_iterator<char>(text), {});
}

} // namespace

RunOutcome RunUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                     const HeldSignals &signals) {
    SimState::Create(state, settings.sim);
    const DeviceJob job = MakeJob(settings, chip, state);
    Pipe out, err;
    // It may hold more than a pipe does while nobody reads.
    const ScopedFd report(memfd_create("report", MFD_CLOEXEC));
    if (report.Get() < 0)
        Fail("can't make the device's report");
    const pid_t pid = ForkIntoNamespaces();
    if (pid == 0) {
        // Not even a killed simulator leaves its device running.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        RunDevice(job, out.writer.Get(), err.writer.Get(), report.Get());
    }
    DeviceProcess device(pid);
    out.writer.Close();
    err.writer.Close();

    Stream outStream = {std::move(out.reader), settings.passOut, ""};
    Stream errStream = {std::move(err.reader), settings.passErr, ""};
    RunOutcome outcome;
    outcome.isInterrupted = !Follow(outStream, errStream, signals);
    if (!outcome.isInterrupted) {
        device.Join();
        TakeReport(report, outcome);
    }
    outcome.out = std::move(outStream.text);
    outcome.err = std::move(errStream.text);
    return outcome;
}
