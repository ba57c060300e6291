#include "verdict/Verdict.h"
#include "UEnvTool.h"
#include "verdict/UsedChip.h"

#include "TestChip.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <unistd.h>

namespace {

/// A rehearsed run that never took place: its texts are given, its chip has 64 blocks of 16 KiB.
struct Rehearsed : TestChip {
    explicit Rehearsed(const std::string &script, const std::string &err = "")
        : TestChip({0x100000, 0x4000, 512, 16}, Ecc::Chip) {
        record.script = script;
        record.files = {{"empty", 0},          {"one", 0x4000},  {"two", 0x4001},
                        {"raw", 32 * 528 + 1}, {"full", 0x8000}, {"pipe", -1}};
        record.devices = {{9, "opt", 0x80000, 0x78000}, {12, "all", 0, 0x100000}};
        record.out = "running update script /u/flashrig.script\n";
        record.err = err;
        // Every page but those of the device opt is written, be it with nothing.
        for (std::uint32_t page = 0; page < 64 * 32; ++page) {
            if (page >= 32 * 32 && page < 62 * 32)
                continue;
            if (page % 32 == 0)
                chip.Erase(page / 32);
            Program(page, {0xFF});
        }
    }

    /// Writes an environment of one block: a variable of two letters and `fill` bytes, and a=b.
    void SetBlock(std::uint32_t block, std::size_t fill, bool hasCrc = true, const char *name = "x=") {
        std::vector<char> bytes(0x4000, '\0');
        std::fill_n(bytes.begin() + 4, fill, 'x');
        std::copy_n(name, 2, bytes.begin() + 4);
        UEnvTool environment(bytes.data(), 0x4000);
        environment.SetEnv("a", "b");
        environment.m_pBlock[0] = static_cast<char>(environment.m_pBlock[0] + (hasCrc ? 0 : 1));
        chip.Erase(block);
        for (std::uint32_t page = 0; page < 32; ++page) {
            const char *start = environment.m_pBlock + std::size_t{page} * 512;
            Program(block * 32 + page, {start, start + 512}, {}, true);
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

TEST(Verdict, LooksAtTheChipForWhatTheUpdaterTakesForDone) {
    const struct {
        const char *script;
        std::string err;
        const char *told;
    } rows[] = {
        // Done at once, without a word.
        {"write 80000 8000 two\nerase 84000 4000\nerase 0 1\n",
         Begun("two", "80000", "8000") + Erased("84000", "4000") + "error : invalid size=1, blocksize = 16384\n",
         "CCF 1:not-done 1:no-spare 2:not-done 2:overlap 3:misaligned"},
        {"write 0 c000 pipe\nerase 0 1\n", Begun("pipe", "0", "c000") + "error : invalid size=1, blocksize = 1\n",
         "CF 1:not-done 2:misaligned"},
        // Of an image of unknown size the updater's own message must do.
        {"write 0 c000 pipe\n", Begun("pipe", "0", "c000") + kDone, "C"},
        {"write f8000 8000 full\n", Begun("full", "f8000", "8000"), "C 1:no-spare"},
        {"write f8000 c000 two\n", Begun("two", "f8000", "c000") + kDone, "C"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Rehearsed(row.script, row.err).Told(), row.told) << row.script;
    EXPECT_EQ(Rehearsed("write 80000 10000 two\n", Begun("two", "80000", "10000") + kDone).Texts("not-done"),
              "33 of 33 pages of the image not written, silently; see what the device reports of its flash, and the "
              "trace\n");
    Rehearsed erased("write 0 c000 two\nerase 0 4000\n", Begun("two", "0", "c000") + kDone + Erased("0", "4000"));
    erased.chip.Erase(0);
    EXPECT_EQ(erased.Told(), "CC 2:overlap") << "missing pages are the later line's";
}

TEST(Verdict, TellsWhyARunHasNoLines) {
    Rehearsed overdue("");
    overdue.record.isOverdue = true;
    EXPECT_EQ(overdue.Told(), " 0:timed-out") << "its script isn't known";
    Rehearsed none(std::string("\0erase 0 4000\n", 14));
    none.record.status = 255 << 8;
    EXPECT_EQ(none.Told(), " 0:script-cut 0:not-started");
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
        {"erase -4000 8000", " 1:off-chip"},
        {"write 0 8000 one", ""},
        {"write 0 4000 pipe", " 1:unreadable-file"},
        {"setenv name # now", " 1:ignored-words 1:shell-text"},
        {"setenv 4000 4000 # old value", " 1:setenv-long"},
        {"setenv 4000 4000 name value # now", ""},
        {"setenv name a;b", " 1:shell-text"},
        {"setenv {x} 1.2~rc!", ""},
        {"setenv name ~user", " 1:shell-text"},
        {"ubiformat /dev/mtd9", " 1:incomplete"},
        // Ranges in each other's way.
        {"erase 0 8000\rwrite 0 8000 one\rsetenv 0 4000 a b\rsetenv 0 4000 c d", ""},
        {"write 0 8000 one\rsetenv 4000 4000 a b", " 2:overlap"},
        {"write 0 c000 two\rsetenv 0 4000 a b", " 2:overlap"},
        {"setenv 4000 4000 a b\rerase 0 8000", " 2:overlap"},
        {"write 0 8000 one\rsetenv 0 8000 a b\rerase 8000 4000", ""},
        {"setenv 4000 4000 a b\rsetenv 4000 8000 a b", " 2:overlap"},
        {"write 80000 8000 one\rubiformat /dev/mtd9 one", " 2:not-ubi 2:overlap"},
        {"ubiformat /dev/mtd9 one\rsetenv 80000 4000 a b", " 1:not-ubi 2:overlap"},
    };
    const char *refusal = "error : script line 9 of 300 characters, the limit is 255\n";
    for (const auto &row : rows) {
        Rehearsed run(row.line, refusal);
        run.record.status = 255 << 8;
        EXPECT_EQ(run.Told().substr(run.Judged().lines.size()), row.told + std::string(" 9:line-too-long")) << row.line;
    }
    // The flash is the device with the number 0 when none has a name for all of it.
    Rehearsed part("erase 0 8000\rerase 4000 8000", refusal);
    part.record.devices = {{9, "opt", 0x80000, 0x8000}, {0, "boot", 0x4000, 0x8000}};
    EXPECT_EQ(part.Told(), "NN 0:part-of-flash 2:off-chip 9:line-too-long");
}

TEST(Verdict, ReadsEnvironmentsBackFromTheChip) {
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
        run.SetBlock(1, row.fill, row.hasCrc, row.name);
        EXPECT_EQ(run.Told(), row.told) << row.script << " " << row.fill;
    }
    // Of an environment that the update lays down, the change itself may lose the last variable. After a shorter image
    // the block is blank: what the change rebuilds ends there.
    const struct {
        std::size_t length, zeros;
        const char *told;
    } images[] = {{0x4000 - 5, 5, "CC"}, {0x4000 - 4, 4, "CC 2:environment-lost"}, {100, 0, "CC"}};
    for (const auto &row : images) {
        Rehearsed laid("write 4000 8000 one\nsetenv 4000 4000 a b\n", Begun("one", "4000", "8000") + kDone + changed);
        laid.SetBlock(1, 20);
        laid.record.contents["one"] = std::string(row.length, 'x').append(row.zeros, '\0');
        EXPECT_EQ(laid.Told(), row.told);
    }
    Rehearsed twoBad("setenv 0 c000 a b", changed);
    twoBad.chip.MarkBad(1);
    twoBad.chip.MarkBad(2);
    EXPECT_NE(twoBad.Texts("environment-lost").find("2 bad blocks: the last 32768 bytes of"), std::string::npos);
    Rehearsed run("setenv 0 8000 a b", changed);
    run.chip.MarkBad(1);
    run.SetBlock(0, 20);
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
    run.Program(0x80000 / 512, {0});
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
    Rehearsed copied("erase 0 4000\n", Erased("0", "4000"));
    copied.record.out = "new program detected, running /u/flashrig /u\n" + copied.record.out;
    copied.record.trace = "system \"/u/flashrig /u\"\n" + Percentages({100}) + "returned from system: 65280\n";
    EXPECT_EQ(copied.Told(), "C 0:handover-failed");
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
