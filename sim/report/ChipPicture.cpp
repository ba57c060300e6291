#include "report/ChipPicture.h"

#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "report/MarkLooks.h"
#include "report/Report.h"
#include "report/UbiText.h"
#include "report/XmlText.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

namespace {

// Lengths are pixels.
constexpr int kWidth = 920;
constexpr int kMargin = 24;
constexpr double kCharacter = 7.3; ///< width of a character of the script
constexpr int kGridLeft = 106;
constexpr int kGridWidth = 768;
constexpr int kRight = kGridLeft + kGridWidth;
constexpr double kLargestCell = 24;
constexpr int kCrossedCell = 12; ///< from this size on, cells of bad blocks are crossed out
constexpr int kAxisLeft = 384;
constexpr int kAxisWidth = kRight - kAxisLeft;
constexpr int kRow = 20;
constexpr int kBar = 12;
constexpr int kStrip = 14;
constexpr double kNarrowestBar = 4;
constexpr double kNarrowestPart = 10; ///< of the axis
constexpr double kNarrowestMark = 1.5;
constexpr int kCurveWidth = 384;
constexpr int kCurveHeight = 80;
constexpr int kLabelHeight = 16; ///< of an address, with the space around it
constexpr int kLabelGap = 8;

constexpr std::size_t kMostCells = 8192;
constexpr std::size_t kFewestColumns = 16;
constexpr std::size_t kMostColumns = 128;
constexpr std::size_t kMostLines = 100;
constexpr std::size_t kShownColumns = 41;  ///< of a line's text beside its range
constexpr std::size_t kWholeColumns = 255; ///< of a line's text where there is room
constexpr int kWholePercent = 100;
constexpr int kHighestPercent = 150; ///< higher ones are drawn here

/// How the result of a script line looks: a shape, and words for the legend.
struct LineLook {
    const char *words;
    const char *shape; ///< in a square of 10 by 10
    const char *light;
    const char *dark;
};
enum LineLookPlace { kCarriedOut, kWithFinding, kPassedOver, kFailed, kNeverRan };
constexpr LineLook kLineLooks[] = {{"carried out", "M1 5l3 4l5 -8", "#1a7f37", "#3fb950"},
                                   {"carried out, with findings", "M5 0v6M5 8v2", "#bc4c00", "#ffa657"},
                                   {"skipped", "M1 2l4 3l-4 3M5 2l4 3l-4 3", "#bc4c00", "#ffa657"},
                                   {"failed", "M1 1l8 8M9 1l-8 8", "#d1242f", "#ff5c50"},
                                   {"never ran", "M1 5h8", "#59636e", "#9198a1"}};

/// A property of a class of elements, for either background.
struct PaintRule {
    const char *elements;
    const char *property;
    const char *light;
    const char *dark;
};
constexpr PaintRule kPaints[] = {
    {".paper", "fill", "#ffffff", "#0d1117"},   {".gap", "stroke", "#ffffff", "#0d1117"},
    {"text", "fill", "#1f2328", "#e6edf3"},     {".dim", "fill", "#59636e", "#9198a1"},
    {".rule", "stroke", "#d8dee4", "#30363d"},  {".range", "fill", "#cfd6de", "#3d4650"},
    {".range", "stroke", "#6e7781", "#8b949e"}, {".image", "fill", "#57606a", "#9aa4ae"},
    {".lost", "stroke", "#d1242f", "#ff5c50"},  {".curve", "stroke", "#1f6fd0", "#5aa7ff"}};
constexpr const char *kShapes = "text{font:13px system-ui,'DejaVu Sans',Helvetica,Arial,sans-serif}"
                                ".big{font-size:18px;font-weight:600}.head{font-size:14px;font-weight:600}"
                                ".code{font:12px ui-monospace,'DejaVu Sans Mono',Menlo,Consolas,monospace}"
                                ".end{text-anchor:end}.mid{text-anchor:middle}.strong{font-weight:600}"
                                "path{fill:none}.shape{stroke-width:2}.curve{stroke-width:2}"
                                ".hollow{fill-opacity:.25;stroke-dasharray:3 2}.whole{stroke-dasharray:4 3}";

std::string Num(double number) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f", number);
    const std::string shown = text;
    return shown.compare(shown.size() - 2, 2, ".0") == 0 ? shown.substr(0, shown.size() - 2) : shown;
}

