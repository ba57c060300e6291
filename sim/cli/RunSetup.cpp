#include "cli/RunSetup.h"

#include "base/Text.h"
#include "chip/ChipFile.h"
#include "mtd/DeviceText.h"
#include "verdict/UsedChip.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <tuple>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// Room that a trace may take: that of a gigabyte written page by page.
constexpr std::uint64_t kTraceLimit = std::uint64_t{1} << 30;
constexpr const char *kUsualChip = "32M,128K,2K,64";
constexpr const char *kUsualEcc = "host";

/// Finds a file that is built or installed with this program.
std::string Companion(const char *name) {
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path &folder : {here, here / "../lib/flashsim"}) {
        if (fs::exists(folder / name))
            return folder / name;
    }
    throw std::runtime_error(std::string("can't find ") + name + " beside this program");
}

void AddDevice(const SimDevice &device, std::vector<SimDevice> &devices) {
    if (std::any_of(devices.begin(), devices.end(), [&](const SimDevice &it) { return it.number == device.number; }))
        throw std::invalid_argument("two devices have the number " + std::to_string(device.number));
    devices.push_back(device);
}

} // namespace

RunSettings MakeSettings(const Options &options, const NandGeometry &geometry) {
    RunSettings settings;
    settings.update = options.update;
    settings.place = options.place;
    if (options.place.empty())
        settings.place =
            fs::is_directory(options.update) ? "/tmp/update" : "/tmp" / fs::path(options.update).filename();
    settings.arguments = options.arguments;
    settings.root = options.root;
    settings.mounts = options.mounts;
    settings.starts = options.starts;
    settings.missingSysfs = SplitList(options.missingSysfs);
    for (const std::string &device : options.devices)
        AddDevice(ParseDevice(device, geometry), settings.sim.devices);
    settings.assumesDevices = options.devices.empty();
    if (settings.assumesDevices)
        settings.sim.devices = DefaultDevices(geometry);
    // The kernel lists devices by number.
    std::sort(settings.sim.devices.begin(), settings.sim.devices.end(),
              [](const SimDevice &a, const SimDevice &b) { return a.number < b.number; });
    for (const std::string &fault : options.faults)
        settings.sim.faults.push_back(ReadFault(fault));
    settings.sim.cutAtChange = options.cut;
    // The verdict reads the trace.
    settings.sim.traceLimit = options.WantsVerdict() || !options.trace.empty() ? kTraceLimit : 0;
    // Output comes as on a device's console; scripts get a pipe.
    settings.isConsole = !options.isRaw;
    settings.passOut = STDOUT_FILENO;
    settings.passErr = STDERR_FILENO;
    settings.program = options.program.empty() ? Companion("flashrig") : options.program;
    settings.preload = Companion("libflashsim.so");
    return settings;
}

ScopedFd PrepareChip(const Options &options, const std::string &path, const std::string &statePath,
                     const HeldSignals &signals) {
    const NandGeometry geometry = ParseGeometry(options.chip.empty() ? kUsualChip : options.chip);
    const Ecc ecc = ParseEcc(options.ecc.empty() ? kUsualEcc : options.ecc);
    ScopedFd turn = ChipFile::AwaitTurn(path);
    const bool isNew = !fs::exists(path);
    if (isNew)
        ChipFile::Create(path, geometry, ecc, {});
    else if (options.isUsed)
        throw std::invalid_argument(path + " exists already: --used fills a new chip");
    ScopedFd right = ChipFile::Reserve(path, ChipFile::Usage::Change);
    turn.Close();
    ChipFile file(path);
    NandChip &chip = file.Chip();
    const NandGeometry &its = chip.Geometry();
    const bool isAsked = std::tie(geometry.size, geometry.eraseSize, geometry.pageSize, geometry.oobSize) ==
                         std::tie(its.size, its.eraseSize, its.pageSize, its.oobSize);
    if ((!options.chip.empty() && !isAsked) || (!options.ecc.empty() && ecc != chip.EccMode()))
        throw std::invalid_argument("the chip in " + path + " differs from --chip or --ecc");
    if (isNew && (options.isUsed || !options.sweeps.empty())) {
        const RunSettings settings = MakeSettings(options, its);
        const RunOutcome update = ReadUpdate(settings, path, statePath, signals);
        UseUp(chip, settings.sim.devices, ReadUpdateLines(VisibleScript(update.script)));
    }
    for (std::uint32_t block : ParseBlocks(options.bad)) {
        if (block >= its.Blocks())
            throw std::invalid_argument("bad block " + std::to_string(block) + " is not on the chip, which has " +
                                        std::to_string(its.Blocks()) + " blocks");
        if (!chip.IsBad(block))
            chip.MarkBad(block);
    }
    chip.ScanForBadBlocks();
    chip.ForgetMarks();
    return right;
}

/// A file that is asked for by an option, opened before the run: a long one isn't to end without it. It may be none.
