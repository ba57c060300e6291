#include "board/RunDiff.h"

#include "../verdict/TestChip.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

namespace {

constexpr NandGeometry kRunGeometry = {1 << 20, 16384, 512, 16};

/// A run that erased block 1 and programmed its first page, with a note as its only finding.
struct Rehearsed : TestChip {
    Rehearsed() : TestChip(kRunGeometry) {
        chip.Erase(1);
        Program(32, {'d'});
        record.updater.out = "running\n####17###\n";
        record.status = 0;
        verdict.percentages = {50, 100};
        Find(FindingId::NotifyFailed);
    }
    void Find(FindingId id) { verdict.findings.push_back(ForRun(id, "happens")); }

    RunRecord record;
    Verdict verdict;
};

std::string Difference(const Rehearsed &simulator, const Rehearsed &board) {
    return FirstDifference({simulator.record, simulator.verdict, simulator.chip},
                           {board.record, board.verdict, board.chip});
}

/// A page that begins as a header of UBI, with these image number, CRC of the header and byte after both.
void ProgramHeader(Rehearsed &run, std::uint8_t number, std::uint8_t crc, std::uint8_t after) {
    std::vector<std::uint8_t> header(65);
    std::copy_n("UBI#", 4, header.begin());
    header[24] = number;
    header[63] = crc;
    header[64] = after;
    run.Program(64, header);
}

} // namespace

TEST(RunDiff, NamesTheFirstDifferenceOfBoardAndSimulator) {
    const struct {
        std::function<void(Rehearsed &)> change; ///< of the board's run
        const char *difference;
    } rows[] = {
        {[](Rehearsed &) {}, ""},
        {[](Rehearsed &run) { run.record.status = 9; }, "end: exit status 0 on the simulator, signal 9 on the board"},
        {[](Rehearsed &run) { run.record.cutPlace = "MEMWRITE at 0x800"; },
         "power cut: '' on the simulator, 'MEMWRITE at 0x800' on the board"},
        {[](Rehearsed &run) { run.record.updater.out = "running\n####5###\n"; }, ""},
        {[](Rehearsed &run) { run.record.updater.out = "running\n####5##\n"; },
         "the updater's output, line 2: \"####?###\" on the simulator, \"####5##\" on the board"},
        {[](Rehearsed &run) { run.record.updater.out += "more\n"; },
         "the updater's output, line 3: nothing on the simulator, \"more\" on the board"},
        {[](Rehearsed &run) { run.record.updater.err = "x\n"; },
         "the updater's error output, line 1: nothing on the simulator, \"x\" on the board"},
        {[](Rehearsed &run) {
             run.verdict.percentages = {50, 99};
         },
         "percentage 2: \"100\" on the simulator, \"99\" on the board"},
        {[](Rehearsed &run) { run.chip.SetBad(3); }, "block 3: good on the simulator, bad on the board"},
        {[](Rehearsed &run) { run.Program(32, {0x24}); },
         "flash, byte 0 of the page at 0x4000: 0x64 on the simulator, 0x24 on the board"},
        {[](Rehearsed &run) { run.Program(63, {}, std::vector<std::uint8_t>(6, 0xFE)); },
         "flash, OOB byte 0 of the page at 0x7e00: 0xff on the simulator, 0xfe on the board"},
        {[](Rehearsed &run) { ProgramHeader(run, 1, 1, 0); },
         "flash, byte 0 of the page at 0x8000: 0xff on the simulator, 0x55 on the board"},
        {[](Rehearsed &run) { run.Find(FindingId::Percentages); },
         "finding 2: nothing on the simulator, \"line 0: happens [percentages]\" on the board"},
        {[](Rehearsed &run) {
             for (const FindingId id :
                  {FindingId::ReplacedProgram, FindingId::EnvironmentUnreadable, FindingId::UnexpectedFile})
                 run.Find(id);
         },
         ""},
    };
    const Rehearsed simulator;
    for (const auto &row : rows) {
        Rehearsed board;
        row.change(board);
        EXPECT_EQ(Difference(simulator, board), row.difference);
    }
}

TEST(RunDiff, LeavesOutTheMessageOfAnotherProgramInAFindingAboutTheStart) {
    const auto difference = [](const char *happens) {
        Rehearsed simulator, board;
        simulator.verdict.findings = {ForRun(FindingId::NotStarted, "no script: Killed")};
        board.verdict.findings = {ForRun(FindingId::NotStarted, happens)};
        return Difference(simulator, board);
    };
    EXPECT_EQ(difference("no script: no message"), "");
    EXPECT_EQ(difference("no command: Killed"), "finding 1: \"line 0: no script [not-started]\" on the simulator, "
                                                "\"line 0: no command [not-started]\" on the board");
}

TEST(RunDiff, LeavesOutWhatDiffersInEachRunAndTheContentsOfBadBlocks) {
    Rehearsed simulator;
    ProgramHeader(simulator, 1, 2, 3);
    simulator.chip.SetBad(9);
    const auto difference = [&simulator](std::uint8_t after) {
        Rehearsed board;
        ProgramHeader(board, 4, 8, after);
        board.Program(9 * 32, {'x'});
        board.chip.SetBad(9);
        return Difference(simulator, board);
    };
    EXPECT_EQ(difference(3), "");
    EXPECT_EQ(difference(1), "flash, byte 64 of the page at 0x8000: 0x3 on the simulator, 0x1 on the board");
}
