#include "board/BoardFinds.h"
#include "board/BoardRun.h"

#include "../verdict/TestChip.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

constexpr NandGeometry kGeometry = {8 << 20, 131072, 2048, 64};
constexpr const char *kSum = "7aa7a5359173d05b63cfd682e3c38487f3cb4f7f1d60659fe59fab1505977d4c";

/// @return the line of an exception; empty for none.
std::string Refusal(const std::function<void()> &run) {
    try {
        run();
    } catch (const std::invalid_argument &refusal) {
        return refusal.what();
    }
    return "";
}

BoardFinds Finds() {
    BoardFinds finds;
    // What the board's script prints.
    ReadFound(std::string("environment 1048576 131072\nvariable version=2\nvariable a = b\nenvironment 1179648 131072\n"
                          "invalid Cannot read environment, using default\nrefused 3 no volume table\nattached 9\n"
                          "volume opt\nfile ") +
                  kSum + "  ./bin/app\nfile " + kSum + "  ./a b\nvolume data\nunmounted no UBIFS\nnoise\n",
              finds);
    return finds;
}

} // namespace

TEST(Board, RefusesWithOneLineWhatItsKernelCannotBe) {
    const struct {
        NandGeometry geometry;
        const char *refusal;
    } geometries[] = {
        {kGeometry, ""},
        {{1 << 20, 16384, 512, 16}, ""},
        {{8 << 20, 262144, 4096, 128}, ""},
        {{8 << 20, 262144, 4096, 256}, "pages with OOB of 512+16, 2048+64 and 4096+128 bytes only"},
        {{1 << 20, 32768, 512, 16}, "erase blocks of 16 KiB only where pages have 512 bytes"},
        {{8 << 20, 32768, 2048, 64}, "erase blocks from 64 to 512 KiB only"},
        {{16 << 20, 1 << 20, 2048, 64}, "erase blocks from 64 to 512 KiB only"},
        {{6 << 20, 131072, 2048, 64}, "chips with a power of two of erase blocks only"},
    };
    for (const auto &row : geometries)
        EXPECT_EQ(Refusal([&] { CheckBoard({}, TestChip(row.geometry).chip); }),
                  (*row.refusal == '\0' ? "" : "the board has ") + std::string(row.refusal));

    RunSettings faults, sysfs, unstable, arguments, starts;
    faults.sim.faults.emplace_back();
    sysfs.missingSysfs = {"oobsize"};
    unstable.sim.cutAtChange = 1;
    unstable.sim.cutExtent = Extent::Unstable;
    arguments.arguments = {"a\nb"};
    starts.starts = {"true\n"};
    TestChip good(kGeometry), aged(kGeometry), own(kGeometry, Ecc::Chip);
    aged.chip.Erase(7, Extent::Unstable);
    const struct {
        const RunSettings settings;
        const TestChip &chip;
        const char *refusal;
    } runs[] = {
        {faults, good, "failing requests; leave out --fault"},
        {unstable, good, "unstable pages; use another state of --cut"},
        {{}, aged, "unstable pages, and the chip has one in block 7"},
        {arguments, good, "arguments, mounts or commands with line ends"},
        {starts, good, "arguments, mounts or commands with line ends"},
        {{}, own, "chip that computes its own ECC; use --ecc host"},
    };
    for (const auto &row : runs)
        EXPECT_EQ(Refusal([&] { CheckBoard(row.settings, row.chip.chip); }),
                  std::string("the board has no ") + row.refusal);
    EXPECT_EQ(Refusal([&] { CheckBoard(sysfs, good.chip); }), "the board has all sysfs files; leave out --no-sysfs");
}

