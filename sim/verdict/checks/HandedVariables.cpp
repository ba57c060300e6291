#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <algorithm>

/// Variables that the updater hands to a program of the device, whose status it ignores.
std::vector<Finding> CheckHandedVariables(const RunFacts &facts) {
    std::vector<Finding> findings;
    auto call = facts.calls.shellCalls.begin();
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        if (line.kind != LineKind::HandEnv || verdict.result != LineResult::Clean)
            continue;
        const std::string command = "/bin/bootvars -s " + line.Name() + " " + line.Value();
        call = std::find_if(call, facts.calls.shellCalls.end(),
                            [&](const ShellCall &other) { return other.command == command; });
        if (call == facts.calls.shellCalls.end())
            break;
        if (call->status > 0)
            findings.push_back(ForLine(line, FindingId::ToolFailed,
                                       "/bin/bootvars ends with " + EndingText(call->status) +
                                           ", and the updater goes on as if the variable were set"));
        ++call;
    }
    return findings;
}
