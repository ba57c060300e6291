#include "verdict/Verdict.h"
#include "UEnvTool.h"
#include "report/Report.h"
#include "verdict/UsedChip.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace {

/// A rehearsed run that never took place: its texts are given, its chip has 64 blocks of 16 KiB.
struct Rehearsed {
    explicit Rehearsed(const std::string &script, const std::string &err = "") {
        record.script = script;
        record.files = {{"empty", 0},          {"one", 0x4000},  {"two", 0x4001},
                        {"raw", 32 * 528 + 1}, {"full", 0x8000}, {"pipe", -1}};
        record.devices = {{9, "opt", 0x80000, 0x78000}, {12, "all", 0, 0x100000}};
        record.out = "running update script /u/flashrig.script\n";
        record.err = err;
        chip.Format();
        // Every page but those of the device opt is written, be it with nothing.
        NandChip::PageProgram blank;
        const std::uint8_t byte = 0xFF;
        blank.data = &byte;
        blank.length = 1;
        for (std::uint32_t page = 0; page < kGeometry.Pages(); ++page) {
            if (page >= 32 * 32 && page < 62 * 32)
                continue;
            if (page % 32 == 0)
                chip.Erase(page / 32);
            chip.Program(page, blank);
        }
    }

    /// What happens and what to change, by finding, of one kind.
    std::string Texts(const std::string &kind) const {
        std::string texts;
        for (const Finding &finding : Judged().findings)
            texts += finding.kind == kind ? finding.happens + "; " + finding.change + "\n" : "";
        return texts;
    }

    Verdict Judged() const { return Judge(RunFacts(record, chip)); }

    /// The results of the lines by their first letters, then the findings: "CSFN 0:crashed 3:erase-failed".
    std::string Told() const {
        const Verdict verdict = Judged();
        std::string told;
        for (const LineVerdict &line : verdict.lines)
            told += "CSFN"[static_cast<std::size_t>(line.result)];
        for (const Finding &finding : verdict.findings)
            told += " " + std::to_string(finding.line) + ":" + finding.kind;
        return told;
    }

    RunRecord record;
    static constexpr NandGeometry kGeometry = {0x100000, 0x4000, 512, 16};
    std::vector<std::uint8_t> cells = std::vector<std::uint8_t>(kGeometry.RawSize());
    std::vector<std::uint8_t> pageStates = std::vector<std::uint8_t>(kGeometry.Pages());
    std::vector<std::uint8_t> blockStates = std::vector<std::uint8_t>(kGeometry.Blocks());
    NandChip chip{kGeometry, Ecc::Chip, {cells.data(), pageStates.data(), blockStates.data()}};
};

/// What the updater says of an erase, and of a write up to where its image is read.
std::string Erased(const std::string &offset, const std::string &size) {
    return "erase complete\n offset=" + offset + " size=" + size + "\n";
}
std::string Begun(const std::string &name, const std::string &offset, const std::string &size) {
    return "write /u/" + name + " to flash address " + offset + "\n" + Erased(offset, size);
}
const std::string kDone = "write file complete\n read size = 1\n";
const std::string kNotify = "system \"/tmp/update/progress_script.sh ";

std::string Percentages(const std::vector<int> &percentages) {
    std::string trace;
    for (int percent : percentages)
        trace += kNotify + std::to_string(percent) + "\"\nreturned from system: 0\n";
    return trace;
}

} // namespace

