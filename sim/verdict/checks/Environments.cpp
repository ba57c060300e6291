#include "UEnvTool.h"
#include "base/Text.h"
#include "verdict/BlockContent.h"
#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <algorithm>
#include <map>

namespace {

/// Bytes of a block that hold no variables at a later reading: the CRC, and 4 more that the reading doesn't look at.
constexpr std::size_t kUnreadBytes = 8;

/// @return by how many bytes the list in a block is longer than a reading sees; 0 when the reading sees all of it.
std::size_t ExcessOf(const std::vector<char> &bytes) {
    std::size_t length = bytes.size() - kCrcBytes;
    while (length > 0 && bytes[kCrcBytes + length - 1] == '\0')
        --length;
    return std::max(length + 1 + kUnreadBytes, bytes.size()) - bytes.size();
}

std::string ShorteningAdvice(std::size_t excess) {
    return "shorten the variables by " + Count(static_cast<std::int64_t>(excess), "byte");
}

/// @return the data of an image as far as it lies in a range, without OOB; blank after its end.
std::vector<char> ImageData(const RunFacts &facts, const UpdateLine &line, const std::string &image,
                            const FlashRange &range) {
    std::vector<char> bytes;
    const auto record = static_cast<std::size_t>(facts.RecordSize(line));
    for (std::size_t at = 0; at < image.size(); at += record) {
        const std::string page = image.substr(at, facts.chip.Geometry().pageSize);
        bytes.insert(bytes.end(), page.begin(), page.end());
    }
    bytes.resize(static_cast<std::size_t>(range.end - range.begin), '\xFF');
    return bytes;
}

/// An environment that the update itself writes may lose a variable at a change; the chip doesn't show that afterwards.
void CheckWrittenEnvironment(const RunFacts &facts, const FlashRange &range, std::vector<Finding> &findings) {
    std::vector<char> bytes; // none until an image is written
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        const std::optional<FlashRange> lineRange = facts.RangeOf(verdict);
        const auto image = facts.record.contents.find(line.image);
        if (verdict.result != LineResult::Clean || !lineRange || lineRange->begin != range.begin)
            continue;
        if (line.WritesImage() && image != facts.record.contents.end()) {
            bytes = ImageData(facts, line, image->second, range);
        } else if (line.kind == LineKind::SetEnv && *lineRange == range && !bytes.empty()) {
            UEnvTool block(bytes.data(), static_cast<int>(bytes.size()));
            // After a shorter image the flash is blank, and no list continues there.
            const std::size_t excess = bytes.back() == '\xFF' ? 0 : ExcessOf(bytes);
            if (excess > 0) {
                findings.push_back(ForLine(line, FindingId::EnvironmentLost,
                                           "this change loses the last variable of the block: the list of variables "
                                           "is longer than the updater reads",
                                           ShorteningAdvice(excess)));
                return;
            }
            block.SetEnv(line.Name().c_str(), line.Value().c_str());
            bytes.assign(block.m_pBlock, block.m_pBlock + block.m_nSize);
        }
    }
}

/// @return whether the updater found an environment, or a blank block, each time that it read a range.
bool FindsEnvironments(const RunFacts &facts, const FlashRange &range) {
    const std::vector<std::vector<char>> reads = facts.WholeReads(range);
    return std::all_of(reads.begin(), reads.end(), [](const std::vector<char> &block) {
        const BlockContent::Kind kind = LookAtBlock({block.data(), block.size()}).kind;
        return kind == BlockContent::Kind::Environment || kind == BlockContent::Kind::Blank;
    });
}

bool IsVariable(const std::string &entry) {
    const std::size_t length = std::min(entry.find('='), entry.size());
    return length > 0 && length < entry.size() &&
           std::all_of(entry.begin(), entry.begin() + static_cast<std::ptrdiff_t>(length),
                       [](char character) { return character > ' ' && character <= '~'; });
}

