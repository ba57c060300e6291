#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <algorithm>

namespace {

/// @return advice about a first word that looks like a command and has more in it; empty for another one.
std::string InvisibleAdvice(const UpdateLine &line) {
    constexpr const char *kByteOrderMark = "\xEF\xBB\xBF";
    if (BeginsWith(line.tokens[0], kByteOrderMark))
        return "save the script without a byte order mark";
    const bool isPlain = std::all_of(line.tokens[0].begin(), line.tokens[0].end(),
                                     [](char character) { return character > ' ' && character <= '~'; });
    return isPlain ? "" : "use plain ASCII: other blanks and invisible characters are parts of a word";
}

/// The updater's message about a line that it skips.
Finding SkippedFinding(const UpdateLine &line, const std::string &complaint) {
    if (BeginsWith(complaint, "Unknown script command "))
        return ForLine(line, FindingId::UnknownCommand, "the line is skipped", InvisibleAdvice(line));
    if (BeginsWith(complaint, "incomplete script command "))
        return ForLine(line, FindingId::Incomplete, "the line is skipped");
    return ForLine(line, FindingId::MissingFile, complaint + ": the line is skipped and nothing is erased");
}

/// What the updater would say of a line that the run didn't reach.
std::vector<Finding> UnreachedFindings(const RunFacts &facts, const UpdateLine &line) {
    if (line.kind == LineKind::Unknown)
        return {ForLine(line, FindingId::UnknownCommand, "the line would be skipped", InvisibleAdvice(line))};
    if (!line.isComplete)
        return {ForLine(line, FindingId::Incomplete, "the line would be skipped")};
    if (line.image.empty() || facts.ImageSize(line))
        return {};
    if (facts.record.files.count(line.image) != 0)
        return {ForLine(line, FindingId::UnreadableFile, line.image + " is not a regular file")};
    return {ForLine(line, FindingId::MissingFile, line.image + " doesn't exist: the line would be skipped")};
}

} // namespace

/// Lines that the updater skips, or would skip.
std::vector<Finding> CheckSkippedLines(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (std::size_t i = 0; i < facts.lines.size(); ++i) {
        const LineVerdict &line = facts.lines[i];
        if (line.result == LineResult::Skipped)
            findings.push_back(SkippedFinding(line.line, facts.story.lines[i].complaint));
        else if (line.result == LineResult::NeverRan && facts.story.hasStarted)
            for (Finding &finding : UnreachedFindings(facts, line.line))
                findings.push_back(std::move(finding));
    }
    return findings;
}
