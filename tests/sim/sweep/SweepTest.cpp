#include "Device.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char *kChip = " --chip 1M,16K,512,16 ";

/// Sweeps over an update in a folder of its own; all commands run there, with flashsim in the PATH.
class Sweep : public testing::Test {
protected:
    Sweep() { fs::create_directories(m_folder / "tmp"); }
    ~Sweep() override { fs::remove_all(m_folder); }

    void File(const std::string &name, const std::string &bytes) {
        const fs::path path = m_folder / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
        fs::permissions(path, fs::perms::owner_all);
    }

    Outcome Shell(const std::string &command) {
        const std::string path = fs::path(FLASHSIM).parent_path();
        return RunProgram({"sh", "-c", "cd " + m_folder.string() + "; PATH=" + path + ":$PATH; " + command});
    }

    /// @return the report's sweeps.
    nlohmann::json Run(const std::string &options, const std::string &update = "update") {
        m_outcome = Shell("flashsim" + std::string(kChip) + "--report report.json " + options + " " + update);
        const auto report = nlohmann::json::parse(ReadAll(m_folder / "report.json"), nullptr, false);
        m_requests = 0;
        for (const auto &count : report["requests"])
            m_requests += count.get<int>();
        return report["sweeps"];
    }

    const fs::path m_folder = fs::path(testing::TempDir()) / ("sweep" + std::to_string(getpid()));
    Outcome m_outcome;
    int m_requests = 0;
};

} // namespace

TEST_F(Sweep, PassesEverywhereForAnUpdateWithRoom) {
    File("update/flashrig.script", "write 8000 10000 image\nerase 20000 4000\n");
    File("update/image", Pattern(std::size_t{2} * Device::kBlock + 1, 1));
    File("root/app/prepare_flashrig.sh", "#!/bin/sh\nmkdir /tmp/update && tar -xf $1 -C /tmp/update\n");
    ASSERT_EQ(Shell("tar -cf image.tar -C update .").status, 0);
    const auto sweeps = Run("--root root --sets 8 --sweep bad --sweep cut --sweep faults");
    EXPECT_EQ(m_outcome.status, 0) << m_outcome.out << m_outcome.err;
    // Four blocks and one; five erases and 65 pages, each in two states; two kinds of requests with a fallback.
    const int planned[] = {5 + 8, 2 * (5 + 65), m_requests + 2 * 3};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(sweeps[i]["runs"], planned[i]) << sweeps[i];
        EXPECT_EQ(sweeps[i]["held"], planned[i]) << sweeps[i];
    }
    EXPECT_EQ(Run("--root root --sweep cut --every 7", "image.tar")[0]["held"], 20);
    EXPECT_NE(m_outcome.out.find("\nsweep cut: power cut at one in 7 of 70 changes (half,done), then the update run "
                                 "again: 20 of 20 runs passed\n"),
              std::string::npos)
        << m_outcome.out;
}

