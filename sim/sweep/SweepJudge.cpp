#include "sweep/SweepJudge.h"

#include "UEnvTool.h"
#include "base/Text.h"
#include "ubi/UbiImage.h"
#include "verdict/Failures.h"

#include <algorithm>
#include <csignal>
#include <sys/wait.h>

namespace {

constexpr std::size_t kMostNames = 12;
constexpr std::size_t kMostOfName = 32;

bool Holds(const UEnvTool &environment, const std::string &entry) {
    const auto &entries = environment.m_vEntry;
    return std::find(entries.begin(), entries.end(), entry) != entries.end();
}

/// @return an entry's name, as far as people can read it.
std::string NameOf(const std::string &entry) {
    std::string name = entry.substr(0, std::min(entry.find('='), kMostOfName));
    std::replace_if(
        name.begin(), name.end(), [](char character) { return character <= ' ' || character > '~'; }, '?');
    return name;
}

/// What became of an environment whose bytes aren't as they should be.
std::string EnvironmentLoss(const std::vector<char> &wanted, const std::vector<char> &found) {
    const UEnvTool whole(wanted.data(), static_cast<int>(wanted.size()));
    const UEnvTool rest(found.data(), static_cast<int>(found.size()));
    std::string names;
    std::size_t lost = 0;
    for (const std::string &entry : whole.m_vEntry) {
        if (!Holds(rest, entry) && ++lost <= kMostNames)
            names += (names.empty() ? "" : ", ") + NameOf(entry);
    }
    std::string loss = lost == 0 ? "restores all variables" : "does not restore " + names;
    if (lost > kMostNames)
        loss += " and " + std::to_string(lost - kMostNames) + " more";
    std::size_t strange = 0;
    for (const std::string &entry : rest.m_vEntry)
        strange += Holds(whole, entry) ? 0 : entry.size();
    if (strange > 0)
        loss += ", and leaves " + Count(static_cast<std::int64_t>(strange), "byte") + " that belong to no variable";
    return loss;
}

std::string Trouble(const LineStory &story) {
    switch (story.result) {
    case LineResult::NeverRan:
        return "the line never ran";
    case LineResult::Skipped:
        return "the line was skipped: " + story.complaint;
    case LineResult::Clean:
        return "the line succeeds here, but not in the reference run";
    default:
        break;
    }
    if (story.complaint.empty())
        return "the line ended without a message";
    const bool isMarked = story.complaint.compare(0, std::string(kErrorMark).size(), kErrorMark) == 0;
    return isMarked ? story.complaint.substr(std::string(kErrorMark).size()) : story.complaint;
}

PartitionPebs PebsOf(const NandChip &chip, const WholeFlash &flash, const FlashRange &range) {
    return {chip, flash.OnChip(range.begin), static_cast<std::uint64_t>(range.end - range.begin)};
}

UbiAttachment Attach(const NandChip &chip, const PartitionPebs &pebs) {
    return AttachUbi(pebs, UbiGeometry::Of(chip), {chip.Geometry().Blocks()});
}

} // namespace

UbiAttachment AttachRange(const NandChip &chip, const WholeFlash &flash, const FlashRange &range) {
    return Attach(chip, PebsOf(chip, flash, range));
}

SweepJudge::SweepJudge(const ReferenceRun &reference)
    : m_reference(reference), m_flash(reference.chip, reference.devices),
      m_mayChange(reference.chip.Geometry().Blocks(), false),
      m_isEnvironment(reference.chip.Geometry().Blocks(), false), m_isUbi(reference.chip.Geometry().Blocks(), false) {
    bool startsPrograms = false;
    for (const UpdateLine &line : reference.lines) {
        startsPrograms = startsPrograms || line.kind == LineKind::HandEnv || line.kind == LineKind::Ubiformat;
        const std::optional<FlashRange> range = m_flash.RangeOf(line);
        for (const std::uint32_t block : range ? m_flash.Blocks(*range) : std::vector<std::uint32_t>())
            m_mayChange[block] = true;
    }
    // Only the device's own tools know where they store what they are given.
    for (std::uint32_t block = 0; startsPrograms && block < m_mayChange.size(); ++block)
        m_mayChange[block] = m_mayChange[block] || reference.chip.IsTouched(block);
    for (std::size_t i = 0; i < reference.lines.size(); ++i) {
        const std::optional<FlashRange> range = reference.DoneRange(i);
        const bool isEnvironment = reference.lines[i].kind == LineKind::SetEnv && range;
        for (const std::uint32_t block : isEnvironment ? m_flash.Blocks(*range) : std::vector<std::uint32_t>())
            m_isEnvironment[block] = true;
        // What a later line puts there is no longer UBI's.
        for (const std::uint32_t block : range ? m_flash.Blocks(*range) : std::vector<std::uint32_t>())
            m_isUbi[block] = false;
        if (reference.lines[i].kind != LineKind::Ubiformat || !range)
            continue;
        UbiAttachment attachment = AttachRange(reference.chip, m_flash, *range);
        if (!attachment.IsAttached())
            continue;
        m_ubi.push_back({reference.lines[i].number, *range, std::move(attachment)});
        for (const std::uint32_t block : m_flash.Blocks(*range))
            m_isUbi[block] = true;
    }
}

