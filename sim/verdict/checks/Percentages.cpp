#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <algorithm>

namespace {

constexpr int kWholePercent = 100;

/// @return what is odd about a series that isn't empty: "fall from 60 to 40, end at 90"; empty for nothing.
std::string OddityOf(const std::vector<int> &percentages) {
    std::string oddity;
    const auto add = [&oddity](const std::string &text) { oddity += (oddity.empty() ? "" : ", ") + text; };
    int before = 0;
    for (int percent : percentages) {
        if (percent < before && oddity.empty())
            add("fall from " + std::to_string(before) + " to " + std::to_string(percent));
        before = percent;
    }
    const int most = *std::max_element(percentages.begin(), percentages.end());
    if (most > kWholePercent)
        add("exceed 100, up to " + std::to_string(most));
    if (percentages.back() < kWholePercent)
        add("end at " + std::to_string(percentages.back()));
    return oddity;
}

/// @return the lines that report more or fewer blocks than the updater counted, as far as they explain the series.
std::string ExplanationOf(const RunFacts &facts, const std::vector<int> &percentages) {
    std::vector<std::size_t> more, fewer;
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        if (verdict.result != LineResult::Clean)
            continue;
        const bool endsInBlock = facts.ImageSize(line).value_or(0) % facts.flash.EraseSize() != 0;
        if (line.kind == LineKind::WriteOob || (line.kind == LineKind::Write && !endsInBlock))
            more.push_back(line.number);
        else if (line.kind == LineKind::Ubiformat || (line.kind == LineKind::SetEnv && facts.HasBadBlocks(verdict)))
            fewer.push_back(line.number);
    }
    std::string text;
    if (!more.empty() && *std::max_element(percentages.begin(), percentages.end()) > kWholePercent)
        text += "; more blocks than counted in " + LinesText(more) + " (a write of whole blocks and any writeoob)";
    if (!fewer.empty() &&
        (percentages.back() < kWholePercent || !std::is_sorted(percentages.begin(), percentages.end())))
        text += "; fewer blocks than counted in " + LinesText(fewer) + " (a ubiformat, a setenv around a bad block)";
    return text;
}

} // namespace

/// Percentages that fall, exceed 100 or don't end there. They are a warning when a line failed or never ran. Else they
/// are a note, because no update can avoid them: a `write` of whole blocks and every `writeoob` report one block more
/// than counted, a `ubiformat` ends 7 or 8 short. Above 100 blocks the additional one doesn't show.
std::vector<Finding> CheckPercentages(const RunFacts &facts) {
    std::vector<int> percentages;
    for (const NotifyCall &call : facts.NotifyCalls())
        percentages.push_back(call.percent);
    const std::string oddity = percentages.empty() ? "" : OddityOf(percentages);
    // Of a run that was killed they say nothing.
    if (oddity.empty() || facts.record.isOverdue)
        return {};
    const std::string happens = "the percentages " + oddity;
    const bool allRan = std::none_of(facts.lines.begin(), facts.lines.end(), [](const LineVerdict &line) {
        return line.result == LineResult::Failed || line.result == LineResult::NeverRan;
    });
    if (allRan)
        return {ForRun(FindingId::Percentages, happens + ExplanationOf(facts, percentages))};
    Finding finding = ForRun(FindingId::Percentages, happens, "fix the lines that failed");
    finding.severity = Severity::Warning;
    return {finding};
}