/// Of a block whose CRC is invalid at the end of the update.
Finding InvalidFinding(const RunFacts &facts, const FlashRange &range, const UpdateLine &last) {
    std::vector<std::size_t> later;
    for (const LineVerdict &verdict : facts.lines) {
        const std::optional<FlashRange> other = facts.RangeOf(verdict);
        if (verdict.line.number > last.number && verdict.HasRun() && other && other->Overlaps(range))
            later.push_back(verdict.line.number);
    }
    const std::string happens = "the block has an invalid CRC when the update ends";
    if (later.empty())
        return ForLine(last, FindingId::EnvironmentLost, happens);
    return ForLine(last, FindingId::EnvironmentLost, happens + ": changed later by " + LinesText(later),
                   "keep the range of " + LinesText(later) + " off the environment");
}

/// An environment as a boot loader reads it after the update.
/// @param setters the lines that changed it, by variable, the last one for each
/// @param isSound the updater found an environment there, as far as is known
void CheckFinalEnvironment(const RunFacts &facts, const FlashRange &range, const UpdateLine &last,
                           const std::map<std::string, const UpdateLine *> &setters, bool isSound,
                           std::vector<Finding> &findings) {
    const std::vector<char> bytes = facts.flash.Read(range);
    const UEnvTool block(bytes.data(), static_cast<int>(bytes.size()));
    const auto bad = static_cast<std::int64_t>(facts.flash.BadBlocks(range).size());
    const std::size_t excess = ExcessOf(bytes);
    // The updater reads and rewrites the range as if it had no bad blocks, a boot loader skips them.
    if (bad > 0) {
        findings.push_back(ForLine(last, FindingId::EnvironmentLost,
                                   "its range holds " + Count(bad, "bad block") + ": the last " +
                                       std::to_string(bad * facts.flash.EraseSize()) +
                                       " bytes of the environment are lost",
                                   "nothing in the update: this device's environment needs good blocks"));
    } else if (!HasValidCrc(bytes)) {
        findings.push_back(InvalidFinding(facts, range, last));
    } else if (excess > 0) {
        findings.push_back(ForLine(last, FindingId::EnvironmentLost,
                                   "the variables take " + std::to_string(bytes.size() + excess - kUnreadBytes) +
                                       " of " + std::to_string(bytes.size()) +
                                       " bytes: the next change loses the last one",
                                   ShorteningAdvice(excess)));
    } else if (isSound) {
        const BootVariables variables(std::string_view(bytes.data(), bytes.size()).substr(kCrcBytes));
        for (const auto &[name, line] : setters) {
            const auto found = variables.values.find(name);
            const bool isSet = found != variables.values.end() && found->second == line->Value();
            if (!isSet && variables.duplicates.count(name) == 0)
                findings.push_back(ForLine(*line, FindingId::EnvironmentLost,
                                           name + " no longer has this value when the update ends",
                                           "keep other lines and programs off the block"));
        }
    }
    // Blocks that the updater was seen to find are another check's.
    if (!facts.WholeReads(range).empty())
        return;
    const auto strange = std::count_if(block.m_vEntry.begin(), block.m_vEntry.end(),
                                       [](const std::string &entry) { return !IsVariable(entry); });
    if (strange > 0)
        findings.push_back(ForLine(last, FindingId::EnvironmentDamaged,
                                   "the block holds " + Count(strange, "text") +
                                       (strange == 1 ? " that is no variable" : " that are no variables") +
                                       ": the block held no environment before, or a damaged one",
                                   "use the range of an environment, and write a whole environment there first"));
}

} // namespace

/// The environment blocks that lines changed.
std::vector<Finding> CheckEnvironments(const RunFacts &facts) {
    std::vector<Finding> findings;
    std::vector<FlashRange> checked;
    for (const LineVerdict &verdict : facts.lines) {
        const std::optional<FlashRange> range = facts.RangeOf(verdict);
        if (!verdict.ChangedVariable() || !range || range->begin < 0 || range->end > facts.flash.Size() ||
            std::find(checked.begin(), checked.end(), *range) != checked.end())
            continue;
        checked.push_back(*range);
        std::map<std::string, const UpdateLine *> setters;
        const UpdateLine *last = nullptr;
        for (const LineVerdict &other : facts.lines) {
            if (!other.ChangedVariable() || !(facts.RangeOf(other) == range))
                continue;
            last = &other.line;
            setters[last->Name()] = last;
        }
        const bool isSound = FindsEnvironments(facts, *range);
        CheckFinalEnvironment(facts, *range, *last, setters, isSound, findings);
        if (isSound)
            CheckWrittenEnvironment(facts, *range, findings);
    }
    return findings;
}
