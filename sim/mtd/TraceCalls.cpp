#include "mtd/TraceCalls.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

constexpr const char *kShellCall = "system \"";
constexpr const char *kShellEnd = "returned from system: ";
constexpr const char *kNote = "note: page at ";

/// Takes a text out of its quotes.
std::string Unquoted(const std::string &quoted) {
    std::string text;
    for (std::size_t i = 0; i < quoted.size() && quoted[i] != '"'; ++i) {
        const bool isEscaped = quoted[i] == '\\' && i + 1 < quoted.size();
        if (isEscaped)
            ++i;
        text += isEscaped && quoted[i] == 'n' ? '\n' : quoted[i];
    }
    return text;
}

} // namespace

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
        } else if (const char *status = rest(kShellEnd)) {
            if (running.empty())
                continue;
            shellCalls[running.back()].status = std::atoi(status);
            running.pop_back();
        } else if (const char *place = rest(kNote)) {
            char *behind = nullptr;
            const std::uint64_t offset = std::strtoull(place, &behind, 16);
            notes.push_back({offset, *behind == ' ' ? behind + 1 : behind});
        }
    }
}
