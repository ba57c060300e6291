#include "ChipMap.h"

#include "SimText.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

/// What a cell looks like, the one that matters least first.
constexpr struct {
    BlockMark mark;
    char letter;
    const char *colour;
    const char *words;
} kLooks[] = {{BlockMark::Untouched, '.', "2", "untouched"},
              {BlockMark::Erased, 'e', "36", "erased"},
              {BlockMark::Written, '#', "32", "written"},
              {BlockMark::Bad, 'X', "1;31", "bad"},
              {BlockMark::WrittenWithoutErase, '!', "1;35", "written without erase"}};

constexpr size_t kAddressWidth = 12;
constexpr size_t kFewestCells = 16;
constexpr size_t kMostCells = 128;
constexpr size_t kCellsOfAScaleMark = 16;
/// More rows than this are too many to see at once: cells then hold groups of blocks.
constexpr size_t kMostRows = 16;

size_t Rank(BlockMark mark) {
    size_t rank = 0;
    while (kLooks[rank].mark != mark)
        ++rank;
    return rank;
}

std::string Hex(std::uint64_t number) {
    char text[24];
    snprintf(text, sizeof(text), "0x%08llx", static_cast<unsigned long long>(number));
    return text;
}

/// Cells of one row, each run of equal ones coloured as one.
std::string Paint(const std::vector<size_t> &ranks, bool inColour) {
    std::string text;
    for (size_t cell = 0; cell < ranks.size(); ++cell) {
        const bool begins = cell == 0 || ranks[cell] != ranks[cell - 1];
        const bool ends = cell + 1 == ranks.size() || ranks[cell] != ranks[cell + 1];
        const auto &look = kLooks[ranks[cell]];
        if (inColour && begins)
            text += std::string("\033[") + look.colour + "m";
        text += look.letter;
        if (inColour && ends)
            text += "\033[0m";
    }
    return text;
}

/// The distance from a row's start at every few cells.
std::string Scale(size_t cells, std::uint64_t bytesOfACell) {
    std::string text(kAddressWidth, ' ');
    for (size_t cell = 0; cell < cells; cell += kCellsOfAScaleMark) {
        char mark[32];
        snprintf(mark, sizeof(mark), "+%-*llx", static_cast<int>(kCellsOfAScaleMark - 1),
                 static_cast<unsigned long long>(cell * bytesOfACell));
        text += mark;
    }
    return text.substr(0, text.find_last_not_of(' ') + 1) + "\n";
}

} // namespace

ChipMap::ChipMap(std::vector<BlockMark> marks, std::uint32_t eraseSize)
    : m_marks(std::move(marks)), m_nEraseSize(eraseSize) {}

std::string ChipMap::Text(size_t width, bool inColour) const {
    // Powers of two keep the addresses of rows and cells round.
    size_t cells = kFewestCells;
    while (cells < kMostCells && cells * 2 + kAddressWidth <= width && cells < m_marks.size())
        cells *= 2;
    size_t group = 1;
    while ((m_marks.size() + group * cells - 1) / (group * cells) > kMostRows)
        group *= 2;

    std::string text = Scale(cells, std::uint64_t{m_nEraseSize} * group);
    size_t counts[std::size(kLooks)] = {};
    for (size_t block = 0; block < m_marks.size();) {
        text += Hex(std::uint64_t{m_nEraseSize} * block) + "  ";
        std::vector<size_t> row;
        for (size_t end = std::min(block + group * cells, m_marks.size()); block < end; ++block) {
            const size_t rank = Rank(m_marks[block]);
            ++counts[rank];
            if (block % group == 0)
                row.push_back(rank);
            row.back() = std::max(row.back(), rank);
        }
        text += Paint(row, inColour) + "\n";
    }

    text += "one cell = " + (group == 1 ? "1 block" : std::to_string(group) + " blocks") + " of " +
            SizeText(m_nEraseSize) + (group == 1 ? "" : ", shows what matters most in it") + "\n";
    for (size_t rank = std::size(kLooks); rank-- > 0;)
        text += (rank + 1 < std::size(kLooks) ? "  " : "") + Paint({rank}, inColour) + " " + kLooks[rank].words + " " +
                std::to_string(counts[rank]);
    return text + "\n";
}
