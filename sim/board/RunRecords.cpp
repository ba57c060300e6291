#include "board/RunRecords.h"

RunRecord RecordOf(const RunSettings &settings, const RunOutcome &outcome, const SimState &state) {
    RunRecord record;
    record.script = outcome.script;
    record.files = outcome.files;
    record.contents = outcome.contents;
    record.devices = settings.sim.devices;
    record.status = outcome.status;
    record.out = outcome.out;
    record.err = outcome.err;
    record.isOverdue = outcome.isOverdue;
    record.isOutputCut = outcome.isCut;
    record.excess = outcome.excess;
    record.leftPrograms = outcome.leftPrograms;
    record.trace = state.TraceText();
    record.programs = state.ProgramNotes();
    record.updater = UpdaterRecord(state.RecordText());
    record.cutPlace = state.CutPlace();
    record.absent = AbsentTroubles(settings.sim, state);
    record.assumesDevices = settings.assumesDevices;
    record.missingSysfs = settings.missingSysfs;
    return record;
}
