// The lines of a trace and of the updater's own record. The input is one of both.

#include "Fuzz.h"
#include "mtd/Trace.h"
#include "mtd/UpdaterRecord.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const std::string text(reinterpret_cast<const char *>(bytes), size);
    const TraceCalls calls(text);
    for (const ShellCall &call : calls.shellCalls)
        ShellCallText(call.command.c_str());
    const UpdaterRecord record(text);
    RecordLine(RecordKind::Out, record.out.data(), record.out.size());
    return 0;
}
