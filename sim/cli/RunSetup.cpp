#include "cli/RunSetup.h"

#include "base/Number.h"
#include "base/Places.h"
#include "base/Text.h"
#include "chip/ChipFile.h"
#include "mtd/DeviceText.h"
#include "verdict/UsedChip.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMillisecondsASecond = 1000;
constexpr const char *kUsualChip = "32M,128K,2K,64";
constexpr const char *kUsualEcc = "host";

/// Finds a file that is built or installed with this program.
std::string Companion(const char *name) {
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path &folder : {here, here / "../libexec/flashsim"}) {
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

/// Runs an earlier release on a chip, without output.
/// @throws std::runtime_error with one line when the release did not finish with success
void RunEarlier(const Options &options, const std::string &release, const std::string &path,
                const std::string &statePath, const HeldSignals &signals) {
    Options earlier = options;
    earlier.update = release;
    earlier.place.clear();
    earlier.faults.clear();
    earlier.cut.clear();
    RunSettings files = ShownFiles(earlier);
    const fs::path folder = statePath + ".earlier";
    fs::remove_all(folder);
    fs::create_directory(folder);
    fs::permissions(folder, fs::perms(0755)); // whatever the umask
    StageForSandbox(files, folder);
    RunSettings settings = MakeSettings(earlier, files, ChipFile(path).Chip().Geometry());
    settings.passOut = settings.passErr = -1;
    settings.isConsole = false;
    settings.sim.traceLimit = 0;
    const RunOutcome outcome = RunUpdate(settings, path, statePath, signals);
    if (outcome.isInterrupted || outcome.status != 0)
        throw std::runtime_error("the earlier release " + release + " did not finish normally");
}

FlashRange ReadFlashRange(const std::string &text) {
    const auto [begin, end] = ReadRange(text);
    return {begin, end};
}

/// Reads "NAME=VALUE:OFFSET,SIZE".
BootSlot ReadSlot(const std::string &text) {
    const std::size_t equals = text.find('=');
    const std::size_t colon = text.rfind(':');
    if (equals == std::string::npos || colon == std::string::npos || equals == 0 || colon < equals)
        throw std::invalid_argument("'" + text + "' is not a slot NAME=VALUE:OFFSET,SIZE");
    return {text.substr(0, equals), text.substr(equals + 1, colon - equals - 1),
            ReadFlashRange(text.substr(colon + 1))};
}

/// Where CI systems say which of how many machines this is, and the number of the first machine.
constexpr struct {
    const char *index;
    const char *total;
    std::uint64_t first;
} kShardVariables[] = {{"GTEST_SHARD_INDEX", "GTEST_TOTAL_SHARDS", 0}, {"CI_NODE_INDEX", "CI_NODE_TOTAL", 1}};

/// Finds the shard that a text "I/N", or else the environment, asks for.
void FindShard(const std::string &text, SweepSettings &sweep) {
    const std::size_t slash = text.find('/');
    std::optional<std::uint64_t> number;
    std::optional<std::uint64_t> count;
    if (!text.empty()) {
        number = ParseDecimal(text.substr(0, slash));
        count = slash == std::string::npos ? std::nullopt : ParseDecimal(text.substr(slash + 1));
    } else {
        const char *index = nullptr, *total = nullptr;
        const auto *row = std::find_if(std::begin(kShardVariables), std::end(kShardVariables), [&](const auto &it) {
            index = getenv(it.index);
            total = getenv(it.total);
            return index != nullptr && total != nullptr;
        });
        if (index == nullptr || total == nullptr)
            return;
        number = ParseDecimal(index);
        count = ParseDecimal(total);
        if (number)
            *number += 1 - row->first;
    }
    constexpr std::uint64_t kMostShards = 1'000'000;
    if (!number || !count || *number == 0 || *number > *count || *count > kMostShards)
        throw std::invalid_argument("the shard is not I/N with I from 1 to N");
    sweep.shard = static_cast<std::size_t>(*number);
    sweep.shards = static_cast<std::size_t>(*count);
}

} // namespace

SweepSettings MakeSweep(const Options &options, const std::string &kind) {
    SweepSettings sweep;
    sweep.kind = FindSweepKind(kind);
    sweep.every = options.every;
    sweep.sets = options.sets;
    sweep.seed = options.seed;
    sweep.workers = static_cast<unsigned>(options.jobs);
    sweep.torn = ReadExtents(options.torn);
    sweep.isExact = options.isExact;
    sweep.sample = options.sample;
    sweep.board = options.board;
    sweep.boot.command = options.boots;
    for (const std::string &keep : options.keeps) {
        if (const auto line = ParseDecimal(keep))
            sweep.boot.keptLines.push_back(static_cast<std::size_t>(*line));
        else
            sweep.boot.kept.push_back(ReadFlashRange(keep));
    }
    for (const std::string &range : options.bootEnvironments)
        sweep.boot.environments.push_back(ReadFlashRange(range));
    for (const std::string &slot : options.slots)
        sweep.boot.slots.push_back(ReadSlot(slot));
    FindShard(options.shard, sweep);
    return sweep;
}

RunSettings ShownFiles(const Options &options) {
    RunSettings settings;
    settings.update = options.update;
    settings.root = options.root;
    const bool isOwn = options.program.empty() || !options.board.empty();
    settings.program = isOwn ? Companion("flashrig") : options.program;
    settings.boardProgram = options.board.empty() ? "" : options.program;
    settings.preload = Companion("libflashsim.so");
    return settings;
}

