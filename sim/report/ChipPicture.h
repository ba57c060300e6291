#pragma once

#include "chip/NandChip.h"
#include "verdict/FlashRanges.h"
#include "verdict/Verdict.h"

#include <string>

/// Draws a rehearsal for a browser or a document: the state of each block, the script's lines with their ranges on a
/// common scale of addresses, and the percentages in the order of the reports.
///
/// Larger chips than 8192 blocks are drawn in groups of blocks; see kMarkLooks. Of longer scripts than 100 lines, the
/// first 100 are drawn. Colours follow the reader's light or dark theme.
/// @param name of the update, for the heading
/// @param chip as the run left it, with its marks
/// @param flash the whole flash, in which the script counts its offsets
/// @return an SVG file that needs no other file and contains no program. Bytes of the name and the script that are not
///         UTF-8 text are shown as "?".
std::string DrawChip(const std::string &name, const NandChip &chip, const WholeFlash &flash, const Verdict &verdict);