TEST_F(Sweep, ComparesUbiPartitionsAsUbiReadsThem) {
    const std::string kUbi = "--ecc chip --mtd 9:opt:768K,256K --mtd 12:all --sweep cut ";
    File("update/flashrig.script", "ubiformat /dev/mtd9 image\n");
    File("update/prepare.sh", "#!/bin/sh\n");
    File("content", Pattern(std::size_t{3} * 15360, 1));
    File("ini", "[v]\nmode=ubi\nimage=content\nvol_id=0\nvol_type=static\nvol_name=files\nvol_size=76800\n");
    ASSERT_EQ(Shell("PATH=$PATH:/usr/sbin; ubinize -m 512 -s 512 -p 16KiB -o update/image ini").status, 0);
    // Erase counters and the image sequence number differ from run to run.
    File("update/ubiformat", "#!/bin/sh\nPATH=$PATH:/usr/sbin exec ubiformat -q \"$@\"\n");
    const auto bad = Run(kUbi + "--every 30 --sweep bad --sets 2")[1];
    EXPECT_EQ(m_outcome.status, 0) << m_outcome.out << m_outcome.err;
    EXPECT_EQ(bad["held"], 16 + 2) << m_outcome.out;
    // A second run finds UBI and leaves out the image.
    File("update/ubiformat", "#!/bin/sh\nPATH=$PATH:/usr/sbin\n[ $(head -c 3 /dev/mtd9) = UBI ] || exec ubiformat -q "
                             "\"$@\"\nexec ubiformat -q -y /dev/mtd9\n");
    const auto cut = Run(kUbi + "--every 30")[0];
    EXPECT_EQ(m_outcome.status, 1);
    ASSERT_GT(cut["failures"].size(), 1U) << cut;
    EXPECT_EQ(cut["failures"][0]["line"], 1) << cut;
    EXPECT_EQ(cut["failures"][0]["happens"],
              "UBI on the partition of the line is not as in the reference run: volume \"files\" is lost")
        << cut;
    // What a later line writes there is no longer UBI's: here a second run writes another file.
    File("update/flashrig.script", "ubiformat /dev/mtd9 image\nwrite fc000 4000 other\n");
    File("update/other", "");
    File("update/ubiformat", "#!/bin/sh\nPATH=$PATH:/usr/sbin\n[ $(head -c 3 /dev/mtd9) = UBI ] && n=2 || n=1\n"
                             "echo $n >/tmp/update/other\nexec ubiformat -q \"$@\"\n");
    const auto other = Run(kUbi + "--every 30")[0]["failures"];
    ASSERT_GT(other.size(), 1U) << m_outcome.out;
    EXPECT_EQ(other[0]["happens"], "the range of line 2 differs from an uncut run") << other;
}

TEST_F(Sweep, NamesTheVariablesThatACutDestroys) {
    File("update/flashrig.script", "setenv 4000 4000 bootslot b\n");
    const auto sweep = Run("--sweep cut")[0];
    EXPECT_EQ(m_outcome.status, 1);
    EXPECT_EQ(sweep["done"], 2 * 33);
    ASSERT_EQ(sweep["failures"].size(), 2U) << sweep;
    EXPECT_EQ(sweep["failures"][1]["torn"], "done");
    const auto failure = sweep["failures"][0];
    EXPECT_EQ(failure["cut"], 1);
    EXPECT_EQ(failure["line"], 1);
    EXPECT_NE(failure["happens"].get<std::string>().find(" not restore bootcmd, bootdelay, ethaddr, serial"),
              std::string::npos);
    EXPECT_EQ(sweep["unsealed"][0]["runs"], 33 + 32);

    // The command shows it, and without the cut nothing is lost.
    Shell(failure["command"]);
    const std::string cut = ReadAll(m_folder / "cut1.nand");
    EXPECT_NE(cut.find("bootslot=b"), std::string::npos);
    EXPECT_EQ(cut.find("bootdelay=3"), std::string::npos);
    Shell("flashsim" + std::string(kChip) + "--used --flash whole.nand update");
    EXPECT_NE(ReadAll(m_folder / "whole.nand").find("bootdelay=3"), std::string::npos);
    // A kept chip is made if it is missing; it is where the runs start, and stays as it is.
    EXPECT_EQ(Run("--flash new.nand --sweep cut --torn half")[0]["failures"].size(), 1U) << m_outcome.err;
    EXPECT_NE(ReadAll(m_folder / "new.nand").find("bootdelay=3"), std::string::npos);
    const auto kept = Run("--flash cut1.nand --sweep cut --torn half --every 2")[0]["failures"];
    EXPECT_EQ(kept.size(), 8U);
    EXPECT_EQ(kept[0]["command"].get<std::string>().rfind("cp cut1.nand cut3.nand && ", 0), 0U) << kept;
    EXPECT_EQ(ReadAll(m_folder / "cut1.nand"), cut);
}

TEST_F(Sweep, NamesTheBlocksThatMustNotBeBad) {
    File("update/flashrig.script", "write 8000 8000 full\nwrite 20000 8000 loose\nsetenv 30000 4000 bootslot b\n");
    File("update/full", Pattern(std::size_t{2} * Device::kBlock, 1));
    File("update/loose", Pattern(Device::kBlock, 2));
    const auto sweep = Run("--sweep bad --sets 3 --seed 5")[0];
    EXPECT_EQ(sweep["runs"], 5 + 3);
    const struct {
        int block, line;
        const char *shown;
    } rows[] = {{2, 1, "[outruns-range]"}, {3, 1, "[outruns-range]"}, {12, 3, "[environment-lost]"}};
    ASSERT_EQ(sweep["failures"].size(), 3U) << sweep;
    for (std::size_t i = 0; i < 3; ++i) {
        const auto failure = sweep["failures"][i];
        EXPECT_EQ(failure["badBlocks"], std::vector<int>{rows[i].block});
        EXPECT_EQ(failure["line"], rows[i].line);
        EXPECT_NE(Shell(failure["command"]).out.find(rows[i].shown), std::string::npos) << failure;
    }
}

