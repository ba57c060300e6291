#pragma once

#include "mtd/Requests.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The format of a run's trace: a line for each request, "KIND mtdN fields = result", and lines for other calls and
/// events. The functions write parts of lines, TraceCalls reads lines.

// Notes on a page.
constexpr const char *kUnsoundReadNote = "read without valid ECC";
constexpr const char *kUnerasedNote = "programmed over unerased bits";
constexpr const char *kChangedByNote = "changed by "; ///< and the name of a program other than the updater

/// How a result is written.
enum class Base { Decimal, Hex };

/// @return an ioctl with its fields, without result: "MEMERASE mtd0 start=0x20000 length=0x20000".
std::string RequestText(RequestKind kind, int device, const void *argument);

/// @return the end of a line: " = 2048", or " = -1 EIO" for a negative errno value.
std::string ResultText(std::int64_t result, Base base = Base::Decimal);

/// @return the name of an errno value, "EIO"; the number in decimal when it has none.
std::string ErrnoName(int error);

/// @return the text on one line and in quotes; "null" without them for a null pointer.
std::string QuotedText(const char *text);

/// @return the flags of open by name: "O_RDWR|O_CLOEXEC".
std::string OpenFlagsText(int flags);

/// @return the line of a shell command that starts, of one that has returned, and of a note on a page at an offset.
std::string ShellCallText(const char *command);
std::string ShellReturnText(int status);
std::string PageNoteText(std::uint64_t offset, const char *text);

/// @return the command of a trace line about a shell command that starts; nothing for other lines.
std::optional<std::string> StartedCommand(const std::string &line);

/// A shell command that the updater ran with system().
struct ShellCall {
    std::string command;
    int status = -1; ///< as waitpid gives it; -1 when the command never returned
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
    std::vector<std::string> failedOpens; ///< "mtd12 can't be opened: EIO"
};
