#pragma once

#include "sandbox/SandboxRoot.h"

#include <cstdint>
#include <string>
#include <vector>

/// Size of what isn't a regular file.
constexpr std::int64_t kNoSize = -1;

/// What a sandbox is made of.
struct SandboxJob {
    SandboxLayout layout;
    std::vector<std::string> environment; ///< NAME=VALUE, all that the sandbox's programs get
    std::vector<std::string> starts;      ///< shell commands that run in the background, started in this order
    std::string update;                   ///< folder in the sandbox that holds the unpacked update
    bool describesGiven = true;           ///< the update is read before any program runs
    bool waitsForOthers = false;          ///< after a program, others get a moment to end; their names are replied
};

/// Whether a reply describes the update, and in which state.
enum class Describes : char {
    Nothing = 'n',
    AsGiven = 'g', ///< before any program ran in the sandbox
    AsLeft = 'l'   ///< after the command, when all its processes have been killed
};

/// One program that runs in a sandbox.
struct SandboxCommand {
    std::vector<std::string> program; ///< path in the sandbox and arguments
    Describes describes;
    bool looks = false; ///< the reply says what the sandbox's own files are
};

/// The descriptors that connect a sandbox and the tool.
struct SandboxStreams {
    int out;     ///< standard output of the sandbox's programs
    int err;     ///< their error output
    int control; ///< a socket of whole messages, from both sides
    int report;  ///< a file that holds the reply to the last command
};

/// The whole life of a sandbox's first process: enters the root, gives up what no updater needs, starts the background
/// commands one by one and waits for each until it is up (all it started sleep, or it has ended well). Then it runs the
/// commands from `control`, one at a time. A byte sent there says that the report holds the reply:
///
///   status N [busy] [left NAMES] [limit WORD] [own BEFORE AFTER]
///                                   N as waitpid gives it; busy: other processes are left; NAMES: theirs, with commas;
///                                   WORD: "processes" or "memory", of which the sandbox took too much, so that all of
///                                   them were killed; BEFORE and AFTER: words for the sandbox's own files, as
///                                   OwnFiles gives them, before any command and after this one
///   SIZE COUNT WORD                 a line for each word of the script that leads to a file from the script's folder,
///                                   and COUNT bytes after it: all of a regular file up to kMostContents; SIZE is
///                                   kNoSize for one that isn't regular
///   (an empty line, then the bytes of the script; that in the root folder when the update has none)
///
/// The lines after the first are there when the command asked for them. "error TEXT" is the reply of a sandbox that
/// couldn't do so, and its last. Programs read nothing from standard input. The sandbox and all that runs in it end
/// with `control`. Programs in the sandbox can't reach this process, its memory or its descriptors.
[[noreturn]] void RunSandbox(const SandboxJob &job, const SandboxStreams &streams);

/// Sends a command. @return false when the sandbox has ended.
bool SendCommand(int control, const SandboxCommand &command);