std::optional<SweepComplaint> SweepJudge::JudgeBad(const NandChip &chip, const RunOutcome &run) const {
    for (const auto &complaint : {JudgeEnd(run), JudgeOutside(FirstOutside(chip)), JudgeLines(run)}) {
        if (complaint)
            return complaint;
    }
    for (std::size_t i = 0; i < m_reference.lines.size(); ++i) {
        auto complaint = JudgeOrder(chip, i);
        if (complaint)
            return complaint;
    }
    const auto complaint = JudgeRest(chip);
    return complaint ? complaint : JudgeUbi(chip);
}

/// Checks the good blocks that no image, environment or UBI fills: erased ones, and those that programs change.
std::optional<SweepComplaint> SweepJudge::JudgeRest(const NandChip &chip) const {
    for (std::uint32_t block = 0; block < m_mayChange.size(); ++block) {
        if (chip.IsBad(block) || !Differs(chip, block))
            continue;
        const std::size_t number = LineOf(block);
        const auto line = std::find_if(m_reference.lines.begin(), m_reference.lines.end(),
                                       [number](const UpdateLine &it) { return it.number == number; });
        if (line == m_reference.lines.end())
            return SweepComplaint{0, "flash outside all ranges differs from a run without the bad block"};
        if (line->kind == LineKind::Erase)
            return SweepComplaint{number, "the good blocks of the range are not erased"};
    }
    return std::nullopt;
}

/// Compares what UBI finds in its partitions with the reference.
std::optional<SweepComplaint> SweepJudge::JudgeUbi(const NandChip &chip) const {
    for (const GivenToUbi &given : m_ubi) {
        const PartitionPebs pebs = PebsOf(chip, m_flash, given.range);
        const UbiAttachment found = Attach(chip, pebs);
        std::string loss = AttachmentLoss(given.attachment, found);
        if (loss.empty())
            loss = DataLoss(given.attachment, PebsOf(m_reference.chip, m_flash, given.range), found, pebs,
                            UbiGeometry::Of(chip));
        if (!loss.empty())
            return SweepComplaint{
                given.line, "UBI on the partition of the line is not as in the reference run: " + loss,
                "use a ubiformat that checks what it writes, and a larger partition or smaller volumes"};
    }
    return std::nullopt;
}

std::optional<SweepComplaint> SweepJudge::JudgeFault(const NandChip &chip, const RunOutcome &run,
                                                     std::size_t line) const {
    for (const auto &complaint : {JudgeEnd(run), JudgeOutside(FirstOutside(chip))}) {
        if (complaint)
            return complaint;
    }
    if (IsReported(run))
        return std::nullopt;
    const auto block = FirstDifference(chip);
    if (!block)
        return JudgeUbi(chip);
    // An older request in place of a raw write lets the kernel add its ECC, which is no loss.
    if (HasAllData(chip))
        return JudgeUbi(chip);
    return SweepComplaint{line != 0 ? line : LineOf(*block),
                          "no failure is reported, but flash differs from a run without the fault",
                          "let the program that makes the failing request check and report the failure"};
}