std::string At(double x, double y) { return Num(x) + " " + Num(y); }

std::string Class(const char *name, std::size_t place) { return name + std::to_string(place); }

/// The style sheet for one background.
std::string Colours(const char *PaintRule::*ofPaint, const char *LineLook::*ofLine, const char *MarkLook::*ofMark) {
    std::string text;
    for (const PaintRule &paint : kPaints)
        text += std::string(paint.elements) + "{" + paint.property + ":" + paint.*ofPaint + "}";
    for (std::size_t place = 0; place < std::size(kLineLooks); ++place)
        text += Class(".line", place) + "{stroke:" + kLineLooks[place].*ofLine + "}";
    for (std::size_t place = 0; place < kMarkLooks.size(); ++place)
        text += Class(".mark", place) + "{stroke:" + kMarkLooks[place].*ofMark + "}";
    return text;
}

/// Square cells in rows, like the letters of a text.
class Grid {
public:
    /// @param top where the first row begins
    Grid(std::size_t cells, double top) : m_columns(kFewestColumns), m_top(top) {
        while (m_columns < kMostColumns && m_columns * m_columns < 4 * cells)
            m_columns *= 2;
        m_rows = (cells + m_columns - 1) / m_columns;
        m_cell = std::min(kLargestCell, kGridWidth / static_cast<double>(m_columns));
    }

    std::size_t Columns() const { return m_columns; }
    std::size_t Rows() const { return m_rows; }
    double Cell() const { return m_cell; }
    double X(std::size_t place) const { return kGridLeft + static_cast<double>(place % m_columns) * m_cell; }
    double Y(std::size_t place) const {
        const std::size_t row = place / m_columns;
        return m_top + static_cast<double>(row) * m_cell;
    }

private:
    std::size_t m_columns;
    std::size_t m_rows;
    double m_cell;
    double m_top;
};

/// A scale of addresses. Each part between two ends of ranges has a minimum width; the rest of the width is shared by
/// size.
class Axis {
public:
    /// @param ends two or more, ascending
    explicit Axis(std::vector<std::int64_t> ends) : m_ends(std::move(ends)) {
        const auto parts = static_cast<double>(m_ends.size() - 1);
        const double least = std::min(kNarrowestPart, kAxisWidth / parts / 2);
        const auto size = static_cast<double>(m_ends.back() - m_ends.front());
        m_places = {kAxisLeft};
        for (std::size_t i = 1; i < m_ends.size(); ++i) {
            const auto part = static_cast<double>(m_ends[i] - m_ends[i - 1]);
            m_places.push_back(m_places.back() + least + (kAxisWidth - parts * least) * part / size);
        }
    }

    const std::vector<std::int64_t> &Ends() const { return m_ends; }

    double X(std::int64_t address) const {
        const std::int64_t near = std::clamp(address, m_ends.front(), m_ends.back());
        const auto behind = std::upper_bound(m_ends.begin() + 1, m_ends.end() - 1, near);
        const auto to = static_cast<std::size_t>(behind - m_ends.begin());
        const double part =
            static_cast<double>(near - m_ends[to - 1]) / static_cast<double>(m_ends[to] - m_ends[to - 1]);
        return m_places[to - 1] + part * (m_places[to] - m_places[to - 1]);
    }

private:
    std::vector<std::int64_t> m_ends;
    std::vector<double> m_places;
};

class Picture {
public:
    Picture(const std::string &name, const NandChip &chip, const WholeFlash &flash, const Verdict &verdict)
        : m_name(name), m_chip(chip), m_flash(flash), m_verdict(verdict), m_marks(ChipMarks(chip)) {}

