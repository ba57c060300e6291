#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// A shell command that the updater ran by way of system().
struct ShellCall {
    std::string command;
    int status = -1; ///< as waitpid gives it; -1 when it never came back
};

/// What a trace says of a page, beyond requests.
struct PageNote {
    std::uint64_t offset; ///< of the page, on the chip, in bytes
    std::string text;
};

/// The lines of a trace that are no requests, in order.
struct TraceCalls {
    explicit TraceCalls(const std::string &trace);

    std::vector<ShellCall> shellCalls;
    std::vector<PageNote> notes;
};
