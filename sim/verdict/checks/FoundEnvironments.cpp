#include "base/Text.h"
#include "verdict/BlockContent.h"
#include "verdict/Checks.h"

#include <algorithm>
#include <string_view>

namespace {

using Kind = BlockContent::Kind;

std::string_view View(const std::vector<char> &bytes) { return {bytes.data(), bytes.size()}; }

/// @return the line that last erased a part of a range ahead of another line; nullptr for none.
const UpdateLine *EraserOf(const RunFacts &facts, const FlashRange &range, const UpdateLine &before) {
    const UpdateLine *eraser = nullptr;
    for (const LineVerdict &verdict : facts.lines) {
        if (&verdict.line == &before)
            break;
        const std::optional<FlashRange> other = facts.RangeOf(verdict);
        if (verdict.HasRun() && verdict.line.kind != LineKind::SetEnv && other && other->Overlaps(range))
            eraser = &verdict.line;
    }
    return eraser;
}

/// @return the variables that a range held before the run erased it, as far as they are known.
BootVariables VariablesBefore(const RunFacts &facts, const FlashRange &range) {
    std::string block;
    for (const FlashLook &look : facts.record.updater.erased) {
        const auto offset = facts.flash.OnChip(range.begin) + block.size();
        if (look.offset == offset && range.Holds(facts.flash.FromChip(offset)))
            block += look.bytes;
    }
    const bool isRedundant = !block.empty() && LookAtBlock(block).kind == Kind::Redundant;
    const std::size_t start = kCrcBytes + (isRedundant ? 1 : 0);
    return BootVariables(std::string_view(block).substr(std::min(start, block.size())));
}

/// @return the names of `before` that are not in `after`: "bootcmd, serial"; empty for none.
std::string LostNames(const BootVariables &before, const BootVariables &after) {
    constexpr std::size_t kMostNames = 12;
    std::string names;
    std::size_t count = 0;
    for (const auto &variable : before.values) {
        if (after.values.count(variable.first) == 0 && ++count <= kMostNames)
            names += (names.empty() ? "" : ", ") + variable.first;
    }
    return count > kMostNames ? names + " and " + std::to_string(count - kMostNames) + " more" : names;
}

std::string LineText(const UpdateLine &line) { return "line " + std::to_string(line.number); }

Finding BlankFinding(const RunFacts &facts, const UpdateLine &line, const FlashRange &range) {
    const UpdateLine *eraser = EraserOf(facts, range, line);
    if (eraser == nullptr)
        return ForLine(line, FindingId::EnvironmentAbsent,
                       "the block at " + Hex(range.begin) +
                           " is blank on this chip: the environment then holds nothing but what this update sets, and "
                           "a boot loader uses that instead of its built-in variables");
    const std::string lost = LostNames(VariablesBefore(facts, range), BootVariables({}));
    return ForLine(line, FindingId::EnvironmentErased,
                   LineText(*eraser) +
                       " erases the environment first: " + (lost.empty() ? "all variables of the device" : lost) +
                       " are lost, and the environment holds nothing but what this update sets",
                   "remove the range from " + LineText(*eraser) + ", or write a whole environment there");
}

Finding InvalidFinding(const UpdateLine &line, const FlashRange &range, const BlockContent &content) {
    const std::int64_t size = range.end - range.begin;
    std::string effect = ": the device takes it for a list of variables and makes the CRC valid";
    std::string change;
    if (content.kind == Kind::Shorter) {
        effect = ": the new CRC covers the range of " + Hex(size) + " bytes, and a boot loader that reads " +
                 Hex(static_cast<std::int64_t>(content.length)) + " finds it invalid";
        change = "use a range as long as the environment of the boot loader; when that is not whole erase blocks, use "
                 "the short setenv";
    } else if (content.kind == Kind::Redundant) {
        effect =
            ": the device takes the flag for text and writes a CRC over the flag, which a boot loader that expects "
            "the flag finds invalid";
        change = "use the short setenv: the device's own tool has to keep the flag";
    }
    return ForLine(line, FindingId::EnvironmentInvalid,
                   "the block at " + Hex(range.begin) + " has no valid CRC over its " + Hex(size) +
                       " bytes; it holds " + content.text + effect,
                   change);
}

/// @param setters the lines that set variables in the range, in order
void CheckVariables(const RunFacts &facts, const FlashRange &range, const std::vector<const UpdateLine *> &setters,
                    const BootVariables &found, std::vector<Finding> &findings) {
    for (const std::string &name : found.duplicates) {
        const auto setter =
            std::find_if(setters.begin(), setters.end(), [&](const UpdateLine *line) { return line->Name() == name; });
        const bool isSet = setter != setters.end();
        Finding finding = ForLine(isSet ? **setter : *setters.front(), FindingId::DuplicateVariable,
                                  name + " is in the block at " + Hex(range.begin) +
                                      " more than once: the device changes the first, a boot loader uses the last");
        if (!isSet)
            finding.severity = Severity::Warning;
        findings.push_back(finding);
    }
    const UpdateLine *eraser = EraserOf(facts, range, *setters.front());
    const std::string lost = LostNames(VariablesBefore(facts, range), found);
    if (eraser != nullptr && !lost.empty())
        findings.push_back(ForLine(*eraser, FindingId::VariablesRemoved,
                                   "the environment that it writes at " + Hex(range.begin) + " lacks " + lost +
                                       ", which this chip has"));
}

/// @param setters the lines that set variables in the range, in order
/// @param readers the same and those that failed
void CheckBlocks(const RunFacts &facts, const FlashRange &range, const std::vector<const UpdateLine *> &setters,
                 const std::vector<const UpdateLine *> &readers, const std::vector<std::vector<char>> &blocks,
                 std::vector<Finding> &findings) {
    // A line that failed may have read nothing. What a later line finds was changed by an earlier one, or by others.
    const std::size_t count = blocks.size() == readers.size() ? blocks.size() : 1;
    for (std::size_t i = 0; i < count; ++i) {
        const BlockContent content = LookAtBlock(View(blocks[i]));
        if (content.kind == Kind::Environment)
            continue;
        findings.push_back(content.kind == Kind::Blank ? BlankFinding(facts, *readers[i], range)
                                                       : InvalidFinding(*readers[i], range, content));
        return;
    }
    CheckVariables(facts, range, setters, BootVariables(View(blocks.front()).substr(kCrcBytes)), findings);
}

} // namespace

