#include "verdict/LineFinder.h"

#include <optional>

std::size_t LineFinder::Change(const RunChange &change) {
    const bool isErase = change.kind == AccessKind::Erase;
    const std::uint32_t block = isErase ? change.place : change.place / m_pagesPerBlock;
    const bool isNewLine = !MayChange(m_line, change, block) || (isErase && m_erased.count(block) != 0);
    if (isNewLine) {
        std::size_t next = m_line + 1;
        while (next < m_lines.size() && !MayChange(next, change, block))
            ++next;
        // Without such a line, a later one of a program that keeps on running.
        if (next < m_lines.size()) {
            m_line = next;
            m_erased.clear();
        }
    }
    if (isErase)
        m_erased.insert(block);
    return Number();
}

bool LineFinder::MayChange(std::size_t line, const RunChange &change, std::uint32_t block) const {
    if (line >= m_lines.size() || m_story.lines[line].result == LineResult::Skipped)
        return false;
    const UpdateLine &what = m_lines[line];
    const bool startsPrograms = what.kind == LineKind::HandEnv || what.kind == LineKind::Ubiformat;
    if (startsPrograms || !change.isByProgram)
        return startsPrograms && !change.isByProgram;
    const std::optional<FlashRange> range = m_flash.RangeOf(what);
    return range &&
           range->Holds(m_flash.FromChip(std::uint64_t{block} * static_cast<std::uint64_t>(m_flash.EraseSize())));
}
