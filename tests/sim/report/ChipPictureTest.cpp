#include "report/ChipPicture.h"
#include "report/ChipMap.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/// A chip with two bad blocks, one erased, two written, one written without erase; and what was to be done on it.
struct Rehearsed {
    explicit Rehearsed(std::uint32_t blocks)
        : geometry{blocks * 1024ULL, 1024, 512, 16}, cells(geometry.RawSize()), pages(geometry.Pages()), states(blocks),
          chip(geometry, Ecc::Chip, {cells.data(), pages.data(), states.data()}) {
        chip.Format();
        chip.MarkBad(3);
        chip.MarkBad(blocks - 1);
        const std::vector<std::uint8_t> data(512);
        NandChip::PageProgram program;
        program.data = data.data();
        program.length = 512;
        for (std::uint32_t block : {8U, 9U, 10U, 62U}) {
            if (block != 9)
                chip.Erase(block);
            if (block != 10)
                chip.Program(block * 2, program);
        }
    }

    void Add(const std::string &script, LineResult result) {
        for (const UpdateLine &line : ReadUpdateLines(script)) {
            verdict.lines.emplace_back();
            verdict.lines.back().line = line;
            verdict.lines.back().result = result;
        }
    }

    std::string Draw() const { return DrawChip("A&B \xc3\xa4", chip, WholeFlash(chip, {}), verdict); }

    NandGeometry geometry;
    std::vector<std::uint8_t> cells, pages, states;
    NandChip chip;
    Verdict verdict;
};

/// What a pattern finds in a text, in its order: numbers.
std::vector<double> Numbers(const std::string &text, const char *pattern) {
    const std::regex regex(pattern);
    std::vector<double> numbers;
    for (std::sregex_iterator found(text.begin(), text.end(), regex), end; found != end; ++found)
        numbers.push_back(std::stod((*found)[1]));
    return numbers;
}

/// How many cells of the chip have each colour.
std::map<size_t, double> CellsByMark(const std::string &svg) {
    const size_t begin = svg.find("<g id=\"blocks\">");
    const std::string blocks = svg.substr(begin, svg.find("</g>", begin) - begin);
    const std::regex path("class=\"mark(.)\" stroke-width=\"(.*?)\" d=\"(.*?)\"");
    std::map<size_t, double> cells;
    for (std::sregex_iterator found(blocks.begin(), blocks.end(), path), end; found != end; ++found) {
        for (double width : Numbers((*found)[3], "h([0-9.]+)"))
            cells[std::stoul((*found)[1])] += width / std::stod((*found)[2]);
    }
    return cells;
}

} // namespace

TEST(ChipPicture, ShowsEachBlockByWhatHasBecomeOfIt) {
    for (std::uint32_t blocks : {64U, 8192U}) {
        const std::map<size_t, double> expected = {{0, blocks - 6}, {1, 1}, {2, 2}, {3, 2}, {4, 1}};
        EXPECT_EQ(CellsByMark(Rehearsed(blocks).Draw()), expected);
    }
    // Two blocks a cell: 8 and 9 as well as 10 and its neighbour share one.
    const std::map<size_t, double> pairs = {{0, 8192 - 5}, {1, 1}, {2, 1}, {3, 2}, {4, 1}};
    EXPECT_EQ(CellsByMark(Rehearsed(16384).Draw()), pairs);
}

TEST(ChipPicture, IsSoundXmlForAnyScript) {
    Rehearsed run(64);
    run.Add("setenv a <&\"'>\x01\xff\xed\xa0\x80\xef\xbf\xbf]]>\nfrob \xc3\xb6 \xe2\x82\xac\xf0\x9f\x92\xbe\xc3",
            LineResult::NeverRan);
    run.Add("erase 800000 -7fffffff\nerase -400 800\nwrite 7ffc00 7fffffff image\nwrite 0 400 " +
                std::string(9999, 'x'),
            LineResult::Failed);
    run.verdict.percentages = {-2147483647, 2147483647};
    const std::string svg = run.Draw();
    const std::string path = testing::TempDir() + "picture" + std::to_string(getpid()) + ".svg";
    std::ofstream(path, std::ios::binary) << svg;
    EXPECT_EQ(system(("python3 -c 'import sys,xml.dom.minidom as x;x.parse(sys.argv[1])' " + path).c_str()), 0);
    unlink(path.c_str());
    for (const char *text : {"<title>A&#38;B \xc3\xa4 on a chip of 64 KiB</title>",
                             ">setenv a &#60;&#38;&#34;'&#62;\\x01\\xff\\xed\\xa0\\x80\\xef",
                             ">frob \xc3\xb6 \xe2\x82\xac\xf0\x9f\x92\xbe\\xc3</text>"})
        EXPECT_NE(svg.find(text), std::string::npos) << text;
    EXPECT_LT(svg.size(), 9999U);
}