    std::string Draw() {
        DrawHeading();
        DrawBlocks();
        DrawLines();
        DrawUbi();
        DrawPercentages();
        const std::string size = " width=\"" + Num(kWidth) + "\" height=\"" + Num(m_y) + "\"";
        return "<svg xmlns=\"http://www.w3.org/2000/svg\"" + size + " viewBox=\"0 0 " + At(kWidth, m_y) +
               "\" role=\"img\">\n<title>" + Title() + "</title>\n<style>" + kShapes +
               Colours(&PaintRule::light, &LineLook::light, &MarkLook::light) +
               "\n@media (prefers-color-scheme:dark){" + Colours(&PaintRule::dark, &LineLook::dark, &MarkLook::dark) +
               "}</style>\n<rect class=\"paper\"" + size + "/>\n" + m_body + "</svg>\n";
    }

private:
    /// @param text escaped
    void Write(const char *look, double x, double y, const std::string &text) {
        m_body +=
            std::string("<text class=\"") + look + "\" x=\"" + Num(x) + "\" y=\"" + Num(y) + "\">" + text + "</text>\n";
    }
    void Trace(const std::string &look, const std::string &path, double thickness = 1) {
        if (!path.empty())
            m_body += "<path class=\"" + look + "\"" +
                      (thickness == 1 ? "" : " stroke-width=\"" + Num(thickness) + "\"") + " d=\"" + path + "\"/>\n";
    }
    void Fill(const std::string &look, double x, double y, double width, double height) {
        m_body += "<rect class=\"" + look + "\" x=\"" + Num(x) + "\" y=\"" + Num(y) + "\" width=\"" + Num(width) +
                  "\" height=\"" + Num(height) + "\"/>\n";
    }
    /// The words after a sign of the legend.
    /// @return where the next one begins
    double Explain(double x, const std::string &words) {
        Write("dim code", x + 16, m_y, words);
        return x + 16 + kCharacter * static_cast<double>(words.size()) + 20;
    }
    void DrawShape(std::size_t place, double x, double y) {
        m_body += "<path class=\"shape " + Class("line", place) + "\" transform=\"translate(" + At(x, y) + ")\" d=\"" +
                  kLineLooks[place].shape + "\"/>\n";
    }

    std::string Title() const {
        return XmlText(m_name, kWholeColumns) + " on a chip of " + SizeText(m_chip.Geometry().size);
    }

    void DrawHeading() {
        const NandGeometry &geometry = m_chip.Geometry();
        m_y += 18;
        Write("big", kMargin, m_y, Title());
        m_y += 22;
        DrawShape(m_verdict.IsClean() ? kCarriedOut : kFailed, kMargin, m_y - 9);
        Write("strong", kMargin + 16, m_y, VerdictLine(m_verdict));
        m_y += 20;
        Write("dim", kMargin, m_y,
              Count(geometry.Blocks(), "block") + " of " + SizeText(geometry.eraseSize) + ", pages of " +
                  SizeText(geometry.pageSize) + " with " + std::to_string(geometry.oobSize) + " bytes of OOB");
    }

    // The chip, in rows like lines of text.

    void DrawBlocks() {
        std::size_t group = 1;
        while (m_marks.size() > kMostCells * group)
            group *= 2;
        m_y += 34;
        Write("head", kMargin, m_y, group == 1 ? "Blocks" : "Blocks, " + std::to_string(group) + " in a cell");
        ExplainMarks();
        m_y += 2 * kLabelHeight;
        const std::vector<std::size_t> cells = MarkCells(m_marks, group);
        const Grid grid(cells.size(), m_y);
        DrawGridScales(grid, std::int64_t{m_chip.Geometry().eraseSize} * static_cast<std::int64_t>(group));
        m_body += "<g id=\"blocks\">\n";
        for (std::size_t rank = 0; rank < kMarkLooks.size(); ++rank)
            Trace(Class("mark", rank), GridRuns(grid, cells, rank), grid.Cell());
        m_body += "</g>\n";
        Trace("gap", GridGaps(grid) + Crosses(grid, cells));
        m_y = grid.Y(grid.Rows() * grid.Columns());
    }

    void ExplainMarks() {
        const auto counts = CountMarks(m_marks);
        double x = kGridLeft + 100;
        for (std::size_t rank = 0; rank < counts.size(); ++rank) {
            if (counts[rank] == 0)
                continue;
            Trace(Class("mark", rank), "M" + At(x, m_y - 5) + "h11", 11);
            x = Explain(x, kMarkLooks[rank].words + (" " + std::to_string(counts[rank])));
        }
    }

