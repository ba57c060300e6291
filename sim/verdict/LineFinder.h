#pragma once

#include "chip/NandChip.h"
#include "mtd/RunTimeline.h"
#include "verdict/FlashRanges.h"
#include "verdict/RunStory.h"
#include "verdict/UpdateLines.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

/// Finds the script line of each change of a run. Lines run in order, each changes only its own range, and none erases
/// a block twice; programs that the updater starts belong to the lines that start programs.
class LineFinder {
public:
    /// All outlive the object.
    LineFinder(const NandChip &chip, const std::vector<SimDevice> &devices, const std::vector<UpdateLine> &lines,
               const RunStory &story)
        : m_pagesPerBlock(chip.Geometry().PagesPerBlock()), m_lines(lines), m_story(story), m_flash(chip, devices) {}

    /// @param change an erase or a program, after all earlier ones
    /// @return the number of the line that makes the change; 0 when unknown.
    std::size_t Change(const RunChange &change);

    /// @return the number of the line of the last change; 0 before the first change.
    std::size_t Number() const { return m_line < m_lines.size() ? m_lines[m_line].number : 0; }

private:
    bool MayChange(std::size_t line, const RunChange &change, std::uint32_t block) const;

    const std::uint32_t m_pagesPerBlock;
    const std::vector<UpdateLine> &m_lines;
    const RunStory &m_story;
    const WholeFlash m_flash;
    std::size_t m_line = static_cast<std::size_t>(-1); ///< index of the current line; the next one is 0
    std::set<std::uint32_t> m_erased;                  ///< blocks that the current line has erased
};