/// The blocks that long setenv lines found.
std::vector<Finding> CheckFoundEnvironments(const RunFacts &facts) {
    std::vector<Finding> findings;
    std::vector<FlashRange> checked;
    for (const LineVerdict &verdict : facts.lines) {
        const std::optional<FlashRange> range = facts.RangeOf(verdict);
        if (!verdict.ChangedVariable() || !range || std::find(checked.begin(), checked.end(), *range) != checked.end())
            continue;
        checked.push_back(*range);
        // What was read without valid ECC is another check's.
        const std::vector<std::int64_t> unsound = facts.NotedPages(kUnsoundReadNote);
        if (std::any_of(unsound.begin(), unsound.end(), [&](std::int64_t at) { return range->Holds(at); }))
            continue;
        std::vector<const UpdateLine *> setters, readers;
        for (const LineVerdict &other : facts.lines) {
            if (other.line.kind != LineKind::SetEnv || !other.HasRun() || !(facts.RangeOf(other) == range))
                continue;
            readers.push_back(&other.line);
            if (other.ChangedVariable())
                setters.push_back(&other.line);
        }
        const std::vector<std::vector<char>> blocks = facts.WholeReads(*range);
        if (!blocks.empty())
            CheckBlocks(facts, *range, setters, readers, blocks, findings);
    }
    return findings;
}