TEST(Board, ReadsExpectedFilesAndRefusesOtherLists) {
    const std::string path = testing::TempDir() + "/expected";
    const auto read = [&path](const std::string &text) {
        std::ofstream(path) << text;
        return ReadExpectedFiles(path);
    };
    const std::string sum = kSum;
    const std::vector<ExpectedFile> files = read(sum + "  opt/bin/app\n\n" + sum + " *./data/a b\n");
    ASSERT_EQ(files.size(), 2U);
    EXPECT_EQ(files[0].volume + "|" + files[0].path + "|" + files[0].sum, "opt|bin/app|" + sum);
    EXPECT_EQ(files[1].volume + "|" + files[1].path, "data|a b");
    for (const std::string &line : {sum, sum + "  opt", sum + "  /opt", sum + "  opt/", sum + " opt/x",
                                    sum.substr(1) + "  opt/x", sum + "0  opt/x", "\\" + sum + "  opt/x"})
        EXPECT_EQ(Refusal([&] { read(sum + "  opt/x\n" + line + "\n"); }),
                  path + ":2: not a line of sha256sum with a path VOLUME/PATH")
            << line;
    EXPECT_EQ(Refusal([&] { read("\n"); }), path + " expects no file");
}

TEST(Board, TellsWhatTheKernelFoundInTextAndReport) {
    BoardFinds finds = Finds();
    finds.kernelLog = {"[ 1.0] line"};
    finds.counters = {{9, 1, 2, 3}};
    EXPECT_EQ(FindsText(finds), std::string("environment at 0x100000: version=2\n"
                                            "environment at 0x100000: a = b\n"
                                            "environment at 0x120000: fw_printenv: Cannot read environment, using "
                                            "default\n"
                                            "mtd3: UBI does not attach: no volume table\nmtd9: UBI attaches\n"
                                            "mtd9: volume opt: UBIFS with 2 files\nmtd9: volume opt: ") +
                                    kSum + "  bin/app\nmtd9: volume opt: " + kSum +
                                    "  a b\nmtd9: volume data: not mounted as UBIFS: no UBIFS\n");
    const nlohmann::ordered_json report = DescribeFinds(finds);
    EXPECT_EQ(report["counters"].dump(), R"([{"device":9,"corrected":1,"failed":2,"badBlocks":3}])");
    EXPECT_EQ(report["environments"][0].dump(),
              R"({"offset":1048576,"size":131072,"valid":true,"reason":"","variables":["version=2","a = b"]})");
    EXPECT_FALSE(report["environments"][1]["valid"]);
    EXPECT_EQ(report["ubi"][1]["volumes"][0]["files"][1]["path"], "a b");
    EXPECT_EQ(report["kernelLog"][0], "[ 1.0] line");
}

TEST(Board, JudgesEnvironmentsOfTheScriptAndExpectedFiles) {
    const TestChip chip(kGeometry);
    const std::vector<SimDevice> devices = {{12, "all", 0x20000, 0x400000}};
    const std::vector<SetRange> ranges =
        FindSetRanges(ReadUpdateLines("setenv e0000 20000 a b\nsetenv 100000 20000 a b\nsetenv a b\nerase 0 20000\n"
                                      "setenv 400000 20000 a b\nsetenv 100 20000 a b\n"),
                      chip.chip, devices);
    ASSERT_EQ(ranges.size(), 2U);
    EXPECT_EQ(ranges[1].offset, 0x120000);
    const std::string sum = kSum, other(64, '0');
    const std::vector<Finding> findings =
        JudgeFinds(Finds(), ranges,
                   {{sum, "opt", "bin/app"}, {other, "opt", "bin/app"}, {sum, "opt", "none"}, {sum, "data", "x"}});
    std::string text;
    for (const Finding &finding : findings)
        text += std::to_string(finding.line) + " " + finding.kind + ": " + finding.happens + "\n";
    EXPECT_EQ(text, "2 environment-unreadable: fw_printenv on the board can't read the environment: Cannot read "
                    "environment, using default\n"
                    "0 unexpected-file: opt/bin/app has the SHA-256 " +
                        sum + ", not " + other +
                        "\n0 unexpected-file: opt/none is missing\n"
                        "0 unexpected-file: data/x is expected, and the board's kernel mounts no volume data\n");
}
