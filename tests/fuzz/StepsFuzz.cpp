// The record of a run's steps, which the preload library writes inside the sandbox, and what a sweep makes of it. The
// input is the record.

#include "Fuzz.h"
#include "chip/ChipFile.h"
#include "mtd/RunSteps.h"
#include "sweep/ChangeReplay.h"
#include "sweep/KnownRun.h"
#include "sweep/ReferenceRun.h"
#include "sweep/SweepJudge.h"

namespace {

constexpr NandGeometry kGeometry = {0x40000, 0x4000, 512, 16};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    static const std::string path = FuzzFolder().File("flash");
    static const bool isMade = (ChipFile::Create(path, kGeometry, Ecc::Host, {3}), true);
    static const ChipFile start = ChipFile::OpenPrivate(path);
    static_cast<void>(isMade);
    std::vector<RunStep> steps;
    if (!ReadSteps(bytes, size, kGeometry, steps))
        return 0;
    const std::vector<UpdateLine> lines = ReadUpdateLines("write 0 8000 image\nsetenv 8000 4000 a b\nsetenv a b\n");
    RunOutcome outcome;
    ReferenceRun reference = {{{12, "all", 0, kGeometry.size}},
                              lines,
                              {},
                              outcome,
                              FollowRun(lines, "", "", false),
                              {},
                              0,
                              start.Chip(),
                              {},
                              {},
                              {},
                              {},
                              {}};
    for (std::uint64_t &count : reference.requests)
        count = steps.size();
    reference.TakeSteps(steps);
    ChangeReplay replay(path, steps);
    std::uint64_t changes = 0;
    bool isMarked = false;
    for (const RunStep &step : steps) {
        changes += step.IsChange() ? 1 : 0;
        isMarked = isMarked || step.kind == RunStep::Kind::MarkBad;
    }
    const SweepJudge judge(reference);
    if (!isMarked) {
        KnownRun known(steps, outcome, start.Chip(), start.Chip(), judge, FirstRun::Cut);
        replay.AdvanceTo(changes + 1, [&](std::uint32_t block) { known.Follow(replay.Chip(), block); });
        std::optional<SweepComplaint> complaint;
        known.Judge(replay.Chip(), 1, {}, complaint);
    }
    judge.JudgeCut(replay.Chip(), 1, outcome);
    return 0;
}
