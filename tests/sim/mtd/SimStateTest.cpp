#include "mtd/SimState.h"
#include "base/TempFolder.h"
#include "chip/ChipFile.h"
#include "mtd/DeviceText.h"
#include "mtd/Trace.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr NandGeometry kGeometry = {0x100000, 0x20000, 2048, 64};
constexpr std::uint64_t kSmallTrace = 10000;

/// The files of a run.
class SimStateTest : public testing::Test {
protected:
    SimState Begin(const SimSettings &settings = {}) const {
        ChipFile::Create(chipPath(), kGeometry, Ecc::Host, {3});
        SimState::Create(statePath(), settings);
        return SimState(statePath());
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

    std::string chipPath() const { return folder.File("chip"); }
    std::string statePath() const { return folder.File("state"); }

    const TempFolder folder;
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
        SimFault fault;
    } rows[] = {{"MEMWRITE:3=EIO", {RequestKind::WritePage, 3, EIO}},
                {"MEMERASE64=ENOTTY", {RequestKind::Erase64, 0, ENOTTY}},
                {"open=19", {RequestKind::Open, 0, ENODEV}}};
    SimSettings settings;
    for (const auto &row : rows) {
        const SimFault fault = ReadFault(row.text);
        EXPECT_EQ(std::tie(fault.kind, fault.nth, fault.error),
                  std::tie(row.fault.kind, row.fault.nth, row.fault.error))
            << row.text;
        settings.faults.push_back(fault);
    }
    for (const char *text : {"MEMWRITE:0=EIO", "MEMWRITE:x=EIO", "MEMWRIT=EIO", "read=EWHAT", "read"})
        EXPECT_THROW(ReadFault(text), std::invalid_argument) << text;
    SimState one = Begin(settings);
    SimState other(statePath());
    for (const int error : {0, EIO}) {
        EXPECT_EQ(one.Begin(RequestKind::WritePage), error);
        EXPECT_EQ(other.Begin(RequestKind::WritePage), 0);
        EXPECT_EQ(one.Begin(RequestKind::Erase64), ENOTTY);
    }
    EXPECT_EQ(one.Requests(RequestKind::WritePage), 4U);
}

TEST_F(SimStateTest, TraceKeepsWholeLinesUpToItsLimit) {
    SimSettings settings;
    settings.traceLimit = 15;
    SimState state = Begin(settings);
    SimState(statePath()).Trace("one");
    state.Record("two");
    state.Trace("three");
    EXPECT_EQ(state.TraceText(), "one\nthree\n");
    EXPECT_EQ(state.RecordText(), "two\n") << "kept beside the trace";
    EXPECT_FALSE(state.TraceOverflowed());
    state.Trace("more");
    EXPECT_EQ(state.TraceText(), "one\nthree\n");
    EXPECT_TRUE(state.TraceOverflowed());
}

TEST_F(SimStateTest, ProgramNameStaysInItsLineOfTheTrace) {
    SimSettings settings;
    settings.traceLimit = kSmallTrace;
    SimState state = Begin(settings);
    state.SetProgram("evil\n\1c1 \x1b[2J", false, kGeometry.eraseSize);
    state.BeginChange(0x20000);
    EXPECT_EQ(state.TraceText(), PageNoteText(0x20000, "changed by evil\\x0a\\x01c1 \\x1b[2J") + "\n");
}

