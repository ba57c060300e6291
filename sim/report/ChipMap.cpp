#include "report/ChipMap.h"

#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "report/MarkLooks.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

constexpr size_t kAddressWidth = 12;
constexpr size_t kFewestCells = 16;
constexpr size_t kMostCellsOfRow = 128;
/// Cells between two marks of the scale; a gap follows.
constexpr size_t kSection = 16;
/// Chips that need more rows are drawn in groups of blocks, to be seen at once.
constexpr size_t kMostRows = 16;

using Cell = std::vector<size_t>::const_iterator;

size_t RowWidth(size_t cells) { return kAddressWidth + cells + (cells - 1) / kSection; }

std::string FormatNumber(const char *format, std::uint64_t number) {
    char text[32];
    snprintf(text, sizeof(text), format, static_cast<unsigned long long>(number));
    return text;
}

/// Draws cells of one section; equal neighbours are coloured together.
std::string Paint(Cell cell, Cell end, bool inColour) {
    std::string text;
    while (cell != end) {
        const MarkLook &look = kMarkLooks[*cell];
        const Cell next = std::find_if(cell, end, [&](size_t rank) { return rank != *cell; });
        const std::string run(static_cast<size_t>(next - cell), look.letter);
        text += inColour ? std::string("\033[") + look.terminal + "m" + run + "\033[0m" : run;
        cell = next;
    }
    return text;
}

std::string PaintRow(Cell cell, Cell end, bool inColour) {
    std::string text;
    while (cell != end) {
        const Cell next = cell + std::min<std::ptrdiff_t>(kSection, end - cell);
        text += Paint(cell, next, inColour) + (next == end ? "\n" : " ");
        cell = next;
    }
    return text;
}

/// The offset from the start of a row, at each section.
std::string Scale(size_t cells, std::uint64_t bytesOfACell) {
    std::string text(kAddressWidth, ' ');
    for (size_t cell = 0; cell < cells; cell += kSection) {
        text.resize(RowWidth(cell + 1) - 1, ' ');
        text += cell == 0 ? "+0" : FormatNumber("+0x%llx", cell * bytesOfACell);
    }
    return text + "\n";
}

/// A part of a line, and its width without colours.
struct Part {
    std::string text;
    size_t columns;
};

Part Plain(const std::string &text) { return {text, text.size()}; }

/// Breaks parts into lines.
std::string Fill(const std::vector<Part> &parts, size_t width) {
    std::string text;
    size_t column = 0;
    for (const Part &part : parts) {
        const bool fits = column + 2 + part.columns <= width;
        if (column > 0)
            text += fits ? "  " : "\n";
        column = part.columns + (column > 0 && fits ? column + 2 : 0);
        text += part.text;
    }
    return text + "\n";
}

} // namespace

ChipMap::ChipMap(std::vector<BlockMark> marks, std::uint32_t eraseSize)
    : m_marks(std::move(marks)), m_nEraseSize(eraseSize) {}

std::string ChipMap::Text(size_t width, bool inColour) const {
    // Powers of two give rows and cells round addresses.
    size_t columns = kFewestCells;
    while (columns < kMostCellsOfRow && RowWidth(columns * 2) <= width && columns < m_marks.size())
        columns *= 2;
    size_t group = 1;
    while ((m_marks.size() + group * columns - 1) / (group * columns) > kMostRows)
        group *= 2;

    const std::uint64_t bytesOfACell = std::uint64_t{m_nEraseSize} * group;
    std::string text = Scale(columns, bytesOfACell);
    const std::vector<size_t> cells = MarkCells(m_marks, group);
    for (size_t cell = 0; cell < cells.size(); cell += columns) {
        const Cell row = cells.begin() + static_cast<std::ptrdiff_t>(cell);
        const Cell end = row + static_cast<std::ptrdiff_t>(std::min(columns, cells.size() - cell));
        text += FormatNumber("0x%08llx  ", cell * bytesOfACell) + PaintRow(row, end, inColour);
    }

    const auto counts = CountMarks(m_marks);
    std::vector<Part> legend;
    for (size_t rank = 0; rank < kMarkLooks.size(); ++rank) {
        if (counts[rank] == 0)
            continue;
        const std::vector<size_t> cell = {rank};
        const std::string words = std::string(" ") + kMarkLooks[rank].words + " " + std::to_string(counts[rank]);
        legend.push_back({Paint(cell.begin(), cell.end(), inColour) + words, 1 + words.size()});
    }
    text += Fill(legend, width);
    std::vector<Part> notes = {Plain("one cell = " + (group == 1 ? "1 block" : std::to_string(group) + " blocks") +
                                     " of " + SizeText(m_nEraseSize))};
    if (group > 1)
        notes.push_back(Plain("(shows the most important block)"));
    return text + Fill(notes, width);
}
