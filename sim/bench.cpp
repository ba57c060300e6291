// Measures how fast flashsim rehearses and sweeps, and where the time goes.

#include "base/HeldSignals.h"
#include "base/Places.h"
#include "base/TempFolder.h"
#include "base/Workers.h"
#include "board/RunRecords.h"
#include "chip/ChipFile.h"
#include "mtd/DeviceText.h"
#include "sandbox/UpdateRun.h"
#include "sweep/Rig.h"
#include "sweep/Sweep.h"
#include "verdict/UsedChip.h"
#include "verdict/Verdict.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMebibyte = 1 << 20;
constexpr std::size_t kLargeImage = 64 * kMebibyte;
constexpr const char *kLargeChip = "128M,128K,2K,64";
constexpr const char *kLargeScript = "write 0 4800000 image\n";
constexpr std::size_t kMediumImage = 16 * kMebibyte;
constexpr const char *kMediumScript = "write 0 1400000 image\n";
constexpr std::size_t kSmallImage = 2 * kMebibyte;
constexpr const char *kSmallChip = "8M,16K,512,16";
constexpr const char *kSmallScript = "write 80000 300000 image\nsetenv 40000 4000 bootslot b\n";
constexpr int kRuns = 300;
constexpr std::uint64_t kSweptRuns = 1000;

/// Milliseconds between its calls.
class Watch {
public:
    double Lap() {
        const std::chrono::duration<double, std::milli> passed = Clock::now() - m_tStart;
        m_tStart = Clock::now();
        return passed.count();
    }

private:
    Clock::time_point m_tStart = Clock::now();
};

void Tell(const char *what, double milliseconds) { printf("  %-28s %9.2f ms\n", what, milliseconds); }

/// An update with one image, in a folder of its own.
std::string MakeUpdate(const TempFolder &folder, const char *name, const char *script, std::size_t imageSize) {
    const std::filesystem::path path = folder.File(name);
    std::filesystem::create_directory(path);
    std::ofstream(path / "flashrig.script") << script;
    std::string image(imageSize, '\0');
    for (std::size_t i = 0; i < imageSize; ++i)
        image[i] = static_cast<char>(i * 37 >> 8);
    std::ofstream(path / "image", std::ios::binary) << image;
    return path;
}

RunSettings Settings(const std::string &update, const NandGeometry &geometry) {
    RunSettings settings;
    settings.program = FLASHRIG;
    settings.preload = FLASHSIM_PRELOAD;
    settings.update = update;
    settings.place = kUnpackedUpdate;
    settings.arguments = {"quiet"};
    settings.sim.devices = DefaultDevices(geometry);
    return settings;
}

void MeasureRehearsal(const TempFolder &folder, const HeldSignals &signals) {
    const std::string update = MakeUpdate(folder, "large", kLargeScript, kLargeImage);
    const NandGeometry geometry = ParseGeometry(kLargeChip);
    const std::string path = folder.File("large.nand");
    RunSettings settings = Settings(update, geometry);
    settings.sim.traceLimit = std::uint64_t{1} << 30;

    Watch watch;
    ChipFile::Create(path, geometry, Ecc::Host, {});
    const double make = watch.Lap();
    SimState::Create(folder.File("state"), settings.sim);
    Sandbox device(settings, path, folder.File("state"));
    device.Run({"/bin/true"}, false, signals);
    const double build = watch.Lap();
    const RunOutcome outcome = device.Run(UpdaterCommand(settings), true, signals);
    const double run = watch.Lap();
    const SimState state(folder.File("state"));
    const ChipFile chip(path);
    const RunRecord record = RecordOf(settings, outcome, state);
    const Verdict verdict = Judge(RunFacts(record, chip.Chip()));
    const double judge = watch.Lap();
    std::vector<char> copied(kLargeImage);
    watch.Lap();
    std::memcpy(copied.data(), chip.Chip().Cells(0), kLargeImage);
    const double copy = watch.Lap();

    const double all = make + build + run + judge;
    printf("rehearsal of %zu MiB on a chip of %s: %.0f MiB/s%s\n", kLargeImage / kMebibyte, kLargeChip,
           static_cast<double>(kLargeImage) / kMebibyte * 1000 / all, verdict.IsClean() ? "" : ", NOT clean");
    Tell("making the chip", make);
    Tell("building the device", build);
    Tell("the updater", run);
    Tell("the verdict", judge);
    Tell("(copying the image once)", copy);
}

void MeasureRuns(Rig &rig, const char *what, int runs) {
    double lay = 0;
    double run = 0;
    rig.Run(); // builds the device, where one serves all
    for (int i = 0; i < runs; ++i) {
        Watch watch;
        rig.LayStart();
        lay += watch.Lap();
        rig.Run();
        run += watch.Lap();
    }
    printf("a run of %zu MiB on a chip of %s, %s: %.0f a second\n", kSmallImage / kMebibyte, kSmallChip, what,
           runs * 1000 / (lay + run));
    Tell("laying the chip", lay / runs);
    Tell("the run", run / runs);
}

