#include "verdict/Verdict.h"

#include "verdict/Checks.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr Check kChecks[] = {
#define CHECK(name) name,
#include "verdict/Findings.def"
};

} // namespace

bool Verdict::IsClean() const {
    return std::none_of(findings.begin(), findings.end(),
                        [](const Finding &finding) { return finding.severity != Severity::Note; });
}

Verdict Judge(const RunFacts &facts) {
    Verdict verdict;
    verdict.lines = facts.lines;
    verdict.ubi = facts.ubi;
    for (const NotifyCall &call : facts.NotifyCalls())
        verdict.percentages.push_back(call.percent);
    for (const Check check : kChecks) {
        std::vector<Finding> findings = check(facts);
        std::move(findings.begin(), findings.end(), std::back_inserter(verdict.findings));
    }
    std::stable_sort(verdict.findings.begin(), verdict.findings.end(),
                     [](const Finding &a, const Finding &b) { return a.line < b.line; });
    return verdict;
}
