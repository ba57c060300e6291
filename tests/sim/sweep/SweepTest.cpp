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
    // Four blocks and one; five erases and 65 pages.
    const int planned[] = {5 + 8, 5 + 65, m_requests};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(sweeps[i]["runs"], planned[i]) << sweeps[i];
        EXPECT_EQ(sweeps[i]["held"], planned[i]) << sweeps[i];
    }
    EXPECT_EQ(Run("--root root --sweep cut --every 7", "image.tar")[0]["held"], 10);
    EXPECT_NE(m_outcome.out.find("\nsweep cut: power cut at one in 7 of 70 changes, then the update run again: "
                                 "10 of 10 runs passed\n"),
              std::string::npos)
        << m_outcome.out;
}

TEST_F(Sweep, NamesTheVariablesThatACutDestroys) {
    File("update/flashrig.script", "setenv 4000 4000 bootslot b\n");
    const auto sweep = Run("--sweep cut")[0];
    EXPECT_EQ(m_outcome.status, 1);
    EXPECT_EQ(sweep["done"], 33);
    ASSERT_EQ(sweep["failures"].size(), 1U) << sweep;
    const auto failure = sweep["failures"][0];
    EXPECT_EQ(failure["cut"], 1);
    EXPECT_EQ(failure["line"], 1);
    EXPECT_NE(std::string(failure["happens"]).find(" not restore bootcmd, bootdelay, ethaddr, serial"),
              std::string::npos);
    EXPECT_EQ(sweep["unsealed"][0]["runs"], 33);

    // The command shows it, and without the cut nothing is lost.
    Shell(failure["command"]);
    const std::string cut = ReadAll(m_folder / "cut1.nand");
    EXPECT_NE(cut.find("bootslot=b"), std::string::npos);
    EXPECT_EQ(cut.find("bootdelay=3"), std::string::npos);
    Shell("flashsim" + std::string(kChip) + "--used --flash whole.nand update");
    EXPECT_NE(ReadAll(m_folder / "whole.nand").find("bootdelay=3"), std::string::npos);
    // A kept chip is where the runs start, and stays as it is.
    const auto kept = Run("--flash cut1.nand --sweep cut --every 2")[0]["failures"];
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

TEST_F(Sweep, EndsAtASignalWithTheResultSoFar) {
    File("update/flashrig.script", "erase 8000 4000\n");
    File("update/image", Pattern(std::size_t{8} * Device::kBlock, 1));
    File("slow", "#!/bin/sh\nsleep 0.1; dd if=$1/image of=/dev/mtd12 bs=512 conv=notrunc status=none\n");
    const Outcome outcome = Shell("export TMPDIR=$PWD/tmp; flashsim" + std::string(kChip) +
                                  "--program ./slow --sweep cut update >out 2>&1 & "
                                  "until grep -q ^verdict out; do sleep 0.01; done; kill -TERM $!; wait $!; ls tmp");
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(ReadAll(m_folder / "out").find(" interrupted "), std::string::npos);
}
