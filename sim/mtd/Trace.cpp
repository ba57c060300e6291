#include "mtd/Trace.h"

#include "base/Text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>

namespace {

constexpr const char *kShellCall = "system ";
constexpr const char *kShellReturn = "returned from system: ";
constexpr const char *kPageNote = "note: page at ";
constexpr const char *kOpen = "open mtd";
constexpr const char *kFailure = " = -1 ";

/// Takes a text out of its quotes.
std::string Unquoted(const std::string &quoted) {
    std::string text;
    for (std::size_t i = 1; i < quoted.size() && quoted[i] != '"'; ++i) {
        const bool isEscaped = quoted[i] == '\\' && i + 1 < quoted.size();
        if (isEscaped)
            ++i;
        text += isEscaped && quoted[i] == 'n' ? '\n' : quoted[i];
    }
    return text;
}

} // namespace

std::string RequestText(RequestKind kind, int device, const void *argument) {
    const RequestRow &row = RowOf(kind);
    const std::string text = FormatText("%s mtd%d", row.name, device);
    const bool isNumber = kind == RequestKind::FileMode;
    return text + (argument == nullptr && !isNumber ? " argument=null" : row.describe(argument));
}

std::string ResultText(std::int64_t result, Base base) {
    if (result < 0)
        return " = -1 " + ErrnoName(static_cast<int>(-result));
    return base == Base::Hex ? FormatText(" = 0x%" PRIx64, static_cast<std::uint64_t>(result))
                             : FormatText(" = %" PRId64, result);
}

std::string ErrnoName(int error) {
    const char *name = strerrorname_np(error);
    return name != nullptr ? name : std::to_string(error);
}

std::string QuotedText(const char *text) {
    if (text == nullptr)
        return "null";
    std::string quoted = "\"";
    for (; *text != '\0'; ++text) {
        if (*text == '\n') {
            quoted += "\\n";
            continue;
        }
        if (*text == '"' || *text == '\\')
            quoted += '\\';
        quoted += *text;
    }
    return quoted + '"';
}

std::string OpenFlagsText(int flags) {
    const struct {
        int flag;
        const char *name;
    } names[] = {{O_CREAT, "O_CREAT"},       {O_EXCL, "O_EXCL"}, {O_TRUNC, "O_TRUNC"},    {O_APPEND, "O_APPEND"},
                 {O_NONBLOCK, "O_NONBLOCK"}, {O_SYNC, "O_SYNC"}, {O_CLOEXEC, "O_CLOEXEC"}};
    const char *modes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "O_ACCMODE"};
    std::string text = modes[flags & O_ACCMODE];
    for (const auto &row : names) {
        if ((flags & row.flag) == row.flag)
            text.append("|").append(row.name);
    }
    return text;
}

std::string ShellCallText(const char *command) { return kShellCall + QuotedText(command); }

std::string ShellReturnText(int status) { return kShellReturn + std::to_string(status); }

std::string PageNoteText(std::uint64_t offset, const char *text) {
    return FormatText("%s0x%" PRIx64 " %s", kPageNote, offset, text);
}

std::optional<std::string> StartedCommand(const std::string &line) {
    const std::size_t length = std::strlen(kShellCall);
    return line.compare(0, length, kShellCall) == 0 ? std::optional(Unquoted(line.c_str() + length)) : std::nullopt;
}

TraceCalls::TraceCalls(const std::string &trace) {
    std::istringstream lines(trace);
    std::vector<std::size_t> running; // a copy that takes over makes calls within the call that runs it
    for (std::string line; std::getline(lines, line);) {
        const auto rest = [&line](const char *start) -> const char * {
            const std::size_t length = std::strlen(start);
            return line.compare(0, length, start) == 0 ? line.c_str() + length : nullptr;
        };
        if (const char *command = rest(kShellCall)) {
            running.push_back(shellCalls.size());
            shellCalls.push_back({Unquoted(command), -1});
        } else if (const char *status = rest(kShellReturn)) {
            if (running.empty())
                continue;
            shellCalls[running.back()].status = std::atoi(status);
            running.pop_back();
        } else if (const char *place = rest(kPageNote)) {
            char *end = nullptr;
            const std::uint64_t offset = std::strtoull(place, &end, 16);
            notes.push_back({offset, *end == ' ' ? end + 1 : end});
        } else if (rest(kOpen) != nullptr && line.find(kFailure) != std::string::npos) {
            const std::size_t name = std::strlen("open ");
            failedOpens.push_back(line.substr(name, line.find(' ', name) - name) +
                                  " can't be opened: " + line.substr(line.find(kFailure) + std::strlen(kFailure)));
        }
    }
}
