#include "verdict/RunStory.h"

#include <gtest/gtest.h>

namespace {

const std::string kStart = "running update script /u/flashrig.script\n";

/// One line of text for each script line: the first letter of its result, "+" when its image was read to the end, what
/// the updater said of it, its warnings in brackets and the statuses of its programs.
std::string Describe(const RunStory &story) {
    std::string text;
    for (const LineStory &line : story.lines) {
        text += "CSFN"[static_cast<std::size_t>(line.result)];
        text += line.readsToTheEnd ? "+" : "";
        text += line.complaint.empty() ? "" : " " + line.complaint;
        for (const std::string &other : line.others)
            text += " [" + other + "]";
        for (const auto &[program, status] : line.exits)
            text += " " + program + "=" + std::to_string(status);
        text += "\n";
    }
    return text;
}

std::string Follow(const char *script, const std::string &out, const std::string &err, bool wasCut = false) {
    return Describe(FollowRun(ReadUpdateLines(script), out, err, wasCut));
}

std::string Begun(const std::string &name) { return "write /u/" + name + " to flash address 0\nerase complete\n"; }
const std::string kWriteDone = "write file complete\n";
const std::string kFailedErase = "error : erase failed at 0\n";
const std::string kBadBlock = "warning : skip bad block at 0\n";
const std::string kUnknown = "Unknown script command burn\n";
const std::string kUbi = "ubiformat /u/i to <MTD> /dev/mtd9\n";

} // namespace

TEST(RunStory, GivesEachMessageToItsLine) {
    const struct {
        const char *script;
        std::string err;
        const char *story;
        bool wasCut = false;
    } rows[] = {
        // Nothing was said: the line was not reached.
        {"erase 0 1\nerase 0 1", "", "N\nN\n"},
        {"erase 0 1\nerase 0 1", "erase complete\n", "C\nN\n"},
        {"erase 0 1\nerase 0 1", kBadBlock + "erase complete\n" + kBadBlock + kFailedErase + "erase complete\n",
         "C [warning : skip bad block at 0]\nF error : erase failed at 0 [warning : skip bad block at 0]\n"},
        {"erase 1 1", "error : invalid offset=1, blocksize = 2\n", "F error : invalid offset=1, blocksize = 2\n"},
        {"setenv a b\nsetenv 0 1 a b", "write a = b to env\n" + kBadBlock + "write a = b to env\n",
         "C\nC [warning : skip bad block at 0]\n"},
        {"setenv 0 1 a b\nsetenv a b", kBadBlock + "error : read failed at 0\nwrite a = b to env\nwrite a = b to env\n",
         "F error : read failed at 0 [warning : skip bad block at 0]\nC\n"},
        // A write ends with its own message, or silently at the end of the flash.
        {"write 0 1 i\nerase 0 1", Begun("i") + kBadBlock + kWriteDone + kBadBlock + "erase complete\n",
         "C+ [warning : skip bad block at 0]\nC [warning : skip bad block at 0]\n"},
        {"write 0 1 i\nerase 0 1", Begun("i") + "erase complete\n", "C\nC\n"},
        {"write 0 1 i\nwrite 0 1 j", Begun("i") + Begun("j") + kWriteDone, "C\nC+\n"},
        {"write 0 1 i", Begun("i"), "C\n"},
        {"write 0 1 i\nerase 0 1", Begun("i"), "F\nN\n"},
        {"write 0 1 i", Begun("i") + "error : write page return -1\n", "F error : write page return -1\n"},
        {"write 0 1 i", "write /u/i to flash address 0\n", "F\n"},
        // The closing line of a write's own erase is no other erase's.
        {"write 0 1 i\nerase 0 1", "write /u/i to flash address 0\n" + kFailedErase + "erase complete\n",
         "F error : erase failed at 0\nN\n"},
        {"write 0 0 i", Begun("i"), "F\n"},
        {"writeoob a0 1 i", "write /u/i to flash address a0\nerase complete\n" + kWriteDone, "C+\n"},
        // A write of another address or another file is another line's.
        {"write 10 1 i", Begun("i") + kWriteDone, "N\n"},
        {"write 0 1 i", Begun("j") + kWriteDone, "N\n"},
        // Skipped lines. The updater names unknown ones once when it counts, and again when it comes to them.
        {"burn\nburn\nerase 0 1", kUnknown + kUnknown + kUnknown + kUnknown + "erase complete\n",
         "S Unknown script command burn\nS Unknown script command burn\nC\n"},
        {"burn\nerase 0 1", kUnknown, "N\nN\n"},
        {" write 0\t1 \nwrite 0 1 i\nerase 0 1",
         "incomplete script command  write 0\t1 \nThe switch to root user failed!/u/i doesn't exist\nerase complete\n",
         "S incomplete script command  write 0\t1 \nS /u/i doesn't exist\nC\n"},
        // Other programs' output may precede a message in its line.
        {"erase 0 1", "50%error : erase failed at 0\n 90%erase complete\n", "F error : erase failed at 0\n"},
        {"write 0 1 i\nburn",
         kUnknown + "error : no such tool\n 7%" + Begun("i") + "\r50%" + kWriteDone + "see: " + kUnknown,
         "C+\nS Unknown script command burn\n"},
        {"erase 0 1", "erase complete at last\n", "N\n"},
        // An exception ends a command without a closing message.
        {"setenv 0 1 a b\nerase 0 1", "error : std::bad_alloc\n", "F error : std::bad_alloc\nN\n"},
        // The line in progress of a run that was cut has failed.
        {"erase 0 1\nerase 0 1\nerase 0 1", "erase complete\n", "C\nF\nN\n", true},
        {"write 0 1 i", Begun("i"), "F\n", true},
        {"write 0 1 i", Begun("i") + kWriteDone, "C+\n", true},
        {"erase 0 1", kFailedErase, "F error : erase failed at 0\n", true},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Follow(row.script, kStart, row.err, row.wasCut), row.story) << row.script << "\n" << row.err;
}