TEST_F(Sweep, CatchesAnUpdaterThatHidesAFailureOrWritesElsewhere) {
    File("update/flashrig.script", "erase 8000 4000\n");
    File("update/image", std::string(1024, '\0'));
    const std::string dd = "#!/bin/sh\ndd if=$1/image of=/dev/mtd12 bs=512 conv=notrunc status=none 2>/dev/null seek=";
    File("silent", dd + "64\nexit 0\n");
    File("astray", dd + "256\n");
    const auto silent = Run("--program silent --sweep faults")[0];
    int writes = 0;
    for (const auto &failure : silent["failures"])
        writes += std::string(failure["fault"]).rfind("write:", 0) == 0 ? 1 : 0;
    EXPECT_EQ(writes, 2) << silent;
    const auto astray = Run("--program astray --sweep cut")[0];
    EXPECT_EQ(astray["held"], 0);
    EXPECT_EQ(astray["failures"][0]["happens"], "block 8 at 0x20000, outside the ranges of the script, was changed");
}

TEST_F(Sweep, ReplaysPowerCutsWithTheResultsOfRealRuns) {
    // Overlapping ranges, two changes of one environment, a program that reads what it overwrites, one that writes
    // without an erase.
    File("update/flashrig.script", "write 8000 8000 image\nsetenv 4000 4000 bootslot b\nsetenv 4000 4000 version 2\n"
                                   "write c000 8000 image\nsetenv name value\nerase 20000 4000\n");
    File("update/image", Pattern(Device::kBlock + 1, 1));
    File("root/bin/bootvars", "#!/bin/sh\ndd if=/dev/mtd12 bs=512 count=1 skip=288 status=none | cmp -s - /dev/null\n"
                              "printf %512s x | dd of=/dev/mtd12 bs=512 seek=289 conv=notrunc status=none\n");
    const std::string options = "--root root --sweep cut --every 3 --torn none,half,most,bare,done,unstable ";
    const auto replayed = Run(options + "--sample 0")[0];
    EXPECT_EQ(m_outcome.out.find("each run was a real one"), std::string::npos) << m_outcome.out;
    EXPECT_EQ(replayed, Run(options + "--exact")[0]);
    EXPECT_GT(replayed["failures"].size(), 0U);
}

TEST_F(Sweep, RunsForRealWhatIsNotReproducible) {
    File("update/flashrig.script", "erase 8000 4000\n");
    File("odd", "#!/bin/sh\nhead -c 512 /dev/urandom | dd of=/dev/mtd12 bs=512 conv=notrunc status=none seek=64\n");
    Run("--program ./odd --sweep cut");
    EXPECT_NE(m_outcome.out.find("each run was a real one: two runs of the update access flash differently\n"),
              std::string::npos)
        << m_outcome.out;
}

TEST_F(Sweep, WearsOutBlocksAndBlamesTheLineThatHidesAFailure) {
    File("update/flashrig.script", "write 8000 10000 image\nsetenv name value\n");
    File("update/image", Pattern(Device::kBlock, 1));
    File("root/bin/bootvars",
         "#!/bin/sh\ndd if=/bin/sh of=/dev/mtd12 bs=512 count=1 seek=66 conv=notrunc 2>/dev/null; true\n");
    const auto sweeps = Run("--root root --sweep wear --sweep faults");
    EXPECT_EQ(sweeps[0]["runs"], 2 * 4);
    EXPECT_EQ(sweeps[0]["held"], 2 * 4) << sweeps[0];
    int hidden = 0;
    for (const auto &failure : sweeps[1]["failures"])
        hidden += failure["line"] == 2 && failure["fault"] == "write:1=EIO" ? 1 : 0;
    EXPECT_EQ(hidden, 1) << sweeps[1];
}

