#include "preload/OwnRecord.h"

#include "mtd/ErasedLook.h"
#include "mtd/UpdaterRecord.h"
#include "preload/Next.h"
#include "preload/Simulation.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

Next<ssize_t(int, const void *, size_t)> nextWrite("write");

/// One of the program's streams: on the way to its descriptor, what is printed is recorded as the program's own.
/// Programs that it starts write to the descriptor alone.
struct OwnStream {
    RecordKind kind;
    int descriptor;
    char buffer[4096]; ///< as large as that of a pipe

    static ssize_t Write(void *stream, const char *text, size_t length) {
        const auto *own = static_cast<const OwnStream *>(stream);
        if (SimState *state = ProgramTrace())
            state->Record(RecordLine(own->kind, text, length));
        for (size_t done = 0; done < length;) {
            const ssize_t written = nextWrite(own->descriptor, text + done, length - done);
            if (written < 0 && errno != EINTR)
                return 0; // an error for stdio
            done += written > 0 ? static_cast<size_t>(written) : 0;
        }
        return static_cast<ssize_t>(length);
    }
};

OwnStream ownOut = {RecordKind::Out, STDOUT_FILENO, {}};
OwnStream ownErr = {RecordKind::Err, STDERR_FILENO, {}};

/// Takes over the streams of the program under test before it prints anything, buffered as libc would.
__attribute__((constructor)) void RecordOwnStreams() {
    if (ProgramTrace() == nullptr)
        return;
    const cookie_io_functions_t functions = {nullptr, OwnStream::Write, nullptr, nullptr};
    FILE *out = fopencookie(&ownOut, "w", functions);
    FILE *err = fopencookie(&ownErr, "w", functions);
    if (out == nullptr || err == nullptr)
        return;
    std::setvbuf(out, ownOut.buffer, isatty(STDOUT_FILENO) == 1 ? _IOLBF : _IOFBF, sizeof ownOut.buffer);
    std::setvbuf(err, nullptr, _IONBF, 0);
    stdout = out;
    stderr = err;
}

} // namespace

SimState *ProgramTrace() {
    static const bool hasName = HasUpdaterName();
    if (!hasName)
        return nullptr;
    Simulation *simulation = FindSimulation();
    return simulation != nullptr && simulation->isUpdater && simulation->state.Traces() ? &simulation->state : nullptr;
}

void RecordRead(std::uint64_t offset, const void *data, std::size_t length) {
    if (SimState *state = ProgramTrace())
        state->Record(RecordLine(RecordKind::Read, data, length, offset));
}

void RecordErased(std::uint64_t start, std::uint64_t length) {
    Simulation &simulation = *FindSimulation();
    const NandChip &chip = simulation.chip.Chip();
    const NandGeometry &geometry = chip.Geometry();
    if (!simulation.state.Traces() || start >= geometry.size)
        return;
    const std::uint64_t end = start + std::min(length, geometry.size - start);
    for (std::uint64_t at = start; at < end; at += geometry.eraseSize) {
        const std::string line = ErasedLine(chip, static_cast<std::uint32_t>(at / geometry.eraseSize));
        if (!line.empty())
            simulation.state.Record(line);
    }
}
