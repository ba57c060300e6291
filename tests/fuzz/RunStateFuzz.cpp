// The state of a run after programs of the update have written to it, as the tool reads it then. The input is a list of
// changes: two bytes for the place (from 0x8000 on in the trace), a byte for the length, and the bytes.

#include "Fuzz.h"
#include "base/SharedFile.h"
#include "board/RunRecords.h"
#include "chip/ChipFile.h"
#include "mtd/RunSteps.h"
#include "report/Report.h"
#include "report/RunSummary.h"
#include "verdict/Verdict.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

namespace {

constexpr std::size_t kPart = 0x8000;

/// A finished run of which the state is changed.
struct Run {
    Run() : chipPath(FuzzFolder().File("flash")), statePath(FuzzFolder().File("state")) {
        ChipFile::Create(chipPath, {0x40000, 0x4000, 512, 16}, Ecc::Host, {3});
        settings.sim.devices = {{0, "boot", 0, 0x8000}, {12, "all", 0, 0x40000}};
        settings.sim.faults = {{RequestKind::WritePage, 3, EIO}};
        settings.sim.traceLimit = kPart;
        outcome.script = "write 0 8000 image\n";
        outcome.files = {{"image", 1024}};
        outcome.contents = {{"image", std::string(1024, 'x')}};
        SimState::Create(statePath, settings.sim);
        SimState state(statePath);
        state.Begin(RequestKind::Erase);
        state.BeginChange(0);
        state.Trace("MEMERASE mtd12 start=0x0 length=0x4000 = 0");
        state.Note(0x200, "programmed over unerased bits");
        state.Record(RecordLine(RecordKind::Out, "Write image\n", 12));
        state.NoteProgram({ProgramNoteKind::Unserved, "tool", "mmap of /dev/mtd0"});
        state.NewOpenFile({});
    }

    std::string chipPath, statePath;
    RunSettings settings;
    RunOutcome outcome;
};

void ReadState(const Run &run) {
    SimState state(run.statePath);
    const ChipFile chip = ChipFile::OpenPrivate(run.chipPath);
    state.DeviceTable(0x4000);
    std::size_t length = 0;
    const std::uint8_t *bytes = state.RecordBytes(length);
    std::vector<RunStep> steps;
    ReadSteps(bytes, length, chip.Chip().Geometry(), steps);
    const RunRecord record = RecordOf(run.settings, run.outcome, state);
    const Verdict verdict = Judge(RunFacts(record, chip.Chip()));
    static_cast<void>(MakeReport(record, verdict, chip.Chip(), state));
    static_cast<void>(VerdictText(verdict, "script"));
    static_cast<void>(RunSummary(chip.Chip(), state, run.outcome).Text(80, false));
    state.Restart(run.settings.sim);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    static const Run run;
    static const SharedFile file = SharedFile::Open(run.statePath);
    std::uint8_t *const parts[] = {file.Data(), file.Data() + file.Size() - kPart};
    static const std::vector<std::uint8_t> before[] = {{parts[0], parts[0] + kPart}, {parts[1], parts[1] + kPart}};
    Input input(bytes, size);
    while (input.Left() != 0) {
        const std::size_t place = std::size_t{input.Byte()} << 8 | input.Byte();
        for (std::size_t i = 0, length = input.Byte(); i < length && input.Left() != 0; ++i)
            parts[place / kPart][std::min(place % kPart + i, kPart - 1)] = input.Byte();
    }
    MayRefuse([] { ReadState(run); });
    for (std::size_t i = 0; i < 2; ++i)
        std::copy(before[i].begin(), before[i].end(), parts[i]);
    return 0;
}