/// @return whether all pages that either run touched hold what the reference holds, or that with ECC where the
/// reference has none, and no page is unstable.
bool SweepJudge::HasAllData(const NandChip &chip) const {
    for (std::uint32_t block = 0; block < chip.Geometry().Blocks(); ++block) {
        if (Differs(chip, block) && (chip.IsUnstable(block) || !chip.HasDataOf(m_reference.chip, block)))
            return false;
    }
    return true;
}

bool SweepJudge::IsReported(const RunOutcome &run) const {
    if (run.status != m_reference.outcome.status)
        return true;
    const RunStory story = Follow(run, false);
    for (std::size_t i = 0; i < story.lines.size(); ++i) {
        const LineStory &before = m_reference.story.lines[i];
        const LineStory &now = story.lines[i];
        if (now.result != before.result || now.complaint != before.complaint || now.exits != before.exits)
            return true;
    }
    return false;
}

std::optional<SweepComplaint> SweepJudge::JudgeCut(const NandChip &chip, std::size_t line, const RunOutcome &again,
                                                   FirstRun first) const {
    for (const auto &complaint : {JudgeEnd(again), JudgeOutside(FirstOutside(chip)), JudgeLines(again)}) {
        if (complaint)
            return complaint;
    }
    const auto block = FirstDifference(chip);
    return block ? JudgeLoss(chip, line, *block, first) : JudgeUbi(chip);
}

SweepComplaint SweepJudge::JudgeLoss(const NandChip &chip, std::size_t line, std::uint32_t block,
                                     FirstRun first) const {
    const std::string survives = first == FirstRun::Cut ? "a power cut" : "a failure";
    return {line, LossIn(chip, block, first),
            m_isEnvironment[block] ? "keep a second copy of the environment that survives " + survives +
                                         ", or do not let the device boot from the only one while the line rewrites it"
                                   : "let the update write the range again whenever it runs"};
}

bool SweepJudge::HasUnsealed(const NandChip &chip) const {
    const WholeFlash flash(chip, m_reference.devices);
    for (std::size_t i = 0; i < m_reference.lines.size(); ++i) {
        const std::optional<FlashRange> range = m_reference.DoneRange(i);
        if (m_reference.lines[i].kind != LineKind::SetEnv || !range)
            continue;
        const std::vector<std::uint32_t> blocks = m_flash.Blocks(*range);
        const bool isTouched =
            std::any_of(blocks.begin(), blocks.end(), [&](std::uint32_t block) { return chip.IsTouched(block); });
        if (isTouched && HasValidCrc(m_flash.Read(*range)) && !HasValidCrc(flash.Read(*range)))
            return true;
    }
    return false;
}

/// @return the number of the first line with another result than in an uncut run; 0 for none.
std::size_t SweepJudge::LineInProgress(const RunOutcome &cut) const {
    const RunStory story = Follow(cut, true);
    for (std::size_t i = 0; i < story.lines.size(); ++i) {
        if (story.lines[i].result != m_reference.story.lines[i].result)
            return m_reference.lines[i].number;
    }
    return 0;
}

RunStory SweepJudge::Follow(const RunOutcome &run, bool wasCut) const {
    // A cut loses output that was not flushed yet; every run prints the same there.
    return FollowRun(m_reference.lines, wasCut ? m_reference.outcome.out : run.out, run.err, wasCut);
}

std::optional<SweepComplaint> SweepJudge::JudgeEnd(const RunOutcome &run) const {
    if (run.isOverdue)
        return SweepComplaint{0, "the updater timed out and was killed"};
    if (run.isBypassed)
        return SweepComplaint{0, "pages changed other than by a request, or while the writer was killed",
                              "change flash only through the MTD devices"};
    if (WIFSIGNALED(run.status))
        return SweepComplaint{0, "the updater was killed by signal " + std::to_string(WTERMSIG(run.status))};
    return std::nullopt;
}

std::optional<SweepComplaint> SweepJudge::JudgeOutside(std::optional<std::uint32_t> block) const {
    if (!block)
        return std::nullopt;
    return SweepComplaint{0, "block " + std::to_string(*block) + " at " +
                                 Hex(m_flash.FromChip(std::uint64_t{*block} * m_reference.chip.Geometry().eraseSize)) +
                                 ", outside the ranges of the script, was changed"};
}

std::optional<std::uint32_t> SweepJudge::FirstOutside(const NandChip &chip) const {
    for (std::uint32_t block = 0; block < m_mayChange.size(); ++block) {
        if (IsOutside(chip, block))
            return block;
    }
    return std::nullopt;
}

