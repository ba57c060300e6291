// What reports say of time: when a change was made, by which line, and how long a sweep takes yet.

#include "cli/ProgressBar.h"
#include "mtd/RunTimeline.h"
#include "mtd/SimState.h"
#include "mtd/Trace.h"
#include "mtd/UpdaterRecord.h"
#include "verdict/LineFinder.h"

#include "../ubi/MemoryChip.h"

#include <gtest/gtest.h>

namespace {

RunChange Erase(std::uint32_t block, bool isByProgram = true) { return {AccessKind::Erase, isByProgram, block}; }

RunChange Program(std::uint32_t page, bool isByProgram = true) { return {AccessKind::Program, isByProgram, page}; }

} // namespace

TEST(ProgressText, HasTheRateAndTheRemainingTimeOnceSomethingIsDone) {
    const struct {
        std::size_t done, total;
        double seconds;
        const char *text;
    } rows[] = {{0, 40, 9, "0 of 40"},
                {3, 40, 0, "3 of 40"},
                {3, 40, 2, "3 of 40, 1.5/s, 25 s left"},
                {100, 1000, 10, "100 of 1000, 10/s, 90 s left"},
                {1, 120, 1, "1 of 120, 1.0/s, 119 s left"},
                {1, 121, 1, "1 of 121, 1.0/s, 2 min left"},
                {1, 7200, 1, "1 of 7200, 1.0/s, 119 min left"},
                {1, 11101, 1, "1 of 11101, 1.0/s, 3 h 5 min left"},
                {40, 40, 8, "40 of 40, 5.0/s, 0 s left"}};
    for (const auto &row : rows)
        EXPECT_EQ(ProgressText(row.done, row.total, row.seconds), row.text);
}

TEST(RunTimeline, CountsChangesAheadOfEachEvent) {
    const std::string mark(1, kRecordMark);
    const auto printed = [&](RecordKind kind, const std::string &text) {
        return mark + RecordLine(kind, text.data(), text.size()) + "\n";
    };
    const RunChange write = {AccessKind::Program, true, 129, true, true, false};
    const RunTimeline timeline(printed(RecordKind::Out, "a\n\1") + "open mtd0 O_RDWR = 3\n" + mark +
                               Erase(2, false).Line() + "\nMEMERASE64 mtd0 start=0x40000 length=0x20000 = 0\n" + mark +
                               write.Line() + "\n" + mark + RunChange{AccessKind::MarkBad, true, 5}.Line() +
                               "\nMEMWRITE mtd0 = -1 EIO\n" + ShellCallText("./notify \"50\"\n") + "\n" +
                               printed(RecordKind::Err, "no") + mark + "c\n" + mark +
                               "c1 \n\nunknown\nMEMWRITE mtd0 = 0\n");
    ASSERT_EQ(timeline.changes.size(), 2U);
    EXPECT_TRUE(timeline.changes[0].kind == AccessKind::Erase && !timeline.changes[0].isByProgram);
    const RunChange &program = timeline.changes[1];
    EXPECT_TRUE(program.kind == AccessKind::Program && program.isByProgram && program.place == 129);
    EXPECT_TRUE(program.withEcc && program.hasData && !program.hasOob);
    ASSERT_EQ(timeline.badMarks.size(), 1U);
    EXPECT_EQ(timeline.badMarks[0].time, 2U);
    EXPECT_EQ(timeline.badMarks[0].block, 5U);
    ASSERT_EQ(timeline.outputs.size(), 2U);
    EXPECT_TRUE(timeline.outputs[0].time == 0 && !timeline.outputs[0].isError && timeline.outputs[0].text == "a\n\1");
    EXPECT_TRUE(timeline.outputs[1].time == 2 && timeline.outputs[1].isError && timeline.outputs[1].text == "no");
    ASSERT_EQ(timeline.commands.size(), 1U);
    EXPECT_TRUE(timeline.commands[0].time == 2 && timeline.commands[0].command == "./notify \"50\"\n");
    // A request is as early as its first change.
    using Times = std::vector<std::size_t>;
    EXPECT_EQ(timeline.requests[static_cast<std::size_t>(RequestKind::Open)], Times({0}));
    EXPECT_EQ(timeline.requests[static_cast<std::size_t>(RequestKind::Erase64)], Times({0}));
    EXPECT_EQ(timeline.requests[static_cast<std::size_t>(RequestKind::WritePage)], Times({1, 2}));
}

TEST(LineFinder, GivesEachChangeToTheLineThatMakesIt) {
    const MemoryChip memory(16); // blocks of 64 pages
    const std::vector<SimDevice> devices = {{0, "all", 0, 0x200000}, {1, "opt", 0x100000, 0x100000}};
    const std::vector<UpdateLine> lines = ReadUpdateLines("# 1\nwrite 0 40000 a\nwrite 40000 40000 missing\n"
                                                          "write 0 40000 b\nsetenv a 1\nubiformat /dev/mtd1 c\n"
                                                          "erase 40000 20000\n");
    ASSERT_EQ(lines.size(), 6U);
    RunStory story;
    story.lines.resize(lines.size());
    story.lines[1].result = LineResult::Skipped;
    LineFinder finder(memory.chip, devices, lines, story);
    EXPECT_EQ(finder.Number(), 0U);
    const struct {
        RunChange change;
        std::size_t line;
    } rows[] = {{Erase(0), 2},          {Erase(1), 2},        {Program(0), 2},
                {Program(127), 2},      {Erase(1), 4},                       // again: another line
                {Program(64), 4},       {Erase(8, false), 5},                // the first line that starts programs
                {Program(0, false), 5}, {Erase(8, false), 6}, {Erase(2), 7}, // the skipped line's range
                {Program(0, false), 7}};                                     // of a program that keeps on running
    for (const auto &row : rows)
        EXPECT_EQ(finder.Change(row.change), row.line) << row.change.Line();
}
