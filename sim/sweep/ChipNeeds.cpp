#include "sweep/ChipNeeds.h"

#include <algorithm>

ChipNeeds::ChipNeeds(const std::vector<RunStep> &steps, const NandChip &before)
    : m_isChanged(before.Geometry().Blocks()) {
    const std::uint32_t pagesPerBlock = before.Geometry().PagesPerBlock();
    std::vector<bool> isErased(m_isChanged.size());
    for (const RunStep &step : steps) {
        if (step.kind == RunStep::Kind::Request)
            continue;
        const bool isOfPage = step.kind == RunStep::Kind::Read || step.kind == RunStep::Kind::Program;
        const std::uint32_t block = isOfPage ? step.place / pagesPerBlock : step.place;
        Needs &needs = m_needs[block];
        needs.traits = before.BlockTraits(block);
        m_isChanged[block] = m_isChanged[block] || step.IsChange();
        isErased[block] = isErased[block] || step.kind == RunStep::Kind::Erase;
        if (isErased[block] || !isOfPage)
            continue;
        // What a block holds after a program without an erase depends on all of it.
        const bool needsAll = step.kind == RunStep::Kind::Program;
        const std::uint32_t first = needsAll ? block * pagesPerBlock : step.place;
        for (std::uint32_t page = first; page < first + (needsAll ? pagesPerBlock : 1); ++page)
            needs.pages.emplace(page, before.PageHash(page));
    }
}

void ChipNeeds::Follow(const NandChip &chip, std::uint32_t block) {
    const auto found = m_needs.find(block);
    if (found == m_needs.end())
        return;
    Needs &needs = found->second;
    const bool isMet = chip.BlockTraits(block) == needs.traits &&
                       std::all_of(needs.pages.begin(), needs.pages.end(),
                                   [&](const auto &page) { return chip.PageHash(page.first) == page.second; });
    m_nUnmet += isMet ? 0U : 1U;
    m_nUnmet -= needs.isMet ? 0U : 1U;
    needs.isMet = isMet;
}