std::optional<SweepComplaint> SweepJudge::JudgeLines(const RunOutcome &run) const {
    const RunStory story = Follow(run, false);
    for (std::size_t i = 0; i < story.lines.size(); ++i) {
        const LineStory &line = story.lines[i];
        if (line.result != m_reference.story.lines[i].result || line.exits != m_reference.story.lines[i].exits)
            return SweepComplaint{m_reference.lines[i].number, Trouble(line)};
    }
    return std::nullopt;
}

/// Checks that the good blocks of a line's range hold what the reference wrote there, in the same order.
std::optional<SweepComplaint> SweepJudge::JudgeOrder(const NandChip &chip, std::size_t line) const {
    const UpdateLine &what = m_reference.lines[line];
    const std::optional<FlashRange> range = m_reference.DoneRange(line);
    if (!range || (!what.WritesImage() && what.kind != LineKind::SetEnv))
        return std::nullopt;
    const std::vector<std::uint32_t> wanted = m_flash.GoodBlocks(*range);
    const std::vector<std::uint32_t> found = WholeFlash(chip, m_reference.devices).GoodBlocks(*range);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (i >= found.size() ? m_reference.chip.IsBlank(wanted[i])
                              : chip.HasCellsOf(m_reference.chip, wanted[i], found[i]))
            continue;
        if (what.WritesImage())
            return SweepComplaint{what.number, "the good blocks of the range do not hold the whole image"};
        return SweepComplaint{what.number, "the range holds a bad block: the environment is not written completely"};
    }
    return std::nullopt;
}

/// @return what is wrong with a block that differs from an uncut run.
std::string SweepJudge::LossIn(const NandChip &chip, std::uint32_t block, FirstRun first) const {
    const bool isCut = first == FirstRun::Cut;
    const WholeFlash flash(chip, m_reference.devices);
    const std::int64_t offset = m_flash.FromChip(std::uint64_t{block} * chip.Geometry().eraseSize);
    for (std::size_t i = 0; i < m_reference.lines.size(); ++i) {
        const std::optional<FlashRange> range = m_reference.DoneRange(i);
        if (m_reference.lines[i].kind != LineKind::SetEnv || !range || !range->Holds(offset))
            continue;
        return (isCut ? "power lost" : "a request that fails") + std::string(" while the environment at ") +
               Hex(range->begin) +
               " is rewritten destroys the environment; the second run starts from what is left and " +
               EnvironmentLoss(m_flash.Read(*range), flash.Read(*range));
    }
    const std::size_t line = LineOf(block);
    if (chip.HasCellsOf(m_reference.chip, block, block))
        return (isCut ? "the cut" : "the failure") + std::string(" leaves unstable pages in block ") +
               std::to_string(block) + ", and the second run does not erase them";
    return (line == 0 ? "flash outside all ranges" : "the range of line " + std::to_string(line)) +
           (isCut ? " differs from an uncut run" : " differs after a second run from a run without the failure");
}

/// @return the number of the last line whose range holds a block; 0 for none.
std::size_t SweepJudge::LineOf(std::uint32_t block) const {
    const std::int64_t offset = m_flash.FromChip(std::uint64_t{block} * m_reference.chip.Geometry().eraseSize);
    for (std::size_t i = m_reference.lines.size(); i-- > 0;) {
        const std::optional<FlashRange> range = m_flash.RangeOf(m_reference.lines[i]);
        if (range && range->Holds(offset))
            return m_reference.lines[i].number;
    }
    return 0;
}

/// @return the first block that differs from the reference; only blocks that either run touched can.
std::optional<std::uint32_t> SweepJudge::FirstDifference(const NandChip &chip) const {
    for (std::uint32_t block = 0; block < chip.Geometry().Blocks(); ++block) {
        if (Differs(chip, block))
            return block;
    }
    return std::nullopt;
}

bool SweepJudge::Differs(const NandChip &chip, std::uint32_t block) const {
    const bool isTouched = chip.IsTouched(block) || m_reference.chip.IsTouched(block);
    return isTouched &&
           (chip.IsUnstable(block) || (!m_isUbi[block] && !chip.HasCellsOf(m_reference.chip, block, block)));
}
