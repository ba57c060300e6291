#include "base/Text.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"
#include "verdict/Failures.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

std::string WithoutMark(const std::string &message) {
    return BeginsWith(message, kErrorMark) ? message.substr(std::strlen(kErrorMark)) : message;
}

/// @return the flash offset at the end of a message, or -1.
std::int64_t OffsetIn(const std::string &message) {
    const std::size_t at = message.rfind(" at ");
    return at == std::string::npos ? -1 : std::strtoll(message.c_str() + at + 4, nullptr, 16);
}

/// @return the number after a text in a message; `none` when the message doesn't have the text.
std::int64_t NumberAfter(const std::string &message, const std::string &text, std::int64_t none) {
    const std::size_t at = message.find(text);
    return at == std::string::npos ? none : std::strtoll(message.c_str() + at + text.size(), nullptr, 10);
}

/// @return why no request can reach the whole flash, as advice; empty when it can be opened.
std::string OpeningAdvice(const RunFacts &facts) {
    if (!facts.flash.HasDevice())
        return "add a device that covers the whole flash";
    if (facts.calls.failedOpens.empty())
        return "";
    return "nothing in the update: find out why /dev/" + facts.calls.failedOpens.front();
}

Finding ComplaintFinding(const RunFacts &facts, const UpdateLine &line, const std::string &complaint) {
    const Failure &row = *std::find_if(std::begin(kFailures), std::end(kFailures),
                                       [&](const Failure &failure) { return BeginsWith(complaint, failure.start); });
    if (OffsetIn(complaint) >= facts.flash.Size())
        return ForLine(line, FindingId::OffChip,
                       WithoutMark(complaint) + ": the flash ends at " + Hex(facts.flash.Size()) + ", " + row.meaning);
    const std::string happens = WithoutMark(complaint) + ": " + row.meaning;
    if (row.finding == FindingId::Misaligned && NumberAfter(complaint, "blocksize = ", 1) <= 0)
        return ForLine(line, FindingId::NoGeometry, happens, "use a device that reports the size of its erase blocks");
    if (row.finding == FindingId::Misaligned && NumberAfter(complaint, "invalid size=", 1) <= 0)
        return ForLine(line, FindingId::EmptyRange, happens);
    constexpr FindingId kFlashFailures[] = {FindingId::CheckFailed, FindingId::EraseFailed, FindingId::WriteFailed,
                                            FindingId::ReadFailed};
    const bool isOfFlash =
        std::find(std::begin(kFlashFailures), std::end(kFlashFailures), row.finding) != std::end(kFlashFailures);
    return ForLine(line, row.finding, happens, isOfFlash ? OpeningAdvice(facts) : "");
}

Finding SilentFinding(const RunFacts &facts, const UpdateLine &line) {
    if (line.hasRange && line.size.value == 0)
        return ForLine(line, FindingId::EmptyRange, "a size of 0 fails silently");
    if (facts.wasCut)
        return ForLine(line, FindingId::Failed, "the updater ended halfway through the line",
                       "run the update again from its start");
    if (line.kind == LineKind::Ubiformat)
        return ForLine(line, FindingId::NoPrepare,
                       "/tmp/update/prepare.sh can't be read: the line fails silently, with applications stopped and "
                       "file systems unmounted already",
                       PlaceAdvice(facts.story.folder, "prepare.sh"));
    return ForLine(line, FindingId::Failed, "the line failed without a message", "see the trace");
}

} // namespace

/// Lines whose command failed or was cut off.
std::vector<Finding> CheckFailedLines(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (std::size_t i = 0; i < facts.lines.size(); ++i) {
        const UpdateLine &line = facts.lines[i].line;
        // The failure of words that were meant otherwise explains nothing.
        if (facts.lines[i].result != LineResult::Failed || line.IsTurnedLong())
            continue;
        const std::string &complaint = facts.story.lines[i].complaint;
        findings.push_back(complaint.empty() ? SilentFinding(facts, line) : ComplaintFinding(facts, line, complaint));
    }
    return findings;
}
