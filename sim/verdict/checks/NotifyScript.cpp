#include "verdict/CheckText.h"
#include "verdict/Checks.h"

/// Whether the notify script works.
std::vector<Finding> CheckNotifyScript(const RunFacts &facts) {
    const std::vector<NotifyCall> calls = facts.NotifyCalls();
    std::size_t failures = 0;
    int status = 0;
    for (const NotifyCall &call : calls) {
        if (call.status > 0) {
            ++failures;
            status = call.status;
        }
    }
    if (failures == 0)
        return {};
    return {ForRun(FindingId::NotifyFailed, std::string(kNotifyScript) + " ends with " + EndingText(status) + " at " +
                                                std::to_string(failures) + " of " + std::to_string(calls.size()) +
                                                " percentages")};
}
