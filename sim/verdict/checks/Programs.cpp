#include "verdict/Checks.h"

namespace {

Finding FindingOf(const ProgramNote &note) {
    switch (note.kind) {
    case ProgramNoteKind::ForeignProgram:
        return ForRun(FindingId::ForeignProgram, note.program + " is for another processor: it can't run here");
    case ProgramNoteKind::StaticProgram:
        return ForRun(FindingId::StaticProgram,
                      note.program + " is linked statically: it ran, but the simulated flash refused its requests");
    case ProgramNoteKind::UpdaterReplaced:
        return ForRun(FindingId::ReplacedProgram,
                      note.program + " is for another processor: the updater under test ran in its place");
    case ProgramNoteKind::UbiformatReplaced:
        return ForRun(FindingId::ReplacedProgram,
                      note.program + " is for another processor: this machine's ubiformat ran in its place");
    case ProgramNoteKind::Unserved:
        break;
    }
    return ForRun(FindingId::UnservedRequest,
                  note.program + " asked for the " + note.subject + ", which the simulator can't serve");
}

} // namespace

/// Programs whose work on flash was not what it would be on the device.
std::vector<Finding> CheckPrograms(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (const ProgramNote &note : facts.record.programs)
        findings.push_back(FindingOf(note));
    return findings;
}
