#pragma once

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "mtd/SimState.h"
#include "mtd/Sysfs.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

/// One update and the device that it runs in. Paths are the host's unless said otherwise.
struct RunSettings {
    std::string program;                   ///< the updater under test
    std::string preload;                   ///< the library that shows programs the chip
    std::string update;                    ///< image file or folder
    std::string place;                     ///< absolute path at which the device shows it
    std::vector<std::string> arguments;    ///< for the updater, behind the update
    std::string root;                      ///< folder with the device's own files; empty for none
    std::vector<std::string> mounts;       ///< absolute paths in the device with a file system of their own
    std::vector<std::string> starts;       ///< shell commands that run in the device before the update
    std::vector<std::string> missingSysfs; ///< names of the sysfs files that no MTD device has
    SimSettings sim;                       ///< MTD devices, faults, power cut, trace
    bool assumesDevices = false;           ///< nobody has described the MTD devices: they are DefaultDevices
    bool isConsole = false;                ///< standard output is a terminal: lines come as they are printed
    int passOut = -1;                      ///< descriptor that gets the updater's output as it comes; -1 for none
    int passErr = -1;                      ///< the same for its error output
};

/// What came of a run. The counters and the trace are in the state file.
struct RunOutcome {
    bool isInterrupted = false;                ///< a held signal ended it early
    bool isOverdue = false;                    ///< it took longer than it was given, and was ended
    bool leavesProcesses = false;              ///< others than the updater still run in the device
    int status = 0;                            ///< the updater's, as waitpid gives it; 0 when ended early
    std::string out;                           ///< all output of the updater and of whatever it and the device started
    std::string err;                           ///< the same for the error output
    std::string script;                        ///< bytes of the update's script, as it stands in the device at the end
    std::map<std::string, std::int64_t> files; ///< sizes of the files that words of the script name; -1: not regular
    std::map<std::string, std::string> contents; ///< the bytes of those up to 256 KiB
};

/// A simulated device with an update in it. Nothing of the host changes but the chip and the state file; several
/// processes may have devices at the same time, each on its own chip. What runs leave behind in the device's files
/// and processes, later runs find there.
class Sandbox {
public:
    static constexpr int kNoLimit = -1;

    /// Begins to build it. What goes wrong with that, the first run tells.
    /// @param chip path of a chip's files, which runs change
    /// @param state path of the state file of its runs, which is there
    Sandbox(const RunSettings &settings, const std::string &chip, const std::string &state);
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    /// Runs a program to its end. When it is ended early or has a console, the device ends with it and runs nothing
    /// more.
    /// @param program path in the device and arguments
    /// @param signals a held signal ends the run
    /// @param milliseconds how long it may take
    /// @throws std::runtime_error with one line when the program didn't get to run.
    RunOutcome Run(const std::vector<std::string> &program, bool tellsUpdate, const HeldSignals &signals,
                   int milliseconds = kNoLimit);

private:
    void End();
    bool Follow(RunOutcome &outcome, const HeldSignals &signals, int milliseconds);

    struct Stream;
    std::unique_ptr<Stream> m_out, m_err;
    ScopedFd m_control;
    ScopedFd m_report;
    bool m_bIsConsole;
    pid_t m_nPid = -1;
};

/// Where a device's prepare script unpacks an image.
constexpr const char *kUnpackedUpdate = "/tmp/update";

/// @return whether the update is an image, which a device unpacks, and no folder.
bool IsImage(const RunSettings &settings);

/// @return the updater's path in the device and its arguments.
std::vector<std::string> UpdaterCommand(const RunSettings &settings);

/// Runs the update once in a device of its own.
/// @param chip path of a chip's files, which the run changes
/// @param state path of the state file, made anew for this run
/// @param signals a held signal ends the run
/// @throws std::runtime_error with one line when the updater didn't get to run.
RunOutcome RunUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                     const HeldSignals &signals);

/// Looks into an update without running it: only a device's prepare script runs, on a chip of no account.
/// @return an outcome with the script and the files
RunOutcome ReadUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                      const HeldSignals &signals);
