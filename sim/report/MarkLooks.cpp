#include "report/MarkLooks.h"

#include <algorithm>

namespace {

std::size_t Rank(BlockMark mark) {
    std::size_t rank = 0;
    while (kMarkLooks[rank].mark != mark)
        ++rank;
    return rank;
}

} // namespace

std::vector<BlockMark> ChipMarks(const NandChip &chip) {
    std::vector<BlockMark> marks;
    for (std::uint32_t block = 0; block < chip.Geometry().Blocks(); ++block)
        marks.push_back(chip.Mark(block));
    return marks;
}

std::array<std::size_t, kMarkLooks.size()> CountMarks(const std::vector<BlockMark> &marks) {
    std::array<std::size_t, kMarkLooks.size()> counts = {};
    for (BlockMark mark : marks)
        ++counts[Rank(mark)];
    return counts;
}

std::vector<std::size_t> MarkCells(const std::vector<BlockMark> &marks, std::size_t group) {
    std::vector<std::size_t> cells((marks.size() + group - 1) / group, 0);
    for (std::size_t block = 0; block < marks.size(); ++block)
        cells[block / group] = std::max(cells[block / group], Rank(marks[block]));
    return cells;
}