void MeasureSweeps(const TempFolder &folder, const HeldSignals &signals) {
    const std::string update = MakeUpdate(folder, "small", kSmallScript, kSmallImage);
    const NandGeometry geometry = ParseGeometry(kSmallChip);
    const RunSettings settings = Settings(update, geometry);
    const std::string path = folder.File("start");
    ChipFile::Create(path, geometry, Ecc::Host, {});
    {
        ChipFile start(path);
        UseUp(start.Chip(), settings.sim.devices, ReadUpdateLines(kSmallScript));
        ChipFile::Copy(path, folder.File("rig"));
        Rig rig(settings, start, folder.File("rig"), signals);
        MeasureRuns(rig, "a device each", kRuns / 10);
        rig.Adopt({true, UpdaterCommand(settings), Sandbox::kNoLimit, {}, {rig.Run().err}});
        MeasureRuns(rig, "one device for all", kRuns);
    }
    const Sweeper sweeper(settings, path, signals);
    for (const unsigned workers : {1U, CoreCount()}) {
        SweepSettings sweep;
        sweep.kind = FindSweepKind("faults");
        sweep.workers = workers;
        sweep.every = sweeper.Places(*sweep.kind) / kSweptRuns;
        Watch watch;
        const SweepResult result = sweeper.Run(sweep, [](const SweepResult &) {});
        const double took = watch.Lap();
        printf("sweep of %zu faults by %u worker%s: %.0f runs/s, %zu passed\n", result.done, workers,
               workers == 1 ? "" : "s", static_cast<double>(result.done) * 1000 / took,
               result.done - result.failures.size());
    }
}

/// CPU time of all programs that a sandbox has run, in microseconds; those of sandboxes that have ended.
double ChildTime() {
    struct rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto microseconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

/// What programs do with the pages of an image.
struct Pages {
    double time = 0; ///< CPU time in microseconds
    double requests = 0;
};

struct PageTool {
    const char *name;
    const char *command; ///< for a shell in the folder of the update; null for the updater
    bool isOnUsedChip;   ///< the pages hold the image before
};

constexpr PageTool kFill = {"nandwrite", "nandwrite -q /dev/mtd0 image", false};
constexpr PageTool kPageTools[] = {
    {"flashrig", nullptr, true},
    kFill,
    {"flash_erase", "flash_erase -q /dev/mtd0 0 0", true},
    {"flash_erase, nandwrite", "flash_erase -q /dev/mtd0 0 0 && nandwrite -q /dev/mtd0 image", true},
    {"flashcp", "flashcp image /dev/mtd0", true},
    {"nanddump", "nanddump -q -f /dev/null /dev/mtd0", true},
    {"nanddump --oob", "nanddump -q -o -f /dev/null /dev/mtd0", true},
    {"ubiformat", "ubiformat -q -y -f ubi /dev/mtd0", true},
};
constexpr std::uint64_t kToolBlocks[] = {16, 512};
constexpr int kToolRuns = 5;

std::string ToolUpdate(const NandGeometry &geometry, std::uint64_t blocks) {
    return std::to_string(geometry.eraseSize) + "x" + std::to_string(blocks);
}

/// An update with an image of so many blocks, which is `ubi` as an image of UBI.
void MakeToolUpdate(const TempFolder &folder, const NandGeometry &geometry, std::uint64_t blocks) {
    const std::size_t size = blocks * geometry.eraseSize;
    char script[64];
    snprintf(script, sizeof script, "write 0 %zx image\n", size);
    const std::filesystem::path path = MakeUpdate(folder, ToolUpdate(geometry, blocks).c_str(), script, size);
    // Two blocks hold the volume table, two pages of a block its headers. ubinize takes no longer file than a volume.
    const std::uint64_t volume = (blocks - 2) * (geometry.eraseSize - 2 * geometry.pageSize);
    std::ofstream(path / "ini") << "[v]\nmode=ubi\nvol_id=0\nvol_type=dynamic\nvol_name=v\nvol_size=" << volume
                                << "\nimage=" << (path / "image").string() << '\n';
    std::filesystem::resize_file(path / "image", volume);
    const std::string ubinize = "ubinize -o " + (path / "ubi").string() + " -p " + std::to_string(geometry.eraseSize) +
                                " -m " + std::to_string(geometry.pageSize) + ' ' + (path / "ini").string();
    if (std::system(ubinize.c_str()) != 0)
        throw std::runtime_error("ubinize failed");
    std::filesystem::resize_file(path / "image", size);
}

/// Runs a program in a sandbox of its own, on an MTD device as large as the image.
Pages RunTool(const TempFolder &folder, const NandGeometry &geometry, const PageTool &tool, std::uint64_t blocks,
              const HeldSignals &signals) {
    const std::string update = folder.File(ToolUpdate(geometry, blocks));
    RunSettings settings = Settings(update, geometry);
    settings.sim.devices = {{0, "all", 0, blocks * geometry.eraseSize}};
    settings.sim.traceLimit = std::uint64_t{1} << 30;
    const std::string state = folder.File("state");
    SimState::Create(state, settings.sim);
    const std::vector<std::string> command =
        tool.command == nullptr
            ? UpdaterCommand(settings)
            : std::vector<std::string>{"/bin/sh", "-c", "cd " + settings.place + " && " + tool.command};
    const double begin = ChildTime();
    {
        Sandbox sandbox(settings, folder.File("tools.nand"), state);
        const RunOutcome outcome = sandbox.Run(command, false, signals);
        if (outcome.status != 0)
            throw std::runtime_error(std::string(tool.name) + ": " + outcome.out + outcome.err);
    }
    Pages pages = {ChildTime() - begin, 0};
    const SimState after(state);
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind)
        pages.requests += static_cast<double>(after.Requests(static_cast<RequestKind>(kind)));
    return pages;
}

