#pragma once

#include "chip/NandChip.h"

#include <array>
#include <cstddef>
#include <vector>

/// How pictures of a chip show what has become of a block.
struct MarkLook {
    BlockMark mark;
    const char *words;
    char letter;          ///< in a terminal
    const char *terminal; ///< its colours there, as an escape sequence takes them
    const char *light;    ///< its colour in a document with dark text on a light ground
    const char *dark;     ///< the same for light text on a dark ground
};

/// All of them, the one that matters least first. Good blocks are grey and blue, what calls for attention is neither.
constexpr std::array<MarkLook, 5> kMarkLooks = {{
    {BlockMark::Untouched, "untouched", '.', "2", "#dfe4ea", "#2f363f"},
    {BlockMark::Erased, "erased", '-', "30;46", "#9cc9f5", "#2a5f97"},
    {BlockMark::Written, "written", '#', "1;37;44", "#1f6fd0", "#5aa7ff"},
    {BlockMark::Bad, "bad", 'X', "1;37;41", "#d1242f", "#ff5c50"},
    {BlockMark::WrittenWithoutErase, "written without erase", '!', "1;37;45", "#b0219f", "#f778e0"},
}};

/// @return what has become of each block, from block 0 on.
std::vector<BlockMark> ChipMarks(const NandChip &chip);

/// @return how many blocks have each of kMarkLooks.
std::array<std::size_t, kMarkLooks.size()> CountMarks(const std::vector<BlockMark> &marks);

/// Puts blocks together to cells, each of which looks like the one of its blocks that matters most.
/// @param group blocks of a cell; the last one may have fewer
/// @return places in kMarkLooks, one a cell.
std::vector<std::size_t> MarkCells(const std::vector<BlockMark> &marks, std::size_t group);