    void DrawGridScales(const Grid &grid, std::int64_t bytesOfACell) {
        const auto address = [&](std::size_t place) { return Hex(static_cast<std::int64_t>(place) * bytesOfACell); };
        for (std::size_t column = 0; column < grid.Columns(); column += grid.Columns() / 4)
            Write("dim code", grid.X(column), m_y - 6, "+" + address(column));
        std::size_t rows = 1;
        while (static_cast<double>(rows) * grid.Cell() < kLabelHeight)
            rows *= 2;
        for (std::size_t row = 0; row < grid.Rows(); row += rows) {
            const std::size_t first = row * grid.Columns();
            Write("dim code end", kGridLeft - 8, grid.Y(first) + std::max(grid.Cell(), 12.0) / 2 + 4, address(first));
        }
    }

    /// Lines of a cell's thickness through the cells that look alike.
    static std::string GridRuns(const Grid &grid, const std::vector<std::size_t> &cells, std::size_t rank) {
        std::string path;
        for (std::size_t first = 0; first < cells.size();) {
            std::size_t end = first + 1;
            while (end < cells.size() && end % grid.Columns() != 0 && cells[end] == cells[first])
                ++end;
            if (cells[first] == rank)
                path += "M" + At(grid.X(first), grid.Y(first) + grid.Cell() / 2) + "h" +
                        Num(static_cast<double>(end - first) * grid.Cell());
            first = end;
        }
        return path;
    }

    static std::string GridGaps(const Grid &grid) {
        std::string path;
        for (std::size_t column = 0; column <= grid.Columns(); ++column)
            path += "M" + At(kGridLeft + static_cast<double>(column) * grid.Cell(), grid.Y(0)) + "v" +
                    Num(static_cast<double>(grid.Rows()) * grid.Cell());
        for (std::size_t row = 0; row <= grid.Rows(); ++row)
            path += "M" + At(kGridLeft, grid.Y(row * grid.Columns())) + "h" +
                    Num(static_cast<double>(grid.Columns()) * grid.Cell());
        return path;
    }

    static std::string Crosses(const Grid &grid, const std::vector<std::size_t> &cells) {
        const double quarter = grid.Cell() / 4;
        const std::string down = Num(2 * quarter);
        const std::string cross = "l" + down + " " + down + "m0 -" + down + "l-" + down + " " + down;
        std::string path;
        for (std::size_t place = 0; place < cells.size() && grid.Cell() >= kCrossedCell; ++place) {
            if (kMarkLooks[cells[place]].mark == BlockMark::Bad)
                path += "M" + At(grid.X(place) + quarter, grid.Y(place) + quarter) + cross;
        }
        return path;
    }

    // The script's lines, one below the other, with their ranges side by side.

    void DrawLines() {
        const std::size_t shown = std::min(m_verdict.lines.size(), kMostLines);
        const Axis axis = FindAxis(shown);
        m_y += 40;
        Write("head", kMargin, m_y, "Script lines and their ranges");
        ExplainRanges();
        m_y += 24;
        ExplainResults();
        m_y += 10;
        DrawAxis(axis, static_cast<double>(shown) * kRow);
        for (std::size_t i = 0; i < shown; ++i) {
            DrawLine(m_verdict.lines[i], axis);
            m_y += kRow;
        }
        if (shown < m_verdict.lines.size()) {
            m_y += kRow;
            Write("dim", kMargin, m_y - 6,
                  "and " + Count(static_cast<std::int64_t>(m_verdict.lines.size() - shown), "more line"));
        }
    }

    /// @return the part of a line's range that is on the flash, in addresses of the chip.
    std::optional<FlashRange> OnChip(const UpdateLine &line) const {
        const auto range = m_flash.RangeOf(line);
        if (!range)
            return std::nullopt;
        const auto place = [&](std::int64_t offset) {
            return static_cast<std::int64_t>(m_flash.OnChip(std::clamp<std::int64_t>(offset, 0, m_flash.Size())));
        };
        return FlashRange{place(range->begin), place(range->end)};
    }

    /// From the first range to the last; over the chip when there is none.
    Axis FindAxis(std::size_t lines) const {
        std::vector<std::int64_t> ends;
        for (std::size_t i = 0; i < lines; ++i) {
            if (const auto range = OnChip(m_verdict.lines[i].line))
                ends.insert(ends.end(), {range->begin, range->end});
        }
        std::sort(ends.begin(), ends.end());
        ends.erase(std::unique(ends.begin(), ends.end()), ends.end());
        if (ends.size() < 2)
            ends = {0, static_cast<std::int64_t>(m_chip.Geometry().size)};
        return Axis(ends);
    }