TEST_F(Sweep, RepeatsTheRunAfterAReportedFailure) {
    // The first page of the environment has all variables.
    File("update/flashrig.script", "erase 8000 4000\nsetenv 4000 4000 bootslot b\n");
    const auto sweep = Run("--sweep faults")[0];
    EXPECT_EQ(sweep, Run("--sweep faults --exact")[0]);
    ASSERT_EQ(sweep["failures"].size(), 2U) << sweep;
    const auto failure = sweep["failures"][1];
    EXPECT_EQ(failure["line"], 2);
    EXPECT_EQ(failure["fault"], "write:1=EIO");
    EXPECT_NE(std::string(failure["happens"]).find("a request that fails while the environment"), std::string::npos);
    Shell(failure["command"]);
    const std::string chip = ReadAll(m_folder / ("run" + std::to_string(failure["run"].get<int>()) + ".nand"));
    EXPECT_NE(chip.find("bootslot=b"), std::string::npos) << failure;
    EXPECT_EQ(chip.find("bootdelay=3"), std::string::npos);
}

TEST_F(Sweep, GivesEachRunAfterATroubleADeviceWithoutItsFiles) {
    // A power cut leaves no lock, and a failure must not leave one to runs of other cases.
    File("update/flashrig.script", "setenv name value\n");
    File("root/bin/bootvars", "#!/bin/sh\n[ -e /tmp/lock ] && exit 1\ntouch /tmp/lock\n"
                              "dd if=/bin/sh of=/dev/mtd12 bs=512 count=3 seek=66 conv=notrunc && rm /tmp/lock\n");
    for (const char *mode : {"", "--exact "})
        EXPECT_EQ(Run(std::string("--root root --sweep cut ") + mode)[0]["held"], 2 * 3) << m_outcome.out;
    // The script goes on after an erase that failed.
    File("update/flashrig.script", "erase 8000 4000\nerase c000 4000\nsetenv name value\n");
    File("root/bin/bootvars",
         "#!/bin/sh\n[ -e /tmp/lock ] && exit 1\n"
         "[ \"$(head -c 32769 /dev/mtd12 | tail -c 1)\" = \"$(printf '\\377')\" ] || touch /tmp/lock\n"
         "dd if=/bin/sh of=/dev/mtd12 bs=512 count=3 seek=66 conv=notrunc\n");
    const auto faults = Run("--root root --sweep faults")[0];
    EXPECT_EQ(faults["failures"].size(), 4U) << faults;
    EXPECT_EQ(faults, Run("--root root --sweep faults --exact")[0]);
}

TEST_F(Sweep, NoticesWhatARunLeavesInItsSandboxWithoutAWord) {
    // A program that can't read flash goes on silently and leaves something that the next run would stumble over.
    const struct {
        const char *leaves, *stumbles;
    } cases[] = {
        {"true", "false"},
        {"touch /tmp/lock", "[ -e /tmp/lock ]"},
        {"echo b >/tmp/update/extra", "[ $(cat /tmp/update/extra) = b ]"},
        {"rm /tmp/update/extra", "[ ! -e /tmp/update/extra ]"},
        {"chmod 755 /tmp/update/extra", "[ $(stat -c %a /tmp/update/extra) = 755 ]"},
        {"rm -r /tmp/update/folder && mkdir /tmp/update/folder", "[ ! -e /tmp/update/folder/file ]"},
        {"ln -s update /opt/link", "[ -h /opt/link ]"},
        {"umount /opt", "! mountpoint -q /opt"},
        {"ipcmk -S 1", "[ $(ipcs -s | wc -l) -gt 4 ]"},
    };
    File("update/flashrig.script", "setenv name value\n");
    File("update/extra", "a");
    File("update/folder/file", "a");
    nlohmann::json clean;
    for (const auto &it : cases) {
        File("root/bin/bootvars", std::string("#!/bin/sh\n") + it.stumbles + " && exit 1\n" +
                                      "{ head -c 512 /dev/mtd12 || " + it.leaves + "; } >/dev/null 2>&1\n" +
                                      "dd if=/bin/sh of=/dev/mtd12 bs=512 count=1 seek=66 conv=notrunc status=none\n");
        const auto sweep = Run("--root root --mount /opt --jobs 1 --sweep faults --every 9")[0];
        if (clean.is_null())
            clean = sweep;
        EXPECT_EQ(sweep, clean) << it.leaves;
    }
    EXPECT_EQ(clean["runs"], 6) << m_outcome.err;
}

