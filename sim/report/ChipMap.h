#pragma once

#include "chip/NandChip.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// A map of a chip for a terminal, with one cell per block, or per group of blocks on a large chip.
class ChipMap {
public:
    /// @param marks the state of each block, from block 0 on
    /// @param eraseSize of the chip, in bytes
    ChipMap(std::vector<BlockMark> marks, std::uint32_t eraseSize);

    /// Draws the map with a scale above, the address before each row, and a legend with counts below. kMarkLooks has
    /// the letters, and the order in which one block of a group stands for all.
    /// @param width columns of the terminal; the map is not wider, except that it needs about 35 columns
    /// @param inColour whether to use the terminal's colours
    std::string Text(size_t width, bool inColour) const;

private:
    std::vector<BlockMark> m_marks;
    std::uint32_t m_nEraseSize;
};