    void ExplainRanges() {
        double x = kAxisLeft;
        Fill("range", x, m_y - 10, 11, 11);
        x = Explain(x, "range");
        Fill("image", x, m_y - 10, 12, 12);
        x = Explain(x, "filled by its image");
        Trace("lost", "M" + At(x + 5, m_y - 11) + "v14", 2);
        x = Explain(x, "bad block");
        Write("dim code", x, m_y, "(short parts widened)");
    }

    void ExplainResults() {
        double x = kMargin;
        for (std::size_t place = 0; place < std::size(kLineLooks); ++place) {
            if (std::none_of(m_verdict.lines.begin(), m_verdict.lines.end(),
                             [&](const LineVerdict &line) { return LookOf(line) == place; }))
                continue;
            DrawShape(place, x, m_y - 9);
            x = Explain(x, kLineLooks[place].words);
        }
    }

    /// The blocks above the ranges, and the addresses above the blocks.
    void DrawAxis(const Axis &axis, double height) {
        m_y += kLabelHeight;
        std::string rules;
        double free = 0;
        // The first and the last address are shown, and those in between that have room.
        const auto half = [](std::int64_t address) {
            return kCharacter * static_cast<double>(Hex(address).size()) / 2;
        };
        const std::int64_t last = axis.Ends().back();
        for (const std::int64_t end : axis.Ends()) {
            const double x = axis.X(end);
            const bool reachesLast = x + half(end) + kLabelGap > axis.X(last) - half(last);
            if (x - half(end) < free || (end != last && reachesLast))
                continue;
            free = x + half(end) + kLabelGap;
            rules += "M" + At(x, m_y) + "v" + Num(kStrip + 8 + height);
            Write("dim code mid", x, m_y - 4, Hex(end));
        }
        Trace("rule", rules);
        m_body += "<g id=\"strip\">\n";
        for (std::size_t rank = 0; rank < kMarkLooks.size(); ++rank)
            Trace(Class("mark", rank), StripRuns(axis, rank), kStrip);
        m_body += "</g>\n";
        m_y += kStrip + 8;
    }

    /// More important marks are drawn later: they may be wider than their blocks and cover the neighbours.
    std::string StripRuns(const Axis &axis, std::size_t rank) const {
        const auto size = static_cast<std::int64_t>(m_chip.Geometry().eraseSize);
        const auto last = static_cast<std::size_t>((axis.Ends().back() + size - 1) / size);
        std::string path;
        for (auto first = static_cast<std::size_t>(axis.Ends().front() / size); first < last;) {
            std::size_t end = first + 1;
            while (end < last && m_marks[end] == m_marks[first])
                ++end;
            const double x = axis.X(static_cast<std::int64_t>(first) * size);
            if (m_marks[first] == kMarkLooks[rank].mark)
                path += "M" + At(x, m_y + kStrip / 2.0) + "h" +
                        Num(std::max(kNarrowestMark, axis.X(static_cast<std::int64_t>(end) * size) - x));
            first = end;
        }
        return path;
    }

    std::size_t LookOf(const LineVerdict &line) const {
        switch (line.result) {
        case LineResult::Skipped:
            return kPassedOver;
        case LineResult::Failed:
            return kFailed;
        case LineResult::NeverRan:
            return kNeverRan;
        default:
            return std::any_of(m_verdict.findings.begin(), m_verdict.findings.end(),
                               [&](const Finding &finding) {
                                   return finding.line == line.line.number && finding.severity != Severity::Note;
                               })
                       ? kWithFinding
                       : kCarriedOut;
        }
    }

    void DrawLine(const LineVerdict &verdict, const Axis &axis) {
        const UpdateLine &line = verdict.line;
        const std::size_t look = LookOf(verdict);
        m_body += "<g><title>line " + std::to_string(line.number) + ", " + kLineLooks[look].words + ": " +
                  XmlText(line.text, kWholeColumns) + "</title>\n";
        DrawShape(look, kMargin, m_y + 5);
        Write("dim code end", kMargin + 42, m_y + 14, std::to_string(line.number));
        Write("code", kMargin + 50, m_y + 14, XmlText(line.text, kShownColumns));
        if (const auto range = OnChip(line))
            DrawRange(verdict, *range, axis);
        m_body += "</g>\n";
    }

