#include "board/RunDiff.h"

#include "base/Text.h"
#include "chip/Hamming.h"
#include "mtd/Trace.h"
#include "verdict/CheckText.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <regex>
#include <sstream>
#include <vector>

namespace {

std::string Differ(const std::string &what, const std::string &simulator, const std::string &board) {
    return what + ": " + simulator + " on the simulator, " + board + " on the board";
}

/// @return the lines of the updater's output. Process ids, which it prints as "####123###", are those of the machine:
///         "####?###".
std::vector<std::string> LinesOf(const std::string &text) {
    static const std::regex processId("####[0-9]+###");
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(std::regex_match(line, processId) ? "####?###" : line);
    return lines;
}

/// @return the first line that differs; empty when the texts are equal.
std::string CompareLines(const std::string &what, const std::vector<std::string> &simulator,
                         const std::vector<std::string> &board) {
    const auto quoted = [](const std::vector<std::string> &lines, std::size_t at) {
        return at < lines.size() ? QuotedText(lines[at].c_str()) : std::string("nothing");
    };
    const std::size_t count = std::max(simulator.size(), board.size());
    for (std::size_t i = 0; i < count; ++i) {
        if (i >= simulator.size() || i >= board.size() || simulator[i] != board[i])
            return Differ(what + " " + std::to_string(i + 1), quoted(simulator, i), quoted(board, i));
    }
    return "";
}

/// Findings that one of both alone can have: the simulator ran another program in place of one for ARM; the board's
/// tools looked at the chip.
constexpr FindingId kOneSided[] = {FindingId::ReplacedProgram, FindingId::EnvironmentUnreadable,
                                   FindingId::UnexpectedFile};

/// @return what a finding says, without the message that one about the start quotes: a shell or tar of the machine may
///         have printed it. The updater's own messages are compared before.
std::string ComparedText(const Finding &finding) {
    const bool isOfStart = finding.kind == FindingRows()[static_cast<std::size_t>(FindingId::NotStarted)].kind;
    return isOfStart ? finding.happens.substr(0, finding.happens.find(": ")) : finding.happens;
}

/// @return a line for each other finding.
std::vector<std::string> FindingLines(const Verdict &verdict) {
    std::vector<std::string> lines;
    for (const Finding &finding : verdict.findings) {
        if (std::any_of(std::begin(kOneSided), std::end(kOneSided),
                        [&](FindingId id) { return finding.kind == FindingRows()[static_cast<std::size_t>(id)].kind; }))
            continue;
        lines.push_back("line " + std::to_string(finding.line) + ": " + ComparedText(finding) + " [" + finding.kind +
                        "]");
    }
    return lines;
}

std::vector<std::string> Percentages(const Verdict &verdict) {
    std::vector<std::string> lines;
    for (const int percent : verdict.percentages)
        lines.push_back(std::to_string(percent));
    return lines;
}

/// @return the cells of a page to compare. ubiformat draws a random number for the headers of each run: the number, the
///         header's CRC and the ECC of both are left out.
std::vector<std::uint8_t> ComparedCells(const NandChip &chip, std::uint32_t page) {
    constexpr char kMagic[] = {'U', 'B', 'I', '#'};
    constexpr std::uint32_t kImageNumber = 24;
    constexpr std::uint32_t kHeaderCrc = 60;
    constexpr std::uint32_t kFieldBytes = 4;
    const NandGeometry &geometry = chip.Geometry();
    std::vector<std::uint8_t> cells(chip.Cells(page), chip.Cells(page) + geometry.RawPageSize());
    if (!std::equal(std::begin(kMagic), std::end(kMagic), cells.begin()))
        return cells;
    std::fill_n(cells.begin() + kImageNumber, kFieldBytes, std::uint8_t{0});
    std::fill_n(cells.begin() + kHeaderCrc, kFieldBytes, std::uint8_t{0});
    std::uint32_t left = Hamming::kBytes;
    for (const OobRegion &region : chip.Layout().ecc) {
        const std::uint32_t count = std::min(left, region.length);
        std::fill_n(cells.begin() + geometry.pageSize + region.offset, count, std::uint8_t{0});
        left -= count;
    }
    return cells;
}

std::string CompareChips(const NandChip &simulator, const NandChip &board) {
    const NandGeometry &geometry = simulator.Geometry();
    for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
        if (simulator.IsBad(block) != board.IsBad(block))
            return Differ("block " + std::to_string(block), simulator.IsBad(block) ? "bad" : "good",
                          board.IsBad(block) ? "bad" : "good");
        // The contents of a bad block are undefined.
        if (simulator.IsBad(block) || board.HasCellsOf(simulator, block, block))
            continue;
        const std::uint32_t first = block * geometry.PagesPerBlock();
        for (std::uint32_t page = first; page < first + geometry.PagesPerBlock(); ++page) {
            const std::vector<std::uint8_t> mine = ComparedCells(simulator, page);
            const std::vector<std::uint8_t> its = ComparedCells(board, page);
            const auto at = std::mismatch(mine.begin(), mine.end(), its.begin());
            if (at.first == mine.end())
                continue;
            const auto place = static_cast<std::uint32_t>(at.first - mine.begin());
            const bool isOob = place >= geometry.pageSize;
            const std::string name = (isOob ? "OOB byte " : "byte ") +
                                     std::to_string(isOob ? place - geometry.pageSize : place) + " of the page at " +
                                     Hex(static_cast<std::int64_t>(page) * geometry.pageSize);
            return Differ("flash, " + name, Hex(*at.first), Hex(*at.second));
        }
    }
    return "";
}

} // namespace

std::string FirstDifference(const JudgedRun &simulator, const JudgedRun &board) {
    if (simulator.record.status != board.record.status)
        return Differ("end", EndingText(simulator.record.status), EndingText(board.record.status));
    if (simulator.record.cutPlace != board.record.cutPlace)
        return Differ("power cut", "'" + simulator.record.cutPlace + "'", "'" + board.record.cutPlace + "'");
    for (const std::string &difference :
         {CompareLines("the updater's output, line", LinesOf(simulator.record.updater.out),
                       LinesOf(board.record.updater.out)),
          CompareLines("the updater's error output, line", LinesOf(simulator.record.updater.err),
                       LinesOf(board.record.updater.err)),
          CompareLines("percentage", Percentages(simulator.verdict), Percentages(board.verdict)),
          CompareChips(simulator.chip, board.chip),
          CompareLines("finding", FindingLines(simulator.verdict), FindingLines(board.verdict))}) {
        if (!difference.empty())
            return difference;
    }
    return "";
}
