#pragma once

#include "sandbox/SandboxRoot.h"

#include <cstdint>
#include <string>
#include <vector>

/// Told of what is no regular file.
constexpr std::int64_t kNoSize = -1;

/// What a simulated device is made of.
struct SandboxJob {
    SandboxLayout layout;
    std::vector<std::string> environment; ///< NAME=VALUE, all that the device's programs get
    std::vector<std::string> starts;      ///< shell commands that run in the background, started in this order
    std::string update;                   ///< folder in the device that holds the unpacked update
};

/// One program that runs in a device.
struct SandboxCommand {
    std::vector<std::string> program; ///< path in the device and arguments
    bool tellsUpdate;                 ///< the reply tells what the update holds in the end
};

/// The descriptors through which a device and the host meet.
struct DeviceStreams {
    int out;     ///< what the device's programs print
    int err;     ///< their error output
    int control; ///< a socket of whole messages, from both sides
    int report;  ///< a file that holds the reply to the last command
};

/// The first process of a device, from its start to its end: enters the root, starts the background commands one by
/// one and waits for each until it is up (all it started sleep, or it has ended well). Then it runs the commands that
/// come on `control`, one at a time, and says with a byte there that the report holds the reply: a line "status N", N
/// as waitpid gives it, with " busy" behind when other processes are left in the device; if it is to tell of the
/// update, behind that a line "SIZE BYTES WORD" for each word of the script that leads to a file from the script's
/// folder (kNoSize for one that isn't regular, hexadecimal digits for the bytes of one up to 256 KiB, "-" for others),
/// an empty line and the bytes of the script, that in the root folder when the update has none. "error TEXT" is the
/// reply of a device that couldn't do so, and its last. All programs read nothing. The device and all that runs in it
/// end with `control`.
[[noreturn]] void RunSandbox(const SandboxJob &job, const DeviceStreams &streams);

/// Gives a device a command. @return false when the device has ended.
bool SendCommand(int control, const SandboxCommand &command);