TEST_F(Sweep, ComparesWhatProgramsChangeWithoutTheBadBlock) {
    File("update/flashrig.script", "erase 8000 4000\nsetenv name value\n");
    File("root/bin/bootvars", "#!/bin/sh\n[ $(cat /sys/class/mtd/mtd12/bad_blocks) != 0 ] || "
                              "dd if=/bin/sh of=/dev/mtd12 bs=512 count=1 seek=512 conv=notrunc\n");
    const auto failures = Run("--root root --sweep bad --sets 0")[0]["failures"];
    ASSERT_EQ(failures.size(), 1U) << m_outcome.out;
    EXPECT_EQ(failures[0]["happens"], "flash outside all ranges differs from a run without the bad block");
}

TEST_F(Sweep, FindsTheWindowsInWhichADeviceDoesNotBoot) {
    ASSERT_EQ(Shell(EXAMPLES "/make examples").status, 0);
    // A block is one erase and 32 pages; system.img is 96 pages in a range of four blocks.
    const struct {
        const char *update, *device;
        int line, first, last;
        std::vector<int> selectors = {};
    } rows[] = {
        {"boots-always", "ab", 0, 0, 0},
        {"early-selector", "ab", 4, 67, 166, {2, 3}},
        {"environment-in-place", "ab-one-environment", 3, 101, 133},
        {"loader-in-place", "ab", 2, 1, 33},
    };
    for (const auto &row : rows) {
        const std::string update = std::string("examples/ab/") + row.update;
        const std::string device = std::string("--device examples/devices/") + row.device + ".toml ";
        Shell("flashsim " + device + "--sweep cut --report report.json " + update);
        const auto gaps = nlohmann::json::parse(ReadAll(m_folder / "report.json"))["sweeps"][0]["unbootable"];
        ASSERT_EQ(gaps.size(), row.line == 0 ? 0U : 1U) << gaps;
        if (row.line == 0)
            continue;
        EXPECT_EQ(gaps[0]["line"], row.line) << gaps;
        EXPECT_EQ(gaps[0]["first"], row.first) << gaps;
        EXPECT_EQ(gaps[0]["selectedBy"], row.selectors) << gaps;
        EXPECT_EQ(gaps[0]["last"], row.last) << gaps;
        // Each torn change and each finished one but the last.
        EXPECT_EQ(gaps[0]["runs"], 2 * (row.last - row.first + 1) - 1) << gaps;
    }
}

TEST_F(Sweep, AsksWhetherTheDeviceBoots) {
    File("update/image", Pattern(Device::kBlock, 1));
    // A normal read of a raw write gives the data only with an ECC of the chip's own.
    // Data without ECC, and pages that read well once, are no environment.
    File("update/flashrig.script", "setenv 4000 4000 bootslot b\n");
    const auto unreadable = Run("--sweep cut --torn bare,unstable --boot-env 0x4000,16K")[0]["unbootable"][0];
    EXPECT_EQ(unreadable["last"], 33) << m_outcome.out;
    EXPECT_EQ(unreadable["runs"], 2 * 33 - 1) << m_outcome.out; // the last page is zeros, whose ECC is 0xFF
    File("update/flashrig.script", "write 8000 8000 image\n");
    const std::string boots =
        "--ecc chip --sweep cut --boots '[ ! -e /tmp/booted ] && touch /tmp/booted && "
        "dd if=/dev/mtd12 bs=512 skip=64 count=1 2>/dev/null | cmp -s -n 512 - /tmp/update/image' ";
    const auto replayed = Run(boots)[0];
    // From the erase until the first page is whole.
    const auto gap = replayed["unbootable"][0];
    EXPECT_EQ(gap["first"], 1) << replayed;
    EXPECT_EQ(gap["last"], 3) << replayed;
    EXPECT_EQ(replayed, Run(boots + "--exact")[0]);
}