TEST(ChipPicture, KeepsTinyRangesVisibleAndTheirAddressesApart) {
    Rehearsed run(8192);
    for (int line = 0; line < 16; ++line)
        run.Add("erase " + std::to_string(line) + "800 400", LineResult::Clean);
    run.Add("erase 400000 400000", LineResult::Clean);
    const std::string svg = run.Draw();
    const std::vector<double> widths = Numbers(svg.substr(svg.find("\"strip\"")), "\"range\".* width=\"(.*?)\"");
    ASSERT_EQ(widths.size(), run.verdict.lines.size());
    EXPECT_GE(*std::min_element(widths.begin(), widths.end()), 4);
    const std::vector<double> labels = Numbers(svg, "\"dim code mid\" x=\"(.*?)\"");
    ASSERT_GE(labels.size(), 4U);
    for (size_t i = 1; i < labels.size(); ++i)
        EXPECT_GE(labels[i] - labels[i - 1], 7 * 6 + 8); // "0x1800" and a gap
}

TEST(ChipPicture, ShowsPercentagesBetweenTheirMarks) {
    Rehearsed run(64);
    EXPECT_NE(run.Draw().find(">none was reported<"), std::string::npos);
    run.verdict.percentages = {0, 100, 50, 120};
    const std::string svg = run.Draw();
    const std::vector<double> marks = Numbers(svg, "class=\"rule(?: whole)?\" d=\"M106 ([0-9.]+)h");
    const std::vector<double> curve = Numbers(svg.substr(svg.find("class=\"curve\"")), "[ML][0-9.]+ ([0-9.]+)");
    ASSERT_EQ(curve.size(), 4U);
    EXPECT_EQ(marks, (std::vector<double>{curve[0], curve[1]}));
    EXPECT_GT(curve[2], curve[1]);
    EXPECT_LT(curve[3], curve[1]);
}

TEST(ChipPicture, DrawsImagesBadBlocksAndArrowsWhereTheRangesAre) {
    Rehearsed run(64);
    const auto bars = [&](const char *look) {
        const std::string svg = run.Draw();
        const std::string lines = svg.substr(svg.find("<g id=\"strip\">"));
        const std::string row =
            std::string("<rect class=\"") + look + "\" x=\"([0-9.]+)\" y=\"[0-9.]+\" width=\"([0-9.]+)\"";
        const std::regex regex(row);
        std::vector<std::pair<double, double>> found;
        for (std::sregex_iterator at(lines.begin(), lines.end(), regex), end; at != end; ++at)
            found.emplace_back(std::stod((*at)[1]), std::stod((*at)[2]));
        return found;
    };
    // Blocks 2 to 7 with block 3 bad: an image of two blocks ends after block 4.
    run.Add("write 800 1800 image", LineResult::Clean);
    run.verdict.lines[0].imageBlocks = 2;
    ASSERT_EQ(bars("range").size(), 1U);
    ASSERT_EQ(bars("image").size(), 1U);
    EXPECT_EQ(bars("image")[0].first, bars("range")[0].first);
    EXPECT_NEAR(bars("image")[0].second, bars("range")[0].second / 2, 0.1);
    const auto lost = [&] {
        const std::string svg = run.Draw();
        return Numbers(svg.substr(svg.find("<g id=\"strip\">")), "class=\"lost\" stroke-width=\"2\" d=\"M([0-9.]+) ");
    };
    ASSERT_EQ(lost().size(), 1U);
    EXPECT_NEAR(lost()[0], bars("range")[0].first + bars("range")[0].second / 4, 0.1);

    // A line that did not run has no image, and its range is hollow; a failed one is marked.
    run.verdict.lines[0].result = LineResult::NeverRan;
    EXPECT_EQ(bars("image").size() + bars("range").size(), 0U);
    EXPECT_EQ(bars("range hollow").size(), 1U);
    run.verdict.lines[0].result = LineResult::Failed;
    EXPECT_EQ(bars("range lost").size(), 1U);

    // Ranges that leave the flash have an arrow beside the end that is off the flash, and only there.
    const char *kLeft = "l-6 6l6 6\"", *kRight = "l6 6l-6 6\"";
    EXPECT_EQ(run.Draw().find(kLeft) + 1 + run.Draw().find(kRight) + 1, 0U);
    Rehearsed above(64);
    above.Add("erase 800 10000", LineResult::Failed);
    EXPECT_NE(above.Draw().find(kRight), std::string::npos);
    EXPECT_EQ(above.Draw().find(kLeft), std::string::npos);
    Rehearsed below(64);
    below.Add("erase -400 800", LineResult::Failed);
    EXPECT_NE(below.Draw().find(kLeft), std::string::npos);
    EXPECT_EQ(below.Draw().find(kRight), std::string::npos);
}

