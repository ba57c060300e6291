#include "base/Text.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <sys/wait.h>

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
    constexpr int kNotStarted = 126; // of a shell: this for a program that can't be executed, one more for none
    const bool isMissing = WIFEXITED(status) && WEXITSTATUS(status) >= kNotStarted;
    return {ForRun(FindingId::NotifyFailed,
                   std::string(kNotifyScript) + " ends with " + EndingText(status) + " at " + std::to_string(failures) +
                       " of " + Count(static_cast<std::int64_t>(calls.size()), "percentage"),
                   isMissing ? PlaceAdvice(facts.story.folder, "progress_script.sh")
                             : "make the script end with exit status 0")};
}
