#include "base/Bytes.h"
#include "base/Text.h"
#include "verdict/Checks.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

namespace {

/// What a page holds when every line does what it says.
struct Intent {
    const LineVerdict *line = nullptr; ///< whose work the page is; nullptr: the script doesn't say what is there
    std::int64_t page = kErased;       ///< of the line's image, from 0
    static constexpr std::int64_t kErased = -1;
};

/// The chip that the lines meant, page by page: each line in its order, a later one over an earlier one.
class IntendedChip {
public:
    explicit IntendedChip(const RunFacts &facts) : m_facts(facts), m_pages(facts.chip.Geometry().Pages()) {
        for (const LineVerdict &line : facts.lines)
            Take(line);
    }

    const Intent &At(std::uint32_t page) const { return m_pages[page]; }

private:
    void Take(const LineVerdict &line) {
        const std::optional<FlashRange> range = m_facts.RangeOf(line);
        if (!line.HasRun() || !range)
            return;
        const bool isKnown = line.result == LineResult::Clean && m_facts.flash.IsOnFlash(*range);
        const bool isErased = isKnown && (line.line.kind == LineKind::Erase || line.line.WritesImage());
        Set(m_facts.flash.GoodBlocks(*range), isErased ? Intent{&line} : Intent{});
        if (isErased && line.line.WritesImage())
            TakeImage(line, m_facts.flash.GoodBlocks({range->begin, m_facts.flash.Size()}));
    }

    void TakeImage(const LineVerdict &line, const std::vector<std::uint32_t> &blocks) {
        const std::optional<std::int64_t> size = m_facts.ImageSize(line.line);
        const auto contents = m_facts.record.contents.find(line.line.image);
        const auto &missing = m_facts.record.missingSysfs;
        const bool hasFrames =
            line.line.kind == LineKind::Write || std::find(missing.begin(), missing.end(), "oobsize") == missing.end();
        const bool isKnown = hasFrames && size && contents != m_facts.record.contents.end() &&
                             static_cast<std::int64_t>(contents->second.size()) == *size;
        if (!isKnown) {
            Set(blocks, {});
            return;
        }
        const std::int64_t record = m_facts.RecordSize(line.line);
        const std::uint32_t pagesPerBlock = m_facts.chip.Geometry().PagesPerBlock();
        const std::int64_t room = static_cast<std::int64_t>(blocks.size()) * pagesPerBlock;
        const std::int64_t pages = std::min((*size + record - 1) / record, room);
        for (std::int64_t page = 0; page < pages; ++page) {
            const auto number = static_cast<std::size_t>(page);
            m_pages[blocks[number / pagesPerBlock] * pagesPerBlock +
                    static_cast<std::uint32_t>(number % pagesPerBlock)] = {&line, page};
        }
    }

    void Set(const std::vector<std::uint32_t> &blocks, const Intent &intent) {
        const std::uint32_t pagesPerBlock = m_facts.chip.Geometry().PagesPerBlock();
        for (const std::uint32_t block : blocks)
            std::fill_n(m_pages.begin() + std::ptrdiff_t{block} * pagesPerBlock, pagesPerBlock, intent);
    }

    const RunFacts &m_facts;
    std::vector<Intent> m_pages;
};

/// @return whether a page of the chip holds what was meant: data and OOB, 0xFF where the image has nothing.
bool HoldsIntent(const RunFacts &facts, const Intent &intent, std::uint32_t page) {
    const std::uint8_t *cells = facts.chip.Cells(page);
    const std::size_t rawSize = facts.chip.Geometry().RawPageSize();
    if (intent.page == Intent::kErased)
        return IsErased(cells, rawSize);
    const std::string &image = facts.record.contents.at(intent.line->line.image);
    const auto record = static_cast<std::size_t>(facts.RecordSize(intent.line->line));
    const std::size_t begin = static_cast<std::size_t>(intent.page) * record;
    const std::size_t length = std::min(record, image.size() - begin);
    if (std::memcmp(cells, image.data() + begin, length) != 0)
        return false;
    // The rest of a short record is whatever the updater's buffer held; that is reported as such. On a kernel without
    // MEMWRITE an image without OOB gets ECC.
    return intent.line->line.kind == LineKind::WriteOob ||
           (IsErased(cells + length, record - length) && facts.chip.HasPlainOob(page));
}

struct Difference {
    std::int64_t image = 0;  ///< pages of the image
    std::int64_t erased = 0; ///< pages meant to be erased
    std::int64_t first = 0;  ///< offset of the first of both in the flash
    std::set<std::string> changers;
};

/// @param areNamed whether the run shows the programs that changed flash
Finding SpoiledFinding(const UpdateLine &line, const Difference &difference, bool areNamed) {
    std::string happens;
    if (difference.image > 0)
        happens = Count(difference.image, "page") + " of the image differ" + (difference.image == 1 ? "s" : "") +
                  " on the chip";
    if (difference.erased > 0)
        happens += (happens.empty() ? "" : ", and ") + Count(difference.erased, "page") + " of the erased range " +
                   (difference.erased == 1 ? "is" : "are") + " not erased";
    happens += " when the update ends, first at " + Hex(difference.first);
    if (!areNamed)
        return ForLine(line, FindingId::Spoiled, happens);
    if (difference.changers.empty())
        return ForLine(line, FindingId::Spoiled,
                       happens + "; no other program changed those blocks: a request of the line may have failed "
                                 "silently, or the file changed during the run",
                       "see what the device reports of its flash, the trace, and what programs do to the file");
    return ForLine(line, FindingId::Spoiled,
                   happens + "; changed by " +
                       JoinWords({difference.changers.begin(), difference.changers.end()}, ", "));
}

} // namespace

/// The chip as the update leaves it, held against what each line meant: whatever changed a page after the line, or in
/// place of the line, shows here.
std::vector<Finding> CheckFinalChip(const RunFacts &facts) {
    const IntendedChip intended(facts);
    std::map<const LineVerdict *, Difference> differences;
    const NandGeometry &geometry = facts.chip.Geometry();
    for (std::uint32_t page = 0; page < geometry.Pages(); ++page) {
        const Intent &intent = intended.At(page);
        // A block that nothing has touched is reported as not done.
        if (intent.line == nullptr || !facts.chip.IsTouched(page / geometry.PagesPerBlock()) ||
            HoldsIntent(facts, intent, page))
            continue;
        Difference &difference = differences[intent.line];
        if (difference.image + difference.erased == 0)
            difference.first = facts.flash.FromChip(std::uint64_t{page} * geometry.pageSize);
        ++(intent.page == Intent::kErased ? difference.erased : difference.image);
        const auto others = facts.changers.find(page / geometry.PagesPerBlock());
        if (others != facts.changers.end())
            difference.changers.insert(others->second.begin(), others->second.end());
    }
    std::vector<Finding> findings;
    findings.reserve(differences.size());
    for (const auto &[line, difference] : differences)
        findings.push_back(SpoiledFinding(line->line, difference, facts.record.namesChangers));
    return findings;
}
