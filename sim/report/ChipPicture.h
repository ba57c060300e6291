#pragma once

#include "chip/NandChip.h"
#include "verdict/FlashRanges.h"
#include "verdict/Verdict.h"

#include <string>

/// Draws a rehearsal for a browser or a document: the chip's blocks by what has become of them, the script's lines with
/// the ranges that they were given on a common scale of addresses, and the percentages in the order of their reports.
///
/// Up to 8192 blocks are drawn one by one; of more, groups are, each as kMarkLooks says. Of very long scripts the first
/// 100 lines are drawn. Colours follow the reader's choice of light or dark.
/// @param name of what was rehearsed, for the heading
/// @param chip as the run left it, with its marks
/// @param flash as the script's offsets count it
/// @return an SVG file whole in itself: it asks for no other file and runs no program. Bytes of the name and the script
///         that aren't text are shown as "?".
std::string DrawChip(const std::string &name, const NandChip &chip, const WholeFlash &flash, const Verdict &verdict);