    void DrawRange(const LineVerdict &verdict, const FlashRange &range, const Axis &axis) {
        const double y = m_y + (kRow - kBar) / 2.0;
        const double left = std::min(axis.X(range.begin), kRight - kNarrowestBar);
        const double width = std::max(axis.X(range.end) - left, kNarrowestBar);
        const bool isFailed = verdict.result == LineResult::Failed;
        const bool didRun = verdict.result == LineResult::Clean || isFailed;
        Fill(isFailed ? "range lost" : didRun ? "range" : "range hollow", left, y, width, kBar);
        const std::int64_t filled = ImageEnd(verdict, range);
        if (didRun && filled > range.begin)
            Fill("image", left, y, std::max(axis.X(filled) - left, kNarrowestBar / 2), kBar);
        const auto given = m_flash.RangeOf(verdict.line);
        const std::int64_t size = m_flash.EraseSize();
        std::string bad;
        for (const std::uint32_t block : m_flash.BadBlocks(*given))
            bad += "M" + At(axis.X(block * size + size / 2), y - 2) + "v" + Num(kBar + 4);
        Trace("lost", bad, 2);
        if (given->begin < 0)
            Trace("lost", "M" + At(left - 2, y) + "l-6 6l6 6", 2);
        if (given->end > m_flash.Size())
            Trace("lost", "M" + At(left + width + 2, y) + "l6 6l-6 6", 2);
    }

    /// @return the address after the blocks that a line's image fills, with the bad blocks among them.
    std::int64_t ImageEnd(const LineVerdict &verdict, const FlashRange &range) const {
        std::int64_t address = range.begin;
        for (std::int64_t left = verdict.imageBlocks.value_or(0); left > 0 && address < range.end;
             address += m_flash.EraseSize()) {
            if (!m_chip.IsBad(static_cast<std::uint32_t>(address / m_flash.EraseSize())))
                --left;
        }
        return address;
    }

    void DrawUbi() {
        if (m_verdict.ubi.empty())
            return;
        m_y += 40;
        Write("head", kMargin, m_y, "UBI");
        for (const UbiPartition &partition : m_verdict.ubi) {
            for (const std::string &line : UbiLines(partition)) {
                m_y += kRow;
                Write("dim", kMargin, m_y, XmlText(line, kWholeColumns));
            }
        }
    }

    // The percentages, from left to right.

    void DrawPercentages() {
        const std::vector<int> &percentages = m_verdict.percentages;
        m_y += 40;
        Write("head", kMargin, m_y, "Percentages");
        const int most = percentages.empty() ? 0 : *std::max_element(percentages.begin(), percentages.end());
        Write("dim", kGridLeft + 100, m_y,
              percentages.empty() ? "none was reported"
                                  : Count(static_cast<std::int64_t>(percentages.size()), "report") + ", the highest " +
                                        std::to_string(most) + ", the last " + std::to_string(percentages.back()));
        m_y += 18;
        const int top = std::clamp(most, kWholePercent, kHighestPercent);
        const auto height = [&](int percent) {
            return m_y + kCurveHeight - kCurveHeight * static_cast<double>(std::clamp(percent, 0, top)) / top;
        };
        for (int percent : {0, kWholePercent}) {
            Write("dim code end", kGridLeft - 8, height(percent) + 4, std::to_string(percent));
            Trace(percent == 0 ? "rule" : "rule whole", "M" + At(kGridLeft, height(percent)) + "h" + Num(kCurveWidth));
        }
        const double step = percentages.size() < 2 ? 0 : kCurveWidth / static_cast<double>(percentages.size() - 1);
        std::string points;
        for (std::size_t i = 0; i < percentages.size(); ++i)
            points += (i == 0 ? "M" : "L") + At(kGridLeft + static_cast<double>(i) * step, height(percentages[i]));
        if (percentages.size() == 1)
            points += "h" + Num(kCurveWidth);
        Trace("curve", points);
        m_y += kCurveHeight + kMargin;
    }

    const std::string &m_name;
    const NandChip &m_chip;
    const WholeFlash &m_flash;
    const Verdict &m_verdict;
    const std::vector<BlockMark> m_marks;
    std::string m_body;
    double m_y = kMargin;
};

} // namespace

std::string DrawChip(const std::string &name, const NandChip &chip, const WholeFlash &flash, const Verdict &verdict) {
    return Picture(name, chip, flash, verdict).Draw();
}
