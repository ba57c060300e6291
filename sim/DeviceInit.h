#pragma once

#include "DeviceRoot.h"

#include <string>
#include <vector>

/// What runs in a simulated device.
struct DeviceJob {
    DeviceLayout layout;
    std::vector<std::string> environment; ///< NAME=VALUE, all that the device's programs get
    std::vector<std::string> starts;      ///< shell commands that run in the background, started in this order
    std::vector<std::string> program;     ///< path in the device and arguments of the program that the device is for
    std::string update;                   ///< folder in the device that holds the unpacked update
};

/// The first process of a device, from its start to its end: enters the root, starts the background commands one by
/// one and waits for each until it is up (all it started sleep, or it has ended well), runs the program, and writes
/// to `report` a line: "status N", N as waitpid gives it, or "error TEXT" when it didn't come to that. Behind the
/// status follow a line "SIZE PATH" for each file of the update's folder, an empty line and the bytes of its script;
/// both are those of the root folder when the script stands there alone. All programs read nothing and write to `out`
/// and `err`. The device and all that still runs in it end with it.
[[noreturn]] void RunDevice(const DeviceJob &job, int out, int err, int report);
