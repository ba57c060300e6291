#pragma once

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "mtd/SimState.h"
#include "mtd/Sysfs.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

/// Most output of a run that is kept and shown, in bytes; of standard output and of error output each.
constexpr std::size_t kMostOutput = std::size_t{16} << 20;

/// One update and the sandbox that it runs in. Paths are those outside unless said otherwise.
struct RunSettings {
    std::string program;                   ///< the updater under test
    std::string boardProgram;              ///< the updater for the board; empty for the board's own
    std::string preload;                   ///< the library that shows programs the chip
    std::string update;                    ///< image file or folder
    std::string place;                     ///< absolute path at which the sandbox shows the update
    std::vector<std::string> arguments;    ///< for the updater, after the update
    std::string root;                      ///< folder with the sandbox's own files; empty for none
    std::vector<std::string> mounts;       ///< absolute paths in the sandbox with a file system of their own
    std::vector<std::string> starts;       ///< shell commands that run in the sandbox before the update
    std::vector<std::string> missingSysfs; ///< names of the sysfs files that no MTD device has
    SimSettings sim;                       ///< MTD devices, faults, power cut, trace
    bool assumesDevices = false;           ///< nobody has described the MTD devices: they are DefaultDevices
    bool isConsole = false;                ///< standard output is a terminal: lines arrive as they are printed
    int passOut = -1;                      ///< descriptor that gets the updater's output as it arrives, for a console
                                           ///< in visible characters; -1 for none
    int passErr = -1;                      ///< the same for its error output
    int milliseconds = -1;                 ///< how long the update may take; -1 for no limit
    bool waitsForOthers = false;           ///< programs that the updater leaves get five seconds to end
};

/// The result of a run. The counters and the trace are in the state file.
struct RunOutcome {
    bool isInterrupted = false;                  ///< a held signal ended the run early
    bool isOverdue = false;                      ///< the run timed out and was killed
    bool isCut = false;                          ///< more output than kMostOutput: the rest is lost
    bool isOutputLost = false;                   ///< passOut couldn't be written, for another reason than a gone reader
    bool isBypassed = false;                     ///< a rig's chip was changed other than by requests
    std::string excess;                          ///< "processes" or "memory": the run took too much and was killed
    bool leavesProcesses = false;                ///< others than the updater still run in the sandbox
    std::string leftPrograms;                    ///< their names, where the run has waited for them to end: "sh,sleep"
    std::string ownBefore, ownAfter;             ///< words for the sandbox's own files before any run and after this
                                                 ///< one, see OwnFiles; empty when not asked for or still changing
    int status = 0;                              ///< the updater's, as waitpid gives it; 0 when ended early
    std::string out;                             ///< all output of the updater and of all other programs
    std::string err;                             ///< the same for the error output
    std::string script;                          ///< bytes of the update's script, before anything of the update ran
    std::map<std::string, std::int64_t> files;   ///< sizes of the files that words of the script name; -1: not regular
    std::map<std::string, std::string> contents; ///< the bytes of the regular ones
};

/// Makes sure that a sandbox can read what the settings name. Where root runs sandboxes, their user is another one:
/// program, library, update and root are copied into a folder of the run, and the settings name the copies.
/// @param folder that of the run, in which chips and state files are made too
/// @throws std::system_error
void StageForSandbox(RunSettings &settings, const std::string &folder);

/// A sandbox with an update in it. Nothing outside changes but the chip and the state file; several processes may have
/// sandboxes at the same time, each on its own chip. What runs leave in the sandbox's files and processes, later runs
/// find there.
class Sandbox {
public:
    static constexpr int kNoLimit = -1;

    /// Begins to build the sandbox. The first run reports what fails in there.
    /// @param chip path of a chip's files, which runs change
    /// @param state path of the existing state file of its runs, in the folder of the run
    /// @param describesUpdate whether a first run can describe the update; reading a large one takes longer than a run
    /// @throws std::runtime_error with one line, which names the missing setting where there are no sandboxes
    Sandbox(const RunSettings &settings, const std::string &chip, const std::string &state,
            bool describesUpdate = true);
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    /// Runs a program to its end. When the run ends early or has a console, the sandbox ends too and runs nothing more.
    /// @param program path in the sandbox and arguments
    /// @param describesUpdate whether the outcome is to have script, files and contents; of a first run only
    /// @param signals a held signal ends the run
    /// @param milliseconds how long the program may take
    /// @param looks whether the outcome is to have ownBefore and ownAfter
    /// @throws std::runtime_error with one line when the program didn't get to run
    RunOutcome Run(const std::vector<std::string> &program, bool describesUpdate, const HeldSignals &signals,
                   int milliseconds = kNoLimit, bool looks = false);

    /// Starts a program and does not wait for its end. The sandbox runs nothing more.
    /// @throws std::runtime_error when it has too many arguments
    void Start(const std::vector<std::string> &program);
    /// Adds to an outcome what a started program has printed since the last call.
    /// @return whether the program is still running.
    bool TakeOutput(RunOutcome &outcome);

private:
    struct Stream;

    RunOutcome RunCommand(const struct SandboxCommand &command, const HeldSignals &signals, int milliseconds);
    void End();
    bool Follow(RunOutcome &outcome, const HeldSignals &signals, int milliseconds);
    friend RunOutcome ReadUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                                 const HeldSignals &signals);

    const RunSettings m_settings;
    const std::string m_sChip, m_sState;
    std::unique_ptr<Stream> m_out, m_err;
    ScopedFd m_control;
    ScopedFd m_report;
    pid_t m_nPid = -1;
};

/// @return whether the update is an image, which a prepare script unpacks, and no folder.
bool IsImage(const RunSettings &settings);

/// @return the updater's path in the sandbox and its arguments.
std::vector<std::string> UpdaterCommand(const RunSettings &settings);

/// Runs the update once in a sandbox of its own.
/// @param chip path of a chip's files, which the run changes
/// @param state path of the state file, made anew for this run
/// @param signals a held signal ends the run
/// @throws std::runtime_error with one line when the updater didn't get to run
RunOutcome RunUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                     const HeldSignals &signals);

/// Reads an update without running it: only the prepare script runs, in a sandbox of its own on a throwaway chip.
/// @param chip,state files beside which those of that sandbox are made
/// @return an outcome with script, files and contents
RunOutcome ReadUpdate(const RunSettings &settings, const std::string &chip, const std::string &state,
                      const HeldSignals &signals);
