#include "preload/Simulation.h"

#include "preload/Interface.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int kDescriptors = 1 << 16;

/// The numbers of open file descriptions plus 1, by descriptor; 0 for descriptors that aren't a device's.
int openFiles[kDescriptors];

/// The environment at the program's start. Copies: programs write over the original for a title of their own.
const std::vector<std::string> &StartEnvironment() {
    static const auto *strings = [] {
        auto *list = new std::vector<std::string>; // lives as long as the process
        for (char **variable = environ; variable != nullptr && *variable != nullptr; ++variable)
            list->emplace_back(*variable);
        return list;
    }();
    return *strings;
}

__attribute__((constructor)) void KeepEnvironment() { StartEnvironment(); }

} // namespace

const char *StartVariable(const char *name) {
    const std::size_t length = std::strlen(name);
    for (const std::string &variable : StartEnvironment()) {
        if (variable.compare(0, length, name) == 0 && variable[length] == '=')
            return variable.c_str() + length + 1;
    }
    return nullptr;
}

bool HasUpdaterName() {
    const char *program = StartVariable(kProgramVariable);
    return program != nullptr && std::strcmp(program, program_invocation_short_name) == 0;
}

Simulation::Simulation(const char *chipPath, const char *statePath)
    : chip(chipPath), state(statePath), devices(state.Devices()), hasNodes(StartVariable(kNodesVariable) != nullptr),
      isUpdater(HasUpdaterName() && state.ClaimUpdater()) {
    const NandGeometry &geometry = chip.Chip().Geometry();
    for (const SimDevice &device : devices) {
        const bool whole = device.offset % geometry.eraseSize == 0 && device.size % geometry.eraseSize == 0;
        if (!whole || device.offset > geometry.size || device.size > geometry.size - device.offset)
            throw std::runtime_error(device.name + ": isn't a part of the chip in whole blocks");
    }
    // The kernel's name: that of the script, where an interpreter runs one.
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    state.SetProgram(name, isUpdater, geometry.eraseSize);
    chip.Chip().LetReadsAge();
    // From here on: the counters depend on the chip too.
    if (state.Records() || state.Traces())
        chip.Chip().Listen(&state);
    state.BeginCounters(chip.Chip());
}

int Simulation::FindDevice(int number) const {
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [number](const SimDevice &device) { return device.number == number; });
    return found == devices.end() ? -1 : static_cast<int>(found - devices.begin());
}

Simulation *FindSimulation() {
    static Simulation *simulation = nullptr;
    static bool sought = false;
    if (sought)
        return simulation;
    sought = true;
    const char *chip = StartVariable(kChipVariable);
    const char *state = StartVariable(kStateVariable);
    if (chip == nullptr || state == nullptr)
        return nullptr;
    try {
        simulation = std::make_unique<Simulation>(chip, state).release(); // lives as long as the process
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "flashsim: %s\n", problem.what());
        _exit(kBrokenSetup);
    }
    return simulation;
}

void NeedPower() {
    if (const Simulation *simulation = FindSimulation())
        simulation->state.NeedPower();
}

void NoteUnserved(const std::string &subject) {
    const int error = errno;
    if (Simulation *simulation = FindSimulation())
        simulation->state.NoteProgram({ProgramNoteKind::Unserved, program_invocation_short_name, subject});
    errno = error;
}

bool IsSimulated(int fd) { return fd >= 0 && fd < kDescriptors && openFiles[fd] != 0; }

int OpenFileOf(int fd) { return openFiles[fd] - 1; }

void SetOpenFile(int fd, int openFile) {
    if (fd >= 0 && fd < kDescriptors)
        openFiles[fd] = openFile + 1;
}