TEST_F(Sweep, MergesShardsIntoTheWholeReport) {
    File("update/flashrig.script", "write 8000 8000 image\nsetenv 4000 4000 bootslot b\n");
    File("update/image", Pattern(Device::kBlock, 1));
    const std::string command = std::string("flashsim") + kChip + "--keep 1 --sweep cut --sweep bad --sets 3 ";
    ASSERT_EQ(Shell(command + "--report whole.json update").status, 1);
    // The last shard holds none of the failures and no cut in the kept range.
    EXPECT_EQ(Shell("parallel --joblog jobs '" + command +
                    "--shard {}/4 --report {}.json update >{}.log 2>&1' ::: 1 2 3 4"
                    "; sort -n jobs | tail -n +2 | cut -f 7 | tr -d '\\n'")
                  .out,
              "1110");
    EXPECT_NE(ReadAll(m_folder / "4.log").find("each of 3 blocks bad in turn, then 3 sets of bad blocks"),
              std::string::npos);
    ASSERT_EQ(Shell("flashsim merge 3.json 1.json 4.json 2.json >merged.json").status, 1);
    EXPECT_EQ(ReadAll(m_folder / "merged.json"), ReadAll(m_folder / "whole.json"));
    EXPECT_EQ(Shell("flashsim merge 1.json 2.json 4.json").status, 2);
    EXPECT_EQ(Shell("flashsim merge 1.json 1.json 2.json 3.json 4.json").status, 2);
    EXPECT_EQ(Shell("GTEST_TOTAL_SHARDS=4 GTEST_SHARD_INDEX=1 " + command + "--report ci.json update").status, 1);
    EXPECT_EQ(ReadAll(m_folder / "ci.json"), ReadAll(m_folder / "2.json"));
}

TEST_F(Sweep, PairsTroublesAndStartsFromEarlierReleases) {
    File("old/flashrig.script", "setenv 4000 4000 version 1\n");
    File("update/flashrig.script", "setenv 4000 4000 version 2\n");
    const auto sweep = Run("--sweep pairs --sets 60 --torn half")[0];
    EXPECT_EQ(sweep["done"], 60);
    ASSERT_GT(sweep["failures"].size(), 0U);
    for (const auto &failure : sweep["failures"]) {
        if (failure["secondCut"].is_null())
            continue;
        Shell(failure["command"]);
        EXPECT_EQ(
            ReadAll(m_folder / ("pair" + std::to_string(failure["run"].get<int>()) + ".nand")).find("bootdelay=3"),
            std::string::npos);
        break;
    }
    Shell(std::string("flashsim") + kChip + "--flash new.nand --after old --raw old");
    EXPECT_NE(ReadAll(m_folder / "new.nand").find("version=1"), std::string::npos);
    // The release after the old one has erased the environment.
    File("erasing/flashrig.script", "erase 4000 4000\n");
    const Outcome paths = Shell(std::string("flashsim") + kChip +
                                "--used --history old --history old,erasing --report paths.json update quiet");
    EXPECT_EQ(paths.status, 1);
    EXPECT_NE(paths.out.find("\nupgrade path old, update: clean\nupgrade path old, erasing, update: NOT clean\n"),
              std::string::npos)
        << paths.out << paths.err;
    EXPECT_NE(ReadAll(m_folder / "paths.1.json").find("\"clean\""), std::string::npos);
    EXPECT_NE(ReadAll(m_folder / "paths.2.json").find("environment-absent"), std::string::npos);
}

TEST_F(Sweep, EndsAtASignalWithTheResultSoFar) {
    File("update/flashrig.script", "erase 8000 4000\n");
    File("update/image", Pattern(std::size_t{8} * Device::kBlock, 1));
    File("slow", "#!/bin/sh\nsleep 0.1; dd if=$1/image of=/dev/mtd12 bs=512 conv=notrunc status=none\n");
    const Outcome outcome = Shell("export TMPDIR=$PWD/tmp; flashsim" + std::string(kChip) +
                                  "--program ./slow --sweep cut --exact update >out 2>&1 & "
                                  "until grep -q ^verdict out; do sleep 0.01; done; kill -TERM $!; wait $!; ls tmp");
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(ReadAll(m_folder / "out").find(" interrupted "), std::string::npos);
}