TEST(ChipPicture, LegendExplainsWhatIsDrawnAndNothingElse) {
    Rehearsed run(64);
    const auto legend = [&] {
        const std::string svg = run.Draw();
        std::vector<std::string> words;
        const std::regex regex(">([^<]*)</text>");
        for (std::sregex_iterator at(svg.begin(), svg.end(), regex), end; at != end; ++at)
            words.push_back((*at)[1]);
        return words;
    };
    const auto shows = [&](const std::string &text) {
        const std::vector<std::string> words = legend();
        return std::find(words.begin(), words.end(), text) != words.end();
    };
    for (const char *text : {"untouched 58", "erased 1", "written 2", "bad 2", "written without erase 1", "range",
                             "filled by its image", "bad block"})
        EXPECT_TRUE(shows(text)) << text;
    const struct {
        LineResult result;
        const char *words;
    } rows[] = {{LineResult::Clean, "carried out"},
                {LineResult::Skipped, "skipped"},
                {LineResult::Failed, "failed"},
                {LineResult::NeverRan, "never ran"}};
    for (const auto &row : rows)
        EXPECT_FALSE(shows(row.words)) << row.words;
    for (const auto &row : rows) {
        run.verdict.lines.clear();
        run.Add("erase 0 400", row.result);
        for (const auto &other : rows)
            EXPECT_EQ(shows(other.words), &other == &row) << row.words << ", " << other.words;
        EXPECT_NE(run.Draw().find(std::string("<title>line 1, ") + row.words + ": erase 0 400</title>"),
                  std::string::npos);
    }
    run.verdict.lines[0].result = LineResult::Clean;
    Finding finding;
    finding.line = 1;
    finding.severity = Severity::Note;
    run.verdict.findings = {finding};
    EXPECT_TRUE(shows("carried out"));
    run.verdict.findings[0].severity = Severity::Warning;
    EXPECT_TRUE(shows("carried out, with findings"));
    EXPECT_FALSE(shows("carried out"));
}

TEST(ChipMap, FitsAChipOfAnySizeToTheTerminal) {
    std::vector<BlockMark> marks(64, BlockMark::Untouched);
    marks[1] = BlockMark::Written;
    marks[2] = BlockMark::Bad;
    marks[63] = BlockMark::WrittenWithoutErase;
    EXPECT_EQ(ChipMap(marks, 0x20000).Text(60, false), "            +0               +0x200000\n"
                                                       "0x00000000  .#X............. ................\n"
                                                       "0x00400000  ................ ...............!\n"
                                                       ". untouched 61  # written 1  X bad 1\n"
                                                       "! written without erase 1\n"
                                                       "one cell = 1 block of 128 KiB\n");
    EXPECT_NE(ChipMap(marks, 0x20000).Text(80, true).find("#\033[0m\033[1;37;41mX\033[0m\033[2m...."),
              std::string::npos);
    marks.resize(8192, BlockMark::Erased);
    for (size_t width = 40; width <= 200; ++width) {
        const std::string map = ChipMap(marks, 0x20000).Text(width, false);
        EXPECT_NE(map.find("\n0x00000000  X"), std::string::npos) << map;
        for (size_t start = 0; start < map.size(); start = map.find('\n', start) + 1)
            EXPECT_LE(map.find('\n', start) - start, width) << map;
    }
    EXPECT_NE(ChipMap(marks, 0x20000).Text(80, false).find("one cell = 8 blocks of 128 KiB"), std::string::npos);
}