RunSettings MakeSettings(const Options &options, const RunSettings &files, const NandGeometry &geometry) {
    RunSettings settings = files;
    settings.place = options.place;
    if (options.place.empty())
        settings.place =
            fs::is_directory(options.update) ? kUnpackedUpdate : "/tmp" / fs::path(options.update).filename();
    settings.arguments = options.arguments;
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
    if (!options.cut.empty()) {
        const PowerCut cut = ReadCut(options.cut);
        settings.sim.cutAtChange = cut.change;
        settings.sim.cutExtent = cut.extent;
    }
    // The verdict reads the trace.
    settings.sim.traceLimit = options.WantsVerdict() || !options.trace.empty() ? kTraceLimit : 0;
    // Output comes as on a device's console; scripts get a pipe.
    settings.isConsole = !options.isRaw;
    settings.passOut = STDOUT_FILENO;
    settings.passErr = STDERR_FILENO;
    settings.milliseconds = static_cast<int>(options.timeout * kMillisecondsASecond);
    return settings;
}

void RequireChipFile(const std::string &path) {
    const std::string description = path + ".chip";
    if (!fs::exists(description))
        throw std::invalid_argument(description + " is missing: " + path +
                                    " holds the cells of a chip, this file its geometry, ECC mode and bad blocks; "
                                    "flashsim makes both for a chip that does not exist yet");
}

std::string ScriptPath(const Options &options) {
    if (!fs::is_directory(options.update))
        return kScriptName;
    const fs::path usual = (fs::path(options.update) / kScriptName).lexically_normal();
    const fs::path other = (fs::path(options.root) / kScriptName).lexically_normal();
    return !fs::exists(usual) && !options.root.empty() && fs::exists(other) ? other : usual;
}

NandGeometry AskedGeometry(const Options &options) {
    return ParseGeometry(options.chip.empty() ? kUsualChip : options.chip);
}

Ecc AskedEcc(const Options &options) { return ParseEcc(options.ecc.empty() ? kUsualEcc : options.ecc); }

ScopedFd PrepareChip(const Options &options, const RunSettings &files, const std::string &path,
                     const std::string &statePath, const HeldSignals &signals) {
    const NandGeometry geometry = AskedGeometry(options);
    const Ecc ecc = AskedEcc(options);
    ScopedFd right;
    bool isNew = true;
    if (options.flash.empty()) {
        ChipFile::Create(path, geometry, ecc, {});
    } else {
        const ScopedFd turn = ChipFile::AwaitTurn(options.flash);
        ChipFile::Recover(options.flash);
        isNew = !fs::exists(options.flash);
        if (!isNew)
            RequireChipFile(options.flash);
        const bool isSwept = !options.sweeps.empty();
        if (isNew)
            ChipFile::Create(path, geometry, ecc, {});
        if (isNew && !isSwept)
            ChipFile::Keep(path, options.flash);
        if (!isNew || !isSwept) {
            right = ChipFile::Reserve(options.flash, isSwept ? ChipFile::Usage::Read : ChipFile::Usage::Change);
            if (options.isUsed && !isNew)
                throw std::invalid_argument(options.flash + " exists already: --used fills a new chip");
            ChipFile::Copy(options.flash, path);
        }
    }
    ChipFile file(path);
    NandChip &chip = file.Chip();
    const NandGeometry &its = chip.Geometry();
    const bool isAsked = std::tie(geometry.size, geometry.eraseSize, geometry.pageSize, geometry.oobSize) ==
                         std::tie(its.size, its.eraseSize, its.pageSize, its.oobSize);
    if ((!options.chip.empty() && !isAsked) || (!options.ecc.empty() && ecc != chip.EccMode()))
        throw std::invalid_argument("the chip in " + options.flash + " differs from --chip or --ecc");
    if (isNew && (options.isUsed || !options.sweeps.empty())) {
        const RunSettings settings = MakeSettings(options, files, its);
        const RunOutcome update = ReadUpdate(settings, path, statePath, signals);
        UseUp(chip, settings.sim.devices, ReadUpdateLines(VisibleScript(update.script)));
    }
    const auto visitBlocks = [&](const std::string &list, const char *what, const auto &visit) {
        for (const std::uint32_t block : ParseBlocks(list)) {
            if (block >= its.Blocks())
                throw std::invalid_argument(what + (" block " + std::to_string(block)) +
                                            " is not on the chip, which has " + std::to_string(its.Blocks()) +
                                            " blocks");
            visit(block);
        }
    };
    visitBlocks(options.bad, "bad", [&](std::uint32_t block) {
        if (!chip.IsBad(block))
            chip.MarkBad(block);
    });
    visitBlocks(options.eraseFails, "worn-out", [&](std::uint32_t block) { chip.MakeWeakBlock(block); });
    visitBlocks(options.programFails, "worn-out", [&](std::uint32_t block) { chip.MakeWeakPages(block); });
    for (const std::string &release : isNew ? options.after : std::vector<std::string>())
        RunEarlier(options, release, path, statePath, signals);
    chip.ScanForBadBlocks();
    chip.ForgetMarks();
    return right;
}