TEST(Verdict, FollowsTheUpdatersMessagesToItsLines) {
    const std::string unknown = "Unknown script command burn it\n";
    const struct {
        const char *script;
        std::string err;
        const char *told;
    } rows[] = {
        {"# none\r\n\r\nerase 0 4000\rerase 4000 4000\n", Erased("0", "4000") + Erased("4000", "4000"), "CC"},
        {"burn it\nburn it\nerase 0 4000\n", unknown + unknown + unknown + unknown + Erased("0", "4000"),
         "SSC 1:unknown-command 2:unknown-command"},
        {"erase 0 8000\nerase 0 8000\n", "error : erase failed at 4000\n" + Erased("0", "8000") + Erased("0", "8000"),
         "FC 1:erase-failed"},
        // The closing line of a write's own erase is no other erase's.
        {"write 0 c000 two\nerase 0 4000\n",
         "write /u/two to flash address 0\nerror : erase failed at 4000\n" + Erased("0", "c000"),
         "FN 1:erase-failed 1:stopped 2:overlap"},
        // A walk that ends with the flash is silent, and what follows is told by the next line.
        {"write f8000 8000 two\nerase 0 8000\nerase 1 2\n",
         Begun("two", "f8000", "8000") + "error : erase failed at 0\n" + Erased("0", "8000") +
             "error : invalid offset=1, blocksize = 16384\n",
         "CFF 1:no-spare 2:erase-failed 3:misaligned"},
        {"write 0 c000 two\nerase 1 2\n", Begun("two", "0", "c000") + "error : write page return -1\n",
         "FN 1:write-failed 1:stopped 2:misaligned"},
        {"write 0 0 two\nsetenv a b\n", Begun("two", "0", "0"), "FN 1:empty-range 1:stopped"},
        {"setenv 0 4000 a b\nsetenv a b\n",
         "warning : skip bad block at 0\nerror : read failed at 0\n"
         "write a = b to env\nwrite a = b to env\n",
         "FC 1:read-failed"},
        {"setenv 0 7fffc000 a b\nsetenv a b\n", "error : std::bad_alloc\n", "FN 1:failed 1:stopped"},
        {"write 0 c000 none\nwriteoob 0 8000\n",
         "The switch to root user failed!/u/none doesn't exist\nincomplete script command writeoob 0 8000\n",
         "SS 1:missing-file 2:incomplete"},
        {"ubiformat /dev/mtd3 one\nerase 0 4000\n",
         "ubiformat /u/one to <MTD> /dev/mtd3\ngrep: noise\ndev /dev/mtd3 is not exist\n",
         "FN 1:no-device 1:not-ubi 1:stopped"},
        {"ubiformat /dev/mtd9 one\n", "ubiformat /u/one to <MTD> /dev/mtd9\n", "F 1:no-prepare 1:not-ubi"},
        // Other programs' words in front of a message, and ones that only look like it.
        {"write 0 c000 two\nburn\n",
         "Unknown script command burn\nerror : no such tool\n 7%" + Begun("two", "0", "c000") + "\r50%" + kDone +
             "see: Unknown script command burn\n",
         "CS 2:unknown-command"},
        // Done at once, without a word.
        {"write 80000 8000 two\nerase 84000 4000\nerase 0 1\n",
         Begun("two", "80000", "8000") + Erased("84000", "4000") + "error : invalid size=1, blocksize = 16384\n",
         "CCF 1:not-done 1:no-spare 2:not-done 2:overlap 3:misaligned"},
        {"write 0 c000 pipe\nerase 0 1\n", Begun("pipe", "0", "c000") + "error : invalid size=1, blocksize = 1\n",
         "CF 1:not-done 2:misaligned"},
        // Of an image of unknown size the updater's own message must do.
        {"write 0 c000 pipe\n", Begun("pipe", "0", "c000") + kDone, "C"},
        {"erase 100000 4000\n", "error : fail to check bad block at 100000\n" + Erased("100000", "4000"),
         "F 1:off-chip"},
        {"writeoob 0 c000 raw\n",
         Begun("raw", "0", "c000") +
             "warning : file read datasize = 1, pending to pagesize = 512\n"
             "warning : file read datasize = 0, pending to pagesize = 512\n" +
             kDone,
         "C 1:raw-length"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Rehearsed(row.script, row.err).Told(), row.told) << row.script;
}

TEST(Verdict, TellsHowARunEndedThatDidNotEndWell) {
    Rehearsed run("erase 0 4000\nwrite 0 c000 two\nsetenv a b\n", Erased("0", "4000") + Begun("two", "0", "c000"));
    run.record.status = SIGKILL;
    run.record.cutPlace = "MEMWRITE at 0x4000";
    EXPECT_EQ(run.Told(), "CFN 0:power-cut 2:failed 2:stopped");
    run.record.cutPlace = "";
    EXPECT_EQ(run.Told(), "CFN 0:crashed 2:failed 2:stopped");

    Rehearsed overdue("", "");
    overdue.record.isOverdue = true;
    EXPECT_EQ(overdue.Told(), " 0:timed-out") << "its script isn't known";

    Rehearsed refused("erase 0 4000\n# long\n", "error : script line 2 of 300 characters, the limit is 255\n");
    refused.record.status = 255 << 8;
    EXPECT_EQ(refused.Told(), "N 2:line-too-long");
    refused.record.err = "error : script of 4096 characters, the limit is 4095\n";
    EXPECT_EQ(refused.Told(), "N 0:script-too-long");

    Rehearsed none(std::string("\0erase 0 4000\n", 14));
    none.record.status = 255 << 8;
    EXPECT_EQ(none.Told(), " 0:script-cut 0:not-started");
    none.record.out = "update script:/flashrig.script not found, exit\n";
    EXPECT_EQ(none.Told(), " 0:script-cut 0:not-started");

    Rehearsed copied("erase 0 4000\n", Erased("0", "4000"));
    copied.record.out = "new program detected, running /u/flashrig /u\n" + copied.record.out;
    copied.record.trace = "system \"/app/prepare_flashrig.sh \\\"x\\\"\"\nreturned from system: 256\n"
                          "system \"/u/flashrig /u\"\n" +
                          Percentages({100}) + "returned from system: 65280\n";
    EXPECT_EQ(copied.Told(), "C 0:prepare-failed 0:handover-failed");
}

TEST(Verdict, ReadsTheScriptForWhatARunCannotShow) {
    const struct {
        const char *line;
        const char *told; ///< of a line that never ran
    } rows[] = {
        {"erase 0x4000 +C000", ""},
        {"erase 0 4000 # all of it", ""},
        {"erase 0 4000 all of it", " 1:ignored-words"},
        {"erase 0 0x", " 1:number 1:empty-range"},
        {"erase 16k 4000", " 1:number 1:misaligned"},
        {"erase 0 100000000", " 1:number 1:misaligned"},
        {"erase 2000 2000", " 1:misaligned"},
        {"erase -4000 8000", " 1:off-chip"},
        {"write fc000 8000 one", " 1:off-chip"},
        {"write 0 8000 one", ""},
        {"write 0 8000 two", " 1:no-spare"},
        {"write 0 4000 two", " 1:outruns-range"},
        {"writeoob 0 4000 raw", " 1:raw-length 1:outruns-range"},
        {"write 0 4000 empty", " 1:empty-image"},
        {"write 0 4000 none", " 1:missing-file"},
        {"write 0 4000 pipe", " 1:unreadable-file"},
        {"setenv name # now", " 1:ignored-words 1:shell-text"},
        {"setenv delay 3 # now", " 1:setenv-long"},
        {"setenv 4000 4000 # old value", " 1:setenv-long"},
        {"setenv 4000 4000 name value # now", ""},
        {"setenv args console=ttyS0 quiet", " 1:ignored-words"},
        {"setenv name a;b", " 1:shell-text"},
        {"setenv {x} 1.2~rc!", ""},
        {"setenv name ~user", " 1:shell-text"},
        {"ubiformat /dev/mtd9", " 1:incomplete"},
        // Ranges in each other's way.
        {"erase 0 8000\rwrite 0 8000 one\rsetenv 0 4000 a b\rsetenv 0 4000 c d", ""},
        {"write 0 8000 one\rsetenv 4000 4000 a b", " 2:overlap"},
        {"write 0 c000 two\rsetenv 0 4000 a b", " 2:overlap"},
        {"write 0 8000 one\rwrite 4000 8000 one", " 2:overlap"},
        {"setenv 4000 4000 a b\rerase 0 8000", " 2:overlap"},
        {"write 0 8000 one\rsetenv 0 8000 a b\rerase 8000 4000", ""},
        {"setenv 4000 4000 a b\rsetenv 4000 8000 a b", " 2:overlap"},
        {"write 80000 8000 one\rubiformat /dev/mtd9 one", " 2:not-ubi 2:overlap"},
        {"ubiformat /dev/mtd9 one\rsetenv 80000 4000 a b", " 1:not-ubi 2:overlap"},
    };
    for (const auto &row : rows) {
        Rehearsed run(row.line, "error : script line 9 of 300 characters, the limit is 255\n");
        run.record.status = 255 << 8;
        EXPECT_EQ(run.Told().substr(run.Judged().lines.size()), row.told + std::string(" 9:line-too-long")) << row.line;
    }
}

TEST(Verdict, ReadsEnvironmentsBackFromTheChip) {
    const auto setBlock = [](Rehearsed &run, std::uint32_t block, std::size_t fill, bool hasCrc,
                             const char *name = "x=") {
        std::vector<char> bytes(0x4000, '\0');
        std::fill_n(bytes.begin() + 4, fill, 'x');
        bytes[4] = name[0];
        bytes[5] = name[1];
        UEnvTool environment(bytes.data(), 0x4000);
        environment.SetEnv("a", "b");
        environment.m_pBlock[0] = static_cast<char>(environment.m_pBlock[0] + (hasCrc ? 0 : 1));
        for (std::uint32_t page = 0; page < 32; ++page) {
            NandChip::PageProgram program;
            program.data = reinterpret_cast<const std::uint8_t *>(environment.m_pBlock) + std::size_t{page} * 512;
            program.length = 512;
            program.withEcc = true;
            run.chip.Program(block * 32 + page, program);
        }
    };
    const std::string changed = "write a = b to env\n";
    const struct {
        const char *script;
        std::size_t fill; ///< bytes of another variable; it, "a=b" and their two zeros may take all but 8
        bool hasCrc;
        const char *told;
        const char *name = "x=";
    } rows[] = {
        {"setenv 4000 4000 a b", 20, true, "C"},
        {"setenv 4000 4000 a b", 20, true, "C 1:environment-damaged", "xx"},
        {"setenv 4000 4000 a b", 20, true, "C 1:environment-damaged", "=x"},
        {"setenv 4000 4000 a b", 20, true, "C 1:environment-damaged", " ="},
        {"setenv 4000 4000 a b", 20, true, "C 1:environment-damaged", "\x7f="},
        {"setenv 4000 4000 a c", 20, true, "C 1:environment-lost"},
        {"setenv 4000 4000 a b", 0x4000 - 8 - 5, true, "C"},
        {"setenv 4000 4000 a b", 0x4000 - 7 - 5, true, "C 1:environment-lost"},
        {"setenv 4000 4000 a b", 20, false, "C 1:environment-lost"},
        {"setenv 4000 4000 a c\rsetenv 4000 4000 a b", 20, true, "CC"},
        {"setenv 4000 4000 z b\rsetenv 4000 4000 a b", 20, true, "CC 1:environment-lost"},
    };
    for (const auto &row : rows) {
        Rehearsed run(row.script, "");
        for (const UpdateLine &line : ReadUpdateLines(row.script))
            run.record.err += "write " + line.Name() + " = " + line.Value() + " to env\n";
        run.chip.Erase(1);
        setBlock(run, 1, row.fill, row.hasCrc, row.name);
        EXPECT_EQ(run.Told(), row.told) << row.script << " " << row.fill;
    }
    // Of an environment that the update lays down, the change itself may lose the last variable.
    for (const std::size_t free : {4U, 3U}) {
        Rehearsed laid("write 4000 8000 one\nsetenv 4000 4000 a b\n", Begun("one", "4000", "8000") + kDone + changed);
        laid.chip.Erase(1);
        setBlock(laid, 1, 20, true);
        laid.record.contents["one"] = std::string(0x4000 - free - 1, 'x').append(free + 1, '\0');
        EXPECT_EQ(laid.Told(), free == 4 ? "CC" : "CC 2:environment-lost");
    }
    // After a shorter image the block is blank: what the change rebuilds ends there.
    Rehearsed blank("write 4000 8000 one\nsetenv 4000 4000 a b\n", Begun("one", "4000", "8000") + kDone + changed);
    blank.chip.Erase(1);
    setBlock(blank, 1, 20, true);
    blank.record.contents["one"] = std::string(100, 'x');
    EXPECT_EQ(blank.Told(), "CC");
    Rehearsed twoBad("setenv 0 c000 a b", changed);
    twoBad.chip.MarkBad(1);
    twoBad.chip.MarkBad(2);
    EXPECT_NE(twoBad.Texts("environment-lost").find("2 bad blocks: the last 32768 bytes of"), std::string::npos);
    Rehearsed run("setenv 0 8000 a b", changed);
    run.chip.MarkBad(1);
    run.chip.Erase(0);
    setBlock(run, 0, 20, true);
    EXPECT_NE(run.Judged().findings.at(0).happens.find("the last 16384 bytes"), std::string::npos);
    run.record.trace = "note: page at 0x200 read without valid ECC\nnote: page at 0xfc000 read without valid ECC\n";
    EXPECT_EQ(run.Told(), "C 0:unsound-read 1:environment-lost 1:environment-damaged");
}

TEST(Verdict, TellsWhatWasProgrammedUnerased) {
    Rehearsed run("write 0 8000 one\nubiformat /dev/mtd9 one\n",
                  Begun("one", "0", "8000") + kDone + "ubiformat /u/one to <MTD> /dev/mtd9\n");
    run.record.out =
        "prepare ubi ...\nexecute /bin/sh status 0\nexecute /tmp/update/ubiformat status 0\n" + run.record.out;
    EXPECT_EQ(run.Told(), "CC 2:not-ubi 2:ubi-untouched");
    const std::uint8_t byte = 0;
    NandChip::PageProgram program;
    program.data = &byte;
    program.length = 1;
    run.chip.Program(0x80000 / 512, program);
    EXPECT_EQ(run.Told(), "CC 2:not-ubi 2:unerased");
    run.record.trace = "note: page at 0x200 something else\n";
    EXPECT_EQ(run.Told(), "CC 2:not-ubi 2:unerased");
    run.record.trace = "note: page at 0x200 programmed over unerased bits\n";
    EXPECT_EQ(run.Told(), "CC 1:unerased 2:not-ubi 2:unerased");
    run.record.trace += "note: page at 0x80000 programmed over unerased bits\n";
    EXPECT_EQ(run.Told(), "CC 1:unerased 2:not-ubi 2:unerased")
        << "blocks of a line with noted pages are not named again";
    run.record.trace += "note: page at 0xfc400 read without valid ECC\nnote: page at 0xfc000 read without valid ECC\n";
    EXPECT_EQ(run.Texts("unsound-read"), "2 pages read normally without valid ECC, first at 0xfc000; read raw what was "
                                         "written raw, or write it with its ECC\n");
    run.record.trace = "note: page at 0x200 programmed over unerased bits\n";
    run.record.out.replace(run.record.out.find("ubiformat status 0"), 18, "ubiformat status 1");
    EXPECT_EQ(run.Told(), "CC 1:unerased 2:format-failed 2:not-ubi 2:unerased");
}

TEST(Verdict, TakesPercentagesForANoteUntilALineFails) {
    const struct {
        std::vector<int> percentages;
        const char *happens;
    } rows[] = {
        {{50, 50, 100}, nullptr},
        {{}, nullptr},
        {{50, 150},
         "the percentages exceed 100, up to 150; more blocks than counted in line 1 (a write of whole "
         "blocks and any writeoob)"},
        {{60, 40, 90}, "the percentages fall from 60 to 40, end at 90"},
    };
    for (const auto &row : rows) {
        Rehearsed run("write 0 8000 one\n", Begun("one", "0", "8000") + kDone);
        run.record.trace = Percentages(row.percentages);
        const Verdict verdict = run.Judged();
        EXPECT_EQ(verdict.percentages, row.percentages);
        EXPECT_TRUE(verdict.IsClean());
        ASSERT_EQ(verdict.findings.size(), row.happens == nullptr ? 0U : 1U);
        if (row.happens != nullptr) {
            EXPECT_EQ(verdict.findings[0].happens, row.happens);
        }
    }
    Rehearsed failed("erase 0 0\n", Erased("0", "0"));
    failed.record.trace = Percentages({101});
    EXPECT_EQ(failed.Judged().findings[0].severity, Severity::Warning);
    Rehearsed whole("write 0 8000 two\n", Begun("two", "0", "8000") + kDone);
    whole.record.trace = Percentages({101});
    EXPECT_EQ(whole.Texts("percentages"),
              "the percentages exceed 100, up to 101; make the progress script tolerate this\n");
    // A call that never came back has no status.
    whole.record.trace = kNotify + "100\"\n";
    EXPECT_EQ(whole.Told(), "C 1:no-spare");
    Rehearsed twice("setenv a b\nsetenv a b\n", "write a = b to env\nwrite a = b to env\n");
    const std::string call = "system \"/bin/bootvars -s a b\"\nreturned from system: ";
    twice.record.trace = call + "0\n" + call + "256\n";
    EXPECT_EQ(twice.Told(), "CC 2:tool-failed");
    Rehearsed dumb("setenv a b\n", "write a = b to env\n");
    dumb.record.trace = "system \"/bin/bootvars -s a b\"\nreturned from system: 32512\n" + kNotify +
                        "100\"\nreturned from system: 256\n";
    EXPECT_EQ(dumb.Told(), "C 0:notify-failed 1:tool-failed");
}

TEST(Verdict, LooksAtTheChipForWhatTheUpdaterTakesForDone) {
    const std::string overlapping = "write 0 c000 two\nerase 0 4000\n";
    Rehearsed erased(overlapping, Begun("two", "0", "c000") + kDone + Erased("0", "4000"));
    erased.chip.Erase(0);
    EXPECT_EQ(erased.Told(), "CC 2:overlap") << "missing pages are the later line's";
    EXPECT_EQ(Rehearsed("write f8000 8000 full\n", Begun("full", "f8000", "8000")).Told(), "C 1:no-spare");
    EXPECT_EQ(Rehearsed("write 80000 10000 two\n", Begun("two", "80000", "10000") + kDone).Texts("not-done"),
              "33 of 33 pages of the image not written, silently; see what the device reports of its flash, and the "
              "trace\n");
    EXPECT_EQ(Rehearsed("write f8000 c000 two\n", Begun("two", "f8000", "c000") + kDone).Told(), "C");
    Rehearsed skipped("write 0 8000 one\nerase 0 8000\n", "/u/one doesn't exist\n" + Erased("0", "8000"));
    EXPECT_EQ(skipped.Told(), "SC 1:missing-file");
    Rehearsed killed("erase 0 4000\n", Erased("0", "4000"));
    killed.record.status = SIGKILL;
    EXPECT_EQ(killed.Texts("crashed"), "the updater ends with signal 9; see the last message\n");
    EXPECT_EQ(Rehearsed("write 0 4000 one\n", Begun("one", "0", "4000") + kDone).Told(), "C")
        << "makers guarantee the first block";
    Rehearsed warned("write 4000 4000 one\n", Begun("one", "4000", "4000") + kDone);
    EXPECT_EQ(warned.Told(), "C 1:no-spare");
    EXPECT_FALSE(warned.Judged().IsClean());
}

TEST(Verdict, JudgesTheProgramsBeforeTheScriptByTheirStatus) {
    const struct {
        const char *call;
        int status;
        const char *change; ///< of prepare-failed; nullptr for no finding
    } rows[] = {
        {"/app/prepare_flashrig.sh /tmp/x.img", 0, nullptr},
        {"/app/prepare_flashrig.sh /tmp/x.img", 256, "use an image that the device's prepare script can unpack"},
        {"/app/prepare_flashrig.sh /tmp/x.img", 127 << 8,
         "provide the device's own prepare script with --root, as app/prepare_flashrig.sh"},
        {"/app/prepare_flashrig.sh /tmp/x y.img", 127 << 8,
         "rename the image: a shell splits or changes a name with blanks or special characters"},
        {"/u/flashrig /u", 0, nullptr},
        {"/bin/other", 256, nullptr},
    };
    for (const auto &row : rows) {
        Rehearsed run("erase 0 4000\n", Erased("0", "4000"));
        run.record.out = "new program detected, running /u/flashrig /u\n" + run.record.out;
        run.record.trace =
            std::string("system \"") + row.call + "\"\nreturned from system: " + std::to_string(row.status) + "\n";
        EXPECT_EQ(run.Told(), row.change == nullptr ? "C" : "C 0:prepare-failed") << row.call;
        const std::string texts = run.Texts("prepare-failed");
        EXPECT_TRUE(row.change == nullptr || texts.find(row.change) != std::string::npos) << texts;
    }
}

TEST(Verdict, CountsTheFlashByTheDeviceOverAllOfItOrTheFirst) {
    const struct {
        std::vector<SimDevice> devices;
        bool hasDevice;
        std::uint64_t onChip; ///< of offset 0
        std::int64_t size;
    } rows[] = {
        {{{0, "boot", 0x4000, 0x8000}, {3, "xally", 0x8000, 0x10000}}, true, 0x8000, 0x10000},
        {{{9, "opt", 0x80000, 0x8000}, {0, "boot", 0x4000, 0x8000}}, true, 0x4000, 0x8000},
        {{{9, "opt", 0x80000, 0x8000}}, false, 0, 0x100000},
    };
    for (const auto &row : rows) {
        Rehearsed run("erase 0 4000\n", Erased("0", "4000"));
        const WholeFlash flash(run.chip, row.devices);
        EXPECT_EQ(flash.HasDevice(), row.hasDevice);
        EXPECT_EQ(flash.OnChip(0), row.onChip);
        EXPECT_EQ(flash.Size(), row.size);
        EXPECT_TRUE(flash.IsOnFlash({0, row.size}));
        EXPECT_FALSE(flash.IsOnFlash({-0x4000, 0}));
        EXPECT_FALSE(flash.IsOnFlash({0, row.size + 0x4000}));
        run.record.devices = row.devices;
        EXPECT_EQ(run.Told(), row.hasDevice ? "C 0:part-of-flash" : "C 0:no-whole-flash");
    }
}

TEST(Verdict, NamesTheTroubleThatARunNeverReached) {
    const std::string path = testing::TempDir() + "absent" + std::to_string(getpid());
    SimState::Create(path, {});
    SimState state(path);
    state.BeginChange(0);
    state.BeginChange(0);
    state.Begin(RequestKind::Read);
    unlink(path.c_str());
    SimSettings asked;
    asked.cutAtChange = 2;
    asked.faults = {{RequestKind::Read, 1, EIO}};
    EXPECT_EQ(AbsentTroubles(asked, state), std::vector<std::string>());
    asked.cutAtChange = 3;
    asked.faults = {{RequestKind::Read, 2, EIO}, {RequestKind::Write, 0, EIO}};
    EXPECT_EQ(AbsentTroubles(asked, state),
              (std::vector<std::string>{"cut 3: there were 2 changes", "fault read:2=EIO: there was 1 such request",
                                        "fault write=EIO: there were 0 such requests"}));
}

TEST(UsedChip, HoldsDataAndTheEnvironmentsOfItsUpdate) {
    Rehearsed run("");
    const std::vector<UpdateLine> lines =
        ReadUpdateLines("setenv 4000 4000 a new\nsetenv 8000 8000 b new\nsetenv 2000 4000 c new\nsetenv d new\n");
    run.chip.MarkBad(5);
    UseUp(run.chip, run.record.devices, lines);
    const WholeFlash flash(run.chip, run.record.devices);
    EXPECT_TRUE(flash.BadBlocks({0, flash.Size()}).empty());
    for (const UpdateLine *line : {&lines[0], &lines[1]}) {
        const std::vector<char> bytes = flash.Read(*flash.RangeOf(*line));
        EXPECT_TRUE(HasValidCrc(bytes));
        const UEnvTool environment(bytes.data(), static_cast<int>(bytes.size()));
        EXPECT_EQ(environment.m_vEntry.size(), 5U);
        EXPECT_EQ(environment.GetEnv("bootdelay"), "3");
        EXPECT_EQ(environment.GetEnv(line->Name().c_str()), "before-the-update");
    }
    EXPECT_FALSE(HasValidCrc(flash.Read({0, 0x4000})));
    EXPECT_NE(flash.Read({0, 512}), flash.Read({512, 1024}));
    EXPECT_FALSE(run.chip.IsTouched(0)) << "marks are a run's";
}

TEST(Verdict, GoesIntoAReportAndOntoTheTerminal) {
    Rehearsed run("write 0 8000 one\nburn\n", "Unknown script command burn\n" + Begun("one", "0", "8000") + kDone +
                                                  "Unknown script command burn\n");
    run.chip.MarkBad(1);
    const Verdict verdict = run.Judged();
    EXPECT_EQ(VerdictText(verdict, "script"),
              "script:1: room: one fills 1 of 2 blocks and tolerates 1 bad block (1 present)\n"
              "script:2: error: burn: the line is skipped; use write, writeoob, erase, setenv or ubiformat, in "
              "lower case [unknown-command]\n"
              "verdict: NOT clean: 1 error, 1 of 2 lines carried out\n");
    const std::string path = testing::TempDir() + "verdict" + std::to_string(getpid());
    SimState::Create(path, {});
    const nlohmann::ordered_json report = MakeReport(run.record, verdict, run.chip, SimState(path));
    unlink(path.c_str());
    EXPECT_EQ(report["verdict"], "findings");
    EXPECT_EQ(report["chip"]["badBlocks"].dump(), "[1]");
    EXPECT_EQ(report["requests"]["MEMWRITE"], 0);
    EXPECT_EQ(report["run"].dump(), R"({"exitStatus":0,"signal":null,"powerCut":null})");
    EXPECT_EQ(report["lines"][0]["room"].dump(), R"({"rangeBlocks":2,"imageBlocks":1,"badBlocks":1,"spareBlocks":1})");
    EXPECT_EQ(report["lines"][1].dump(), R"({"number":2,"text":"burn","result":"skipped"})");
    EXPECT_EQ(report["findings"][0]["line"], 2);
    EXPECT_EQ(report["sweeps"].dump(), "[]");
}

/// Each *.verdict begins with a command and goes on with what it says of the update.
TEST(Examples, GetTheVerdictsBesideThem) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::path(testing::TempDir()) / ("examples" + std::to_string(getpid()));
    ASSERT_EQ(system((std::string(EXAMPLES) + "/make " + folder.string()).c_str()), 0);
    std::size_t count = 0;
    for (const auto &entry : fs::recursive_directory_iterator(EXAMPLES)) {
        if (entry.path().extension() != ".verdict")
            continue;
        std::ifstream file(entry.path());
        std::string command;
        std::getline(file, command, ' ');
        ASSERT_EQ(command, "$");
        std::getline(file, command);
        const std::string told((std::istreambuf_iterator<char>(file)), {});
        const std::string run = "cd " + folder.string() + " && " + fs::path(FLASHSIM).parent_path().string() + "/" +
                                command + " 2>/dev/null >out";
        const int status = system(run.c_str());
        const bool isClean = told.find("verdict: clean") != std::string::npos;
        const bool holds = told.find("\n    flashsim ") == std::string::npos;
        EXPECT_EQ(WEXITSTATUS(status), isClean && holds ? 0 : 1) << command;
        std::ifstream out(folder / "out");
        std::string judged, line;
        while (std::getline(out, line)) {
            // The map and the requests come first.
            const bool isFinding = line.find("flashrig.script:") < line.find(' ');
            if (!judged.empty() || isFinding || line.rfind("verdict: ", 0) == 0)
                judged += line + "\n";
        }
        EXPECT_EQ(judged, told) << command;
        ++count;
    }
    EXPECT_EQ(count, 8U);
    fs::remove_all(folder);
}