TEST_F(SimStateTest, PowerCutKillsEveryProcessThatGoesOn) {
    SimSettings settings;
    settings.cutAtChange = 2;
    settings.traceLimit = kSmallTrace;
    SimState state = Begin(settings);
    EXPECT_EQ(state.BeginChange(0), Extent::Whole);
    EXPECT_EQ(state.CutPlace(), "");
    const auto lastChange = [&] {
        state.Begin(RequestKind::Erase);
        if (state.BeginChange(0) == Extent::FirstHalf)
            state.PowerOff(0x20000);
    };
    EXPECT_EXIT(lastChange(), testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ(state.CutPlace(), "MEMERASE at 0x20000");
    EXPECT_EQ(state.TraceText(), "power cut during MEMERASE at 0x20000\n");
    EXPECT_EXIT(state.Begin(RequestKind::Read), testing::KilledBySignal(SIGKILL), "");
}

TEST_F(SimStateTest, CountersBeginWithTheBadBlocksOfADevice) {
    SimSettings settings;
    settings.devices = {{0, "boot", 0, 0x40000}, {1, "rest", 0x60000, 0xA0000}, {2, "all", 0, kGeometry.size}};
    Begin(settings);
    ChipFile chip(chipPath());
    SimState state(statePath());
    state.BeginCounters(chip.Chip());
    chip.Chip().SetBad(0);
    ++state.Counters(2).badBlocks;
    SimState(statePath()).BeginCounters(chip.Chip());
    EXPECT_EQ(state.Counters(0).badBlocks, 0U);
    EXPECT_EQ(state.Counters(1).badBlocks, 1U);
    EXPECT_EQ(state.Counters(2).badBlocks, 2U);
    state.Counters(0).corrected = 5;
    state.Restart(settings);
    state.BeginCounters(chip.Chip());
    EXPECT_EQ(state.Counters(0).badBlocks, 1U);
    EXPECT_EQ(state.Counters(0).corrected, 0U);
}

TEST_F(SimStateTest, NotesOfProgramsAreKeptOnceAndUpToALimit) {
    SimState state = Begin();
    const std::string path = "/tmp/" + std::string(300, 'x') + "/program";
    for (int i = 0; i < 2; ++i) {
        state.NoteProgram({ProgramNoteKind::Unserved, "tool", "mmap of /dev/mtd0"});
        SimState(statePath()).NoteProgram({ProgramNoteKind::StaticProgram, "tool", ""});
        state.NoteProgram({ProgramNoteKind::StaticProgram, path, ""});
    }
    std::vector<ProgramNote> notes = state.ProgramNotes();
    ASSERT_EQ(notes.size(), 3U);
    EXPECT_EQ(std::tie(notes[0].kind, notes[0].program, notes[0].subject),
              std::make_tuple(ProgramNoteKind::Unserved, "tool", "mmap of /dev/mtd0"));
    EXPECT_EQ(notes[1].kind, ProgramNoteKind::StaticProgram);
    EXPECT_EQ(notes[2].program, path.substr(path.size() - 127));
    for (int i = 0; i < 100; ++i)
        state.NoteProgram({ProgramNoteKind::StaticProgram, std::to_string(i), ""});
    EXPECT_EQ(state.ProgramNotes().size(), 60U);
    state.Restart({});
    EXPECT_EQ(state.ProgramNotes().size(), 0U);
}

TEST(DeviceText, DevicesAreWholeBlocksOfTheChip) {
    const struct {
        const char *text;
        std::uint64_t offset, size;
    } rows[] = {{"3:data", 0, 0x100000},
                {"3:data:0,128K", 0, 0x20000},
                {"3:data:0x20000,0xE0000", 0x20000, 0xE0000},
                {"3:data:896K,128K", 0xE0000, 0x20000},
                {"999999:data", 0, 0x100000}};
    for (const auto &row : rows) {
        const SimDevice device = ParseDevice(row.text, kGeometry);
        EXPECT_EQ(std::tie(device.name, device.offset, device.size), std::make_tuple("data", row.offset, row.size))
            << row.text;
    }
    for (const char *text : {"3:data:896K,256K", "3:data:1M,128K", "3:data:2M,128K", "3:data:64K,128K", "3:data:1,128K",
                             "3:data:0,64K", "3:data:0,0", "3:data:0", "3:data:0,128K,1",
                             "3:data:18446744073709420544,256K", "3::0,128K", "3", "x:data", "1000000:data"})
        EXPECT_THROW(ParseDevice(text, kGeometry), std::invalid_argument) << text;
}

TEST(Trace, RequestsShowTheirFields) {
    const erase_info_user range = {0x20000, 0x40000};
    const mtd_oob_buf oldOob = {0x800, 64, nullptr};
    const mtd_oob_buf64 oob = {0x100000800, 0, 64, 1};
    const loff_t offset = 0x20000;
    const mtd_read_req page = {0x800, 2048, 64, 1, 0, MTD_OPS_RAW, {}, {}};
    const region_info_user region = {0, 0, 0, 2};
    const struct {
        RequestKind kind;
        const void *argument;
        const char *text;
    } rows[] = {
        {RequestKind::Erase, &range, "MEMERASE mtd9 start=0x20000 length=0x40000"},
        {RequestKind::Lock, &range, "MEMLOCK mtd9 start=0x20000 length=0x40000"},
        {RequestKind::ReadOldOob, &oldOob, "MEMREADOOB mtd9 start=0x800 length=64 oob=null"},
        {RequestKind::WriteOob, &oob, "MEMWRITEOOB64 mtd9 start=0x100000800 length=64 oob=set"},
        {RequestKind::SetBadBlock, &offset, "MEMSETBADBLOCK mtd9 offset=0x20000"},
        {RequestKind::ReadPage, &page, "MEMREAD mtd9 start=0x800 len=2048 ooblen=64 data=set oob=null mode=2"},
        {RequestKind::GetRegionInfo, &region, "MEMGETREGIONINFO mtd9 index=2"},
        {RequestKind::GetInfo, &region, "MEMGETINFO mtd9"},
        {RequestKind::GetInfo, nullptr, "MEMGETINFO mtd9 argument=null"},
        {RequestKind::FileMode, nullptr, "MTDFILEMODE mtd9 mode=0"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(RequestText(row.kind, 9, row.argument), row.text);
    std::ifstream file(MANUALS "/flashsim.1");
    const std::string manual((std::istreambuf_iterator<char>(file)), {});
    std::set<std::string> names;
    for (std::uint32_t i = 0; i < kRequestKinds; ++i) {
        RequestKind found = {};
        const RequestRow &request = RowOf(static_cast<RequestKind>(i));
        EXPECT_TRUE(names.insert(request.name).second) << request.name;
        EXPECT_TRUE(std::regex_search(manual, std::regex(std::string("\\b") + request.name + "\\b"))) << request.name;
        EXPECT_TRUE(FindRequest(request.name, found) && static_cast<std::uint32_t>(found) == i) << request.name;
        EXPECT_EQ(request.number != 0 && FindRequest(request.number, found), request.number != 0) << request.name;
        EXPECT_EQ(static_cast<std::uint32_t>(found), i) << request.name;
    }
}

TEST(Trace, ReaderTakesWhatTheWriterWrites) {
    const std::string command = "say \"two\nlines\" \\ and more";
    const TraceCalls calls(ShellCallText("outer") + "\n" + ShellCallText(command.c_str()) + "\n" +
                           "read mtd0 length=1" + ResultText(1) + "\n" + ShellReturnText(256) + "\n" +
                           PageNoteText(0x12800, "programmed over unerased bits") + "\n" + ShellReturnText(0) + "\n" +
                           ShellReturnText(7) + "\n" + ShellCallText("last") + "\n");
    ASSERT_EQ(calls.shellCalls.size(), 3U);
    EXPECT_EQ(std::make_pair(calls.shellCalls[0].command, calls.shellCalls[0].status),
              std::make_pair(std::string("outer"), 0));
    EXPECT_EQ(std::make_pair(calls.shellCalls[1].command, calls.shellCalls[1].status), std::make_pair(command, 256));
    EXPECT_EQ(calls.shellCalls[2].status, -1);
    ASSERT_EQ(calls.notes.size(), 1U);
    EXPECT_EQ(calls.notes[0].offset, 0x12800U);
    EXPECT_EQ(calls.notes[0].text, "programmed over unerased bits");
    EXPECT_EQ(ResultText(-EIO), " = -1 EIO");
    EXPECT_EQ(ResultText(-524), " = -1 524");
    EXPECT_EQ(ResultText(0x20000, Base::Hex), " = 0x20000");
    EXPECT_EQ(OpenFlagsText(O_WRONLY | O_CREAT | O_CLOEXEC), "O_WRONLY|O_CREAT|O_CLOEXEC");
}
