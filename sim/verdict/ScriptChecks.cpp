#include "verdict/ScriptChecks.h"

#include "base/Text.h"
#include "verdict/FlashRanges.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace {

/// What a device's shell takes for more than text, in a word and at its beginning.
constexpr const char *kShellCharacters = "$`\"'\\|&;<>()*?[";
constexpr const char *kShellBeginnings = "#~";

bool BeginsComment(const std::string &token) { return token[0] == '#'; }

void CheckNumber(const UpdateLine &line, std::size_t token, const ScriptNumber &number,
                 std::vector<Finding> &findings) {
    if (!number.isForeign && !number.isBeyond)
        return;
    findings.push_back(
        About(line, Severity::Error, "number", line.tokens[token] + " is read as " + Hex(number.value),
              number.isBeyond ? "stay within 0x7fffffff" : "write it in hexadecimal digits, with or without 0x"));
}

void CheckWords(const UpdateLine &line, std::vector<Finding> &findings) {
    if (!line.isComplete)
        return;
    if (line.IsTurnedLong()) {
        findings.push_back(About(line, Severity::Error, "setenv-long",
                                 "five words or more are the long form: " + line.tokens[1] + " is read as offset " +
                                     Hex(line.offset.value) + ", " + line.tokens[2] + " as size " +
                                     Hex(line.size.value) + ", " + line.Name() + " as the name",
                                 "put the comment on a line of its own; a value holds no blanks"));
        return;
    }
    if (line.hasRange) {
        CheckNumber(line, 1, line.offset, findings);
        CheckNumber(line, 2, line.size, findings);
    }
    if (line.tokens.size() > line.usedTokens && !BeginsComment(line.tokens[line.usedTokens]))
        findings.push_back(About(line, Severity::Warning, "ignored-words",
                                 line.tokens[line.usedTokens] + " and what follows is ignored",
                                 "leave it out, or put # in front when it is a comment; there are no quotes"));
    if (line.kind != LineKind::HandEnv)
        return;
    for (const std::string &text : {line.Name(), line.Value()}) {
        if (text.find_first_of(kShellCharacters) != std::string::npos || text.find_first_of(kShellBeginnings) == 0)
            findings.push_back(About(line, Severity::Warning, "shell-text",
                                     "a shell reads " + text + " on its way to /bin/bootvars and changes it",
                                     "give it with the long form, which no shell reads"));
    }
}

/// A run tells of the lines that it reached.
void CheckUnreachedRange(const UpdateLine &line, const WholeFlash &flash, std::vector<Finding> &findings) {
    const std::optional<FlashRange> range = flash.RangeOf(line);
    if (!range) {
        findings.push_back(
            About(line, Severity::Error, "empty-range", "it would fail: its range is empty", "give it a size"));
    } else if (!flash.IsAligned(*range)) {
        findings.push_back(About(line, Severity::Error, "misaligned",
                                 "it would fail: offset or size is no multiple of " + Hex(flash.EraseSize()),
                                 "let both be whole erase blocks"));
    } else if (range->begin < 0 || range->end > flash.Size()) {
        findings.push_back(About(line, Severity::Error, "off-chip",
                                 "it would fail half-way: its range is " + Hex(range->begin) + " to " +
                                     Hex(range->end) + ", the flash ends at " + Hex(flash.Size()),
                                 "keep the range on the flash"));
    }
}

void CheckRoom(const LineVerdict &verdict, const WholeFlash &flash, std::vector<Finding> &findings) {
    if (!verdict.imageBlocks)
        return;
    if (*verdict.imageBlocks == 0)
        findings.push_back(About(verdict.line, Severity::Warning, "empty-image",
                                 verdict.line.image + " is empty: the range is erased and nothing is written",
                                 "give it the image, or use erase"));
    const std::optional<std::int64_t> spare = verdict.SpareBlocks();
    if (spare == 0)
        findings.push_back(About(verdict.line, Severity::Warning, "no-spare",
                                 std::string("the image fills its range: on a device with one bad block in it ") +
                                     (flash.RangeOf(verdict.line)->end == flash.Size()
                                          ? "its end is written nowhere, and no message tells"
                                          : "the run ends here"),
                                 "make the range larger by as many blocks as may be bad"));
    else if (spare && *spare < 0 && verdict.result == LineResult::NeverRan)
        findings.push_back(About(verdict.line, Severity::Error, "outruns-range",
                                 "it would fail: the image is " + Count(-*spare, "block") + " longer than its range",
                                 "make the range hold the image and some bad blocks"));
}

/// @return whether the later line takes away what the earlier one put on the flash.
bool Destroys(const UpdateLine &later, const FlashRange &its, const LineVerdict &earlier, const FlashRange &former,
              const WholeFlash &flash) {
    if (!its.Overlaps(former) || earlier.line.kind == LineKind::Erase || earlier.result == LineResult::Skipped)
        return false;
    if (later.kind != LineKind::SetEnv || earlier.line.kind == LineKind::Ubiformat)
        return true;
    // A change of a variable keeps the rest of the environment that it was given whole. Of an image that holds more it
    // takes a part for one, and behind the image's end stands what bad blocks push there.
    if (earlier.line.kind == LineKind::SetEnv)
        return !(its == former);
    const std::optional<std::int64_t> &image = earlier.imageBlocks;
    return its.begin != former.begin || !image || *image > (its.end - its.begin) / flash.EraseSize();
}

void CheckOverlaps(const std::vector<LineVerdict> &lines, const WholeFlash &flash, std::vector<Finding> &findings) {
    const auto rangeOf = [&flash](const LineVerdict &verdict) {
        const std::optional<FlashRange> range = flash.RangeOf(verdict.line);
        return range && flash.IsAligned(*range) ? range : std::nullopt; // a command refuses the others untouched
    };
    for (auto later = lines.begin(); later != lines.end(); ++later) {
        const std::optional<FlashRange> its = rangeOf(*later);
        if (!its)
            continue;
        std::string numbers;
        for (auto earlier = lines.begin(); earlier != later; ++earlier) {
            const std::optional<FlashRange> former = rangeOf(*earlier);
            if (former && Destroys(later->line, *its, *earlier, *former, flash))
                numbers += (numbers.empty() ? "" : ", ") + std::to_string(earlier->line.number);
        }
        if (!numbers.empty())
            findings.push_back(About(later->line, Severity::Error, "overlap",
                                     "its range " + Hex(its->begin) + " to " + Hex(its->end) +
                                         " erases what was put there before, by line " + numbers,
                                     "keep the ranges apart"));
    }
}

} // namespace

std::vector<Finding> CheckScript(const std::vector<LineVerdict> &lines, const WholeFlash &flash) {
    std::vector<Finding> findings;
    for (const LineVerdict &verdict : lines) {
        CheckWords(verdict.line, findings);
        if (verdict.line.hasRange && !verdict.line.IsTurnedLong() && verdict.result == LineResult::NeverRan)
            CheckUnreachedRange(verdict.line, flash, findings);
        CheckRoom(verdict, flash, findings);
    }
    CheckOverlaps(lines, flash, findings);
    return findings;
}

Finding About(const UpdateLine &line, Severity severity, const char *kind, const std::string &happens,
              const std::string &change) {
    return {line.number, line.text, severity, kind, happens, change};
}
