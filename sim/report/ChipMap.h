#pragma once

#include "chip/NandChip.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// A picture of a chip for a terminal: one cell for a block, or for a group of blocks when there are many.
class ChipMap {
public:
    /// @param marks what has become of each block, from block 0 on
    /// @param eraseSize bytes of a block
    ChipMap(std::vector<BlockMark> marks, std::uint32_t eraseSize);

    /// Draws the map, with the address at the start of each row, a scale on top and a legend with counts below.
    /// Letters and what matters most in a cell of several blocks are those of kMarkLooks.
    /// @param width columns of the terminal; the map takes no more, but never less than some 35
    /// @param inColour whether cells get a terminal's colours
    std::string Text(size_t width, bool inColour) const;

private:
    std::vector<BlockMark> m_marks;
    std::uint32_t m_nEraseSize;
};
