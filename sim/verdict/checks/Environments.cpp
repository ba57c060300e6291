#include "UEnvTool.h"
#include "base/Text.h"
#include "verdict/Checks.h"

#include <algorithm>
#include <map>

namespace {

constexpr std::size_t kCrcBytes = 4;
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

bool IsVariable(const std::string &entry) {
    const std::size_t length = std::min(entry.find('='), entry.size());
    return length > 0 && length < entry.size() &&
           std::all_of(entry.begin(), entry.begin() + static_cast<std::ptrdiff_t>(length),
                       [](char character) { return character > ' ' && character <= '~'; });
}

/// An environment as a boot loader reads it after the update.
/// @param setters the lines that changed it, by variable, the last one for each
void CheckFinalEnvironment(const RunFacts &facts, const FlashRange &range, const UpdateLine &last,
                           const std::map<std::string, const UpdateLine *> &setters, std::vector<Finding> &findings) {
    const std::vector<char> bytes = facts.flash.Read(range);
    const UEnvTool block(bytes.data(), static_cast<int>(bytes.size()));
    const auto bad = static_cast<std::int64_t>(facts.flash.BadBlocks(range).size());
    const std::size_t excess = ExcessOf(bytes);
    if (!HasValidCrc(bytes) && bad > 0) {
        findings.push_back(ForLine(last, FindingId::EnvironmentLost,
                                   "its range holds " + Count(bad, "bad block") + ": the last " +
                                       std::to_string(bad * facts.flash.EraseSize()) +
                                       " bytes of the environment are lost",
                                   "nothing in the update: this device's environment needs good blocks"));
    } else if (!HasValidCrc(bytes)) {
        findings.push_back(
            ForLine(last, FindingId::EnvironmentLost, "the block has an invalid CRC when the update ends"));
    } else if (excess > 0) {
        findings.push_back(ForLine(last, FindingId::EnvironmentLost,
                                   "the variables take " + std::to_string(bytes.size() + excess - kUnreadBytes) +
                                       " of " + std::to_string(bytes.size()) +
                                       " bytes: the next change loses the last one",
                                   ShorteningAdvice(excess)));
    } else {
        for (const auto &[name, line] : setters) {
            if (block.HasEnv(name.c_str()) == 0 || block.GetEnv(name.c_str()) != line->Value())
                findings.push_back(ForLine(*line, FindingId::EnvironmentLost,
                                           name + " is no longer in the block when the update ends"));
        }
    }
    const auto strange = std::count_if(block.m_vEntry.begin(), block.m_vEntry.end(),
                                       [](const std::string &entry) { return !IsVariable(entry); });
    if (strange > 0)
        findings.push_back(ForLine(last, FindingId::EnvironmentDamaged,
                                   std::to_string(strange) + " of the " + std::to_string(block.m_vEntry.size()) +
                                       " entries in the block are not variables: the block held no environment "
                                       "before, or a damaged one",
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
        CheckFinalEnvironment(facts, *range, *last, setters, findings);
        CheckWrittenEnvironment(facts, *range, findings);
    }
    return findings;
}
