#include "report/ChipPicture.h"
#include "report/ChipMap.h"

#include "../verdict/TestChip.h"

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
struct Rehearsed : TestChip {
    explicit Rehearsed(std::uint32_t count) : TestChip({count * 1024ULL, 1024, 512, 16}, Ecc::Chip) {
        chip.MarkBad(3);
        chip.MarkBad(count - 1);
        for (std::uint32_t block : {8U, 9U, 10U, 62U}) {
            if (block != 9)
                chip.Erase(block);
            if (block != 10)
                Program(block * 2, std::vector<std::uint8_t>(512));
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

    Verdict verdict;
};

/// The groups of a pattern at each place where a text has it.
std::vector<std::vector<std::string>> Matches(const std::string &text, const std::string &pattern) {
    const std::regex regex(pattern);
    std::vector<std::vector<std::string>> matches;
    for (std::sregex_iterator found(text.begin(), text.end(), regex), end; found != end; ++found)
        matches.emplace_back(std::next(found->begin()), found->end());
    return matches;
}

/// The same for numbers.
std::vector<double> Numbers(const std::string &text, const std::string &pattern) {
    std::vector<double> numbers;
    for (const std::vector<std::string> &groups : Matches(text, pattern)) {
        for (const std::string &number : groups)
            numbers.push_back(std::stod(number));
    }
    return numbers;
}

/// How many cells of the chip have each colour.
std::map<size_t, double> CellsByMark(const std::string &svg) {
    const size_t begin = svg.find("<g id=\"blocks\">");
    const std::string blocks = svg.substr(begin, svg.find("</g>", begin) - begin);
    std::map<size_t, double> cells;
    for (const auto &path : Matches(blocks, "class=\"mark(.)\" stroke-width=\"(.*?)\" d=\"(.*?)\"")) {
        for (double width : Numbers(path[2], "h([0-9.]+)"))
            cells[std::stoul(path[0])] += width / std::stod(path[1]);
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
    /// What a pattern finds in the strips of the lines.
    const auto strips = [&](const std::string &pattern) {
        const std::string svg = run.Draw();
        return Numbers(svg.substr(svg.find("<g id=\"strip\">")), pattern);
    };
    /// x and width of each bar.
    const auto bars = [&](const std::string &look) {
        return strips("<rect class=\"" + look + "\" x=\"([0-9.]+)\" y=\"[0-9.]+\" width=\"([0-9.]+)\"");
    };
    // Blocks 2 to 7 with block 3 bad: an image of two blocks ends after block 4.
    run.Add("write 800 1800 image", LineResult::Clean);
    run.verdict.lines[0].imageBlocks = 2;
    const std::vector<double> range = bars("range"), image = bars("image");
    const std::vector<double> lost = strips("class=\"lost\" stroke-width=\"2\" d=\"M([0-9.]+) ");
    ASSERT_TRUE(range.size() == 2 && image.size() == 2 && lost.size() == 1);
    EXPECT_EQ(image[0], range[0]);
    EXPECT_NEAR(image[1], range[1] / 2, 0.1);
    EXPECT_NEAR(lost[0], range[0] + range[1] / 4, 0.1);

    // A line that did not run has no image, and its range is hollow; a failed one is marked.
    run.verdict.lines[0].result = LineResult::NeverRan;
    EXPECT_EQ(bars("(?:image|range)").size(), 0U);
    EXPECT_EQ(bars("range hollow").size(), 2U);
    run.verdict.lines[0].result = LineResult::Failed;
    EXPECT_EQ(bars("range lost").size(), 2U);

    // Ranges that leave the flash have an arrow beside the end that is off the flash, and only there.
    const struct {
        const char *script;
        bool left, right;
    } rows[] = {{"erase 800 1800", false, false}, {"erase 800 10000", false, true}, {"erase -400 800", true, false}};
    for (const auto &row : rows) {
        run.verdict.lines.clear();
        run.Add(row.script, LineResult::Failed);
        EXPECT_EQ(run.Draw().find("l-6 6l6 6\"") != std::string::npos, row.left) << row.script;
        EXPECT_EQ(run.Draw().find("l6 6l-6 6\"") != std::string::npos, row.right) << row.script;
    }
}

TEST(ChipPicture, LegendExplainsWhatIsDrawnAndNothingElse) {
    Rehearsed run(64);
    const auto shows = [&](const std::string &text) {
        return run.Draw().find(">" + text + "</text>") != std::string::npos;
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
    run.verdict.findings = {ForLine(run.verdict.lines[0].line, FindingId::NoEcc, "a note")};
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
