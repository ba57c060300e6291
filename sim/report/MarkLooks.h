#pragma once

#include "chip/NandChip.h"

#include <array>
#include <cstddef>
#include <vector>

/// How maps and pictures show the state of a block.
struct MarkLook {
    BlockMark mark;
    const char *words;
    char letter;          ///< in a terminal
    const char *terminal; ///< colours in a terminal, as numbers of an escape sequence
    const char *light;    ///< colour in a document with a light background
    const char *dark;     ///< colour in a document with a dark background
};

/// In ascending order of importance. Good blocks are grey and blue; blocks that need attention have other colours.
constexpr std::array<MarkLook, 5> kMarkLooks = {{
    {BlockMark::Untouched, "untouched", '.', "2", "#dfe4ea", "#2f363f"},
    {BlockMark::Erased, "erased", '-', "30;46", "#9cc9f5", "#2a5f97"},
    {BlockMark::Written, "written", '#', "1;37;44", "#1f6fd0", "#5aa7ff"},
    {BlockMark::Bad, "bad", 'X', "1;37;41", "#d1242f", "#ff5c50"},
    {BlockMark::WrittenWithoutErase, "written without erase", '!', "1;37;45", "#b0219f", "#f778e0"},
}};

/// @return the state of each block, from block 0 on.
std::vector<BlockMark> ChipMarks(const NandChip &chip);

/// @return the number of blocks for each row of kMarkLooks.
std::array<std::size_t, kMarkLooks.size()> CountMarks(const std::vector<BlockMark> &marks);

/// Gathers blocks into cells. A cell looks like the most important of its blocks.
/// @param group number of blocks per cell; the last cell may have fewer
/// @return for each cell, an index in kMarkLooks.
std::vector<std::size_t> MarkCells(const std::vector<BlockMark> &marks, std::size_t group);