TEST(RunStory, FollowsUbiformatByBothStreams) {
    const std::string prepares = "prepare ubi ...\n";
    const std::string prepared = "execute /bin/sh status 3\n";
    const std::string formatted = "execute /tmp/update/ubiformat status 512\n";
    const char *script = "ubiformat /dev/mtd9 i\nerase 0 1";
    const struct {
        std::string out;
        std::string err;
        const char *story;
    } rows[] = {
        {prepares + prepared + formatted, "erase complete\n",
         "C /tmp/update/prepare.sh=3 /tmp/update/ubiformat=512\nC\n"},
        {prepares + prepared + formatted, "", "C /tmp/update/prepare.sh=3 /tmp/update/ubiformat=512\nN\n"},
        {prepares + prepared, "", "F /tmp/update/prepare.sh=3\nN\n"},
        {"", "", "F\nN\n"},
        // Statuses ahead of the preparation are other programs' output.
        {prepared + formatted, "", "F\nN\n"},
        {prepared + formatted + prepares, "", "F\nN\n"},
        {"", "noise\ndev /dev/mtd9 is not exist\n", "F dev /dev/mtd9 is not exist\nN\n"},
        {"", "/u/i is not exist\n", "F /u/i is not exist\nN\n"},
        {"", "dev /dev/mtd8 is not exist\n", "F\nN\n"},
        {prepares, "error : popen() failed!\n", "F error : popen() failed!\nN\n"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Follow(script, kStart + row.out, kUbi + row.err), row.story) << row.out << row.err;
    // Each of two lines has its own statuses.
    EXPECT_EQ(Follow("ubiformat /dev/mtd9 i\nubiformat /dev/mtd9 i",
                     kStart + prepares + "execute /bin/sh status 0\n" + formatted + prepares + prepared +
                         "execute /tmp/update/ubiformat status 0\n",
                     kUbi + kUbi),
              "C /tmp/update/prepare.sh=0 /tmp/update/ubiformat=512\n"
              "C /tmp/update/prepare.sh=3 /tmp/update/ubiformat=0\n");
}

TEST(RunStory, ReadsTheStartOfARun) {
    const std::vector<UpdateLine> lines = ReadUpdateLines("erase 0 1");
    const std::string longLine = "script line 2 of 300 characters, the limit is 255";
    const std::string longScript = "script of 4096 characters, the limit is 4095";
    const struct {
        std::string out, err;
        const char *handOver, *folder;
        std::string refusal, story;
    } rows[] = {
        {"", "erase complete\n", "", "", "", "N\n"},
        {"noise\nnew program detected, running /u/flashrig /u\n12%" + kStart, "erase complete\n", "/u/flashrig /u",
         "/u/", "", "C\n"},
        {kStart, "error : " + longLine + "\n", "", "/u/", longLine, "N\n"},
        {kStart, "error : " + longScript + "\n", "", "/u/", longScript, "N\n"},
        // After an error of a line, another program may say what it likes.
        {kStart, kFailedErase + "error : " + longLine + "\nerase complete\n", "", "/u/", "",
         "F error : erase failed at 0\n"},
    };
    for (const auto &row : rows) {
        const RunStory story = FollowRun(lines, row.out, row.err, false);
        EXPECT_EQ(story.hasStarted, !row.out.empty());
        EXPECT_EQ(story.handOver, row.handOver);
        EXPECT_EQ(story.folder, row.folder);
        EXPECT_EQ(story.refusal, row.refusal);
        EXPECT_EQ(Describe(story), row.story);
    }
}