/// @return the cost of a page: the least of some runs on many pages without that of runs on few.
Pages MeasureTool(const TempFolder &folder, const NandGeometry &geometry, Ecc ecc, const PageTool &tool,
                  const HeldSignals &signals) {
    Pages cost[2];
    for (int i = 0; i < 2; ++i) {
        for (int run = 0; run < kToolRuns; ++run) {
            ChipFile::Create(folder.File("tools.nand"), geometry, ecc, {});
            if (tool.isOnUsedChip)
                RunTool(folder, geometry, kFill, kToolBlocks[i], signals);
            const Pages pages = RunTool(folder, geometry, tool, kToolBlocks[i], signals);
            if (run == 0 || pages.time < cost[i].time)
                cost[i] = pages;
        }
    }
    const auto pages = static_cast<double>((kToolBlocks[1] - kToolBlocks[0]) * geometry.PagesPerBlock());
    return {(cost[1].time - cost[0].time) / pages, (cost[1].requests - cost[0].requests) / pages};
}

void MeasureTools(const TempFolder &folder, const HeldSignals &signals) {
    for (const char *chip : {kLargeChip, kSmallChip}) {
        const NandGeometry geometry = ParseGeometry(chip);
        for (const std::uint64_t blocks : kToolBlocks)
            MakeToolUpdate(folder, geometry, blocks);
        for (const Ecc ecc : {Ecc::Host, Ecc::Chip}) {
            printf("a page of a chip of %s, ECC by the %s\n", chip, ecc == Ecc::Host ? "host" : "chip");
            printf("  %-24s %8s %10s %10s\n", "", "us (CPU)", "requests", "x flashrig");
            double updater = 0;
            for (const PageTool &tool : kPageTools) {
                const Pages cost = MeasureTool(folder, geometry, ecc, tool, signals);
                updater = updater == 0 ? cost.time : updater;
                printf("  %-24s %8.2f %10.3f %10.2f\n", tool.name, cost.time, cost.requests, cost.time / updater);
                fflush(stdout);
            }
        }
    }
}

/// Most memory of one process so far, in MiB: of this one, and of the largest of its children.
void TellMemory() {
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage usage = {};
        getrusage(who, &usage);
        printf("  %-28s %9ld MiB\n", who == RUSAGE_SELF ? "memory" : "memory of a child", usage.ru_maxrss / 1024);
    }
}

/// Each case of a sweep of a whole release.
void MeasureLargeSweep(const TempFolder &folder, const HeldSignals &signals, const char *kind, std::size_t size) {
    const bool isLarge = size == kLargeImage;
    const std::string name = std::string(kind) + (isLarge ? "-large" : "-medium");
    const std::string update = MakeUpdate(folder, name.c_str(), isLarge ? kLargeScript : kMediumScript, size);
    const std::string path = folder.File(name + ".nand");
    ChipFile::Create(path, ParseGeometry(kLargeChip), Ecc::Chip, {});
    const Sweeper sweeper(Settings(update, ParseGeometry(kLargeChip)), path, signals);
    SweepSettings sweep;
    sweep.kind = FindSweepKind(kind);
    sweep.workers = CoreCount();
    Watch watch;
    const SweepResult result = sweeper.Run(sweep, [](const SweepResult &) {});
    printf("sweep %s of %zu MiB on a chip of %s: %.1f s, %zu runs, %zu failures\n", kind, size / kMebibyte, kLargeChip,
           watch.Lap() / 1000, result.done, result.failures.size());
    TellMemory();
}

} // namespace

/// bench_flashsim [tools | KIND...]: "tools" compares mtd-utils with the updater, page by page. With kinds of sweeps,
/// only these, of images of 16 and 64 MiB; that takes minutes.
int main(int argc, char **argv) {
    try {
        const HeldSignals signals;
        const TempFolder folder;
        for (int i = 1; i < argc; ++i) {
            if (std::strcmp(argv[i], "tools") == 0) {
                MeasureTools(folder, signals);
                continue;
            }
            for (const std::size_t size : {kMediumImage, kLargeImage})
                MeasureLargeSweep(folder, signals, argv[i], size);
        }
        if (argc > 1)
            return 0;
        MeasureRehearsal(folder, signals);
        MeasureSweeps(folder, signals);
    } catch (const std::exception &failure) {
        fprintf(stderr, "bench_flashsim: %s\n", failure.what());
        return 1;
    }
}
