#include "mtd/SimState.h"
#include "chip/ChipFile.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace {

constexpr NandGeometry kGeometry = {0x100000, 0x20000, 2048, 64};
constexpr std::uint64_t kTraceLimit = 10000;

/// A folder with the files of a run.
class SimStateTest : public testing::Test {
protected:
    SimStateTest() : folder(testing::TempDir() + "simstateXXXXXX") {
        if (mkdtemp(folder.data()) == nullptr)
            throw std::runtime_error("no folder for the test");
    }
    ~SimStateTest() override { std::filesystem::remove_all(folder); }

    void Begin(const SimSettings &settings = {}) const {
        ChipFile::Create(chipPath(), kGeometry, Ecc::Host, {3});
        SimState::Create(statePath(), settings);
    }

    /// @return what opening a chip complains about
    std::string Complaint() const {
        try {
            const ChipFile file(chipPath());
        } catch (const std::runtime_error &problem) {
            return problem.what();
        }
        return "";
    }

    std::string chipPath() const { return folder + "/chip"; }
    std::string statePath() const { return folder + "/state"; }

    std::string folder;
};

} // namespace

TEST_F(SimStateTest, ChipIsTheSameInEveryProcess) {
    Begin();
    ChipFile one(chipPath());
    const ChipFile other(chipPath());
    const std::uint8_t data[] = {1, 2, 3, 4};
    NandChip::PageProgram program;
    program.data = data;
    program.length = sizeof data;
    one.Chip().Program(1, program);
    EXPECT_EQ(other.Chip().Cells(1)[3], 4);
    EXPECT_EQ(other.Chip().Mark(0), BlockMark::WrittenWithoutErase);
    EXPECT_TRUE(other.Chip().IsBad(3));
    EXPECT_EQ(other.Chip().EccMode(), Ecc::Host);
    std::ifstream file(chipPath(), std::ios::binary);
    file.seekg(2048 + 64 + 2);
    EXPECT_EQ(file.get(), 3);
}

TEST_F(SimStateTest, FilesThatAreNoChipAreRefused) {
    EXPECT_EQ(Complaint(), chipPath() + ".chip: No such file or directory");
    Begin();
    std::filesystem::resize_file(chipPath(), 1000);
    EXPECT_EQ(Complaint(), chipPath() + ": has 1000 bytes, its chip has 1081344");
    std::ofstream(chipPath() + ".chip") << "something else";
    EXPECT_EQ(Complaint(), chipPath() + ".chip: isn't the description of a simulated chip");
    EXPECT_THROW(ChipFile::Create(chipPath(), kGeometry, Ecc::Host, {8}), std::runtime_error);
    EXPECT_THROW(SimState{chipPath()}, std::runtime_error);
}

TEST_F(SimStateTest, FaultsAreReadAndHitTheirRequests) {
    const struct {
        const char *text;
        bool good;
        SimFault fault;
    } rows[] = {
        {"MEMWRITE:3=EIO", true, {RequestKind::WritePage, 3, EIO}},
        {"MEMERASE64=ENOTTY", true, {RequestKind::Erase64, 0, ENOTTY}},
        {"open=19", true, {RequestKind::Open, 0, ENODEV}},
        {"MEMWRITE:0=EIO", false, {}},
        {"MEMWRITE:x=EIO", false, {}},
        {"MEMWRIT=EIO", false, {}},
        {"read=EWHAT", false, {}},
        {"read", false, {}},
    };
    SimSettings settings;
    for (const auto &row : rows) {
        SimFault fault = {};
        EXPECT_EQ(ParseFault(row.text, fault), row.good) << row.text;
        EXPECT_EQ(std::tie(fault.kind, fault.nth, fault.error),
                  std::tie(row.fault.kind, row.fault.nth, row.fault.error))
            << row.text;
        if (row.good)
            settings.faults.push_back(fault);
    }
    Begin(settings);
    SimState one(statePath());
    SimState other(statePath());
    EXPECT_EQ(one.Begin(RequestKind::WritePage), 0);
    EXPECT_EQ(other.Begin(RequestKind::WritePage), 0);
    EXPECT_EQ(one.Begin(RequestKind::WritePage), EIO);
    EXPECT_EQ(other.Begin(RequestKind::WritePage), 0);
    EXPECT_EQ(one.Begin(RequestKind::Erase64), ENOTTY);
    EXPECT_EQ(other.Begin(RequestKind::Erase64), ENOTTY);
    EXPECT_EQ(one.Requests(RequestKind::WritePage), 4U);
}

TEST_F(SimStateTest, TraceKeepsWholeLinesUpToItsLimit) {
    SimSettings settings;
    settings.traceLimit = 10;
    Begin(settings);
    SimState state(statePath());
    SimState(statePath()).Trace("one");
    state.Trace("three");
    EXPECT_EQ(state.TraceText(), "one\nthree\n");
    EXPECT_FALSE(state.TraceOverflowed());
    state.Trace("more");
    EXPECT_EQ(state.TraceText(), "one\nthree\n");
    EXPECT_TRUE(state.TraceOverflowed());
}

TEST_F(SimStateTest, PowerCutKillsEveryProcessThatGoesOn) {
    SimSettings settings;
    settings.cutAtChange = 2;
    settings.traceLimit = kTraceLimit;
    Begin(settings);
    SimState state(statePath());
    EXPECT_EQ(state.BeginChange(), Extent::Whole);
    EXPECT_EQ(state.CutPlace(), "");
    const auto lastChange = [&] {
        state.Begin(RequestKind::Erase);
        if (state.BeginChange() == Extent::FirstHalf)
            state.PowerOff(0x20000);
    };
    EXPECT_EXIT(lastChange(), testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ(state.CutPlace(), "MEMERASE at 0x20000");
    EXPECT_EQ(state.TraceText(), "power cut during MEMERASE at 0x20000\n");
    EXPECT_EXIT(state.Begin(RequestKind::Read), testing::KilledBySignal(SIGKILL), "");
}

TEST_F(SimStateTest, ProgramsUnderThePreloadLibrarySeeTheDevices) {
    SimSettings settings;
    settings.devices = {{0, "boot", 0, 0x40000}, {12, "all", 0, kGeometry.size}};
    settings.traceLimit = kTraceLimit;
    Begin(settings);
    const std::string script = "cd " + folder +
                               "; head -c 4096 /dev/zero >image"
                               "; cat /proc/mtd >table"
                               "; cat image >/dev/mtd0"
                               "; exec 3<>/dev/mtd12; dd bs=2048 count=2 of=copy <&3 2>/dev/null"
                               "; dd bs=1 count=1 <&3 2>/dev/null | od -An -tx1 >next"
                               "; cmp image copy && grep -q all /proc/mtd";
    const std::string command = "LD_PRELOAD=" FLASHSIM_PRELOAD " FLASHSIM_CHIP=" + chipPath() +
                                " FLASHSIM_STATE=" + statePath() + " sh -c '" + script + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    const auto text = [this](const char *name) {
        std::ifstream file(folder + "/" + name);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    EXPECT_EQ(text("table"), "dev:    size   erasesize  name\n"
                             "mtd0: 00040000 00020000 \"boot\"\n"
                             "mtd12: 00100000 00020000 \"all\"\n");
    EXPECT_EQ(text("next"), " ff\n");
    const std::string trace = SimState(statePath()).TraceText();
    EXPECT_NE(trace.find("write mtd0 length=4096 = 4096\n"), std::string::npos) << trace;
    EXPECT_NE(trace.find("read mtd12 length=2048 = 2048\nread mtd12 length=2048 = 2048\n"), std::string::npos) << trace;
}
