#include "board/BoardRun.h"

#include "base/SystemError.h"
#include "base/Text.h"
#include "chip/ChipFile.h"
#include "mtd/ErasedLook.h"
#include "verdict/FlashRanges.h"
#include "verdict/UpdateLines.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
/// Pages that the kernel's NAND simulator keeps are in the board's memory.
constexpr std::uint64_t kMostBytes = 512 * kMiB;
constexpr std::uint64_t kResultRoom = 512 * kMiB;
constexpr std::size_t kMostParameter = 1000; ///< characters of one parameter of a kernel module
constexpr int kSlowness = 10;                ///< seconds of the board for each of --timeout
constexpr int kBootSeconds = 300;
constexpr char kRecordMark = '\1';
constexpr const char *kUpdateMark = "board: the update begins"; ///< in the kernel's log

/// Sizes of pages that the kernel's NAND simulator and its ECC know, with the ID byte for them.
constexpr struct {
    std::uint32_t pageSize;
    std::uint32_t oobSize;
    unsigned id;
} kPages[] = {{512, 16, 0}, {2048, 64, 0x05}, {4096, 128, 0x06}};

constexpr std::uint32_t kSmallErase = 16384; ///< the only one of chips with pages of 512 bytes
constexpr std::uint32_t kLeastErase = 65536;
constexpr unsigned kEraseSizes = 4; ///< from kLeastErase on, each twice the one before
constexpr unsigned kEraseShift = 4; ///< of their number in the ID byte

constexpr bool IsPowerOfTwo(std::uint32_t number) { return number != 0 && (number & (number - 1)) == 0; }

unsigned Log2(std::uint64_t number) {
    unsigned log = 0;
    while (number >>= 1)
        ++log;
    return log;
}

/// @return the row for the chip's pages, or nullptr.
const auto *FindPages(const NandGeometry &geometry) {
    const auto *row = std::find_if(std::begin(kPages), std::end(kPages), [&](const auto &it) {
        return it.pageSize == geometry.pageSize && it.oobSize == geometry.oobSize;
    });
    return row == std::end(kPages) ? nullptr : row;
}

std::optional<int> ExtentNumber(Extent extent) {
    switch (extent) {
    case Extent::NotStarted:
        return 0;
    case Extent::FirstHalf:
        return 1;
    case Extent::AllButLast:
        return 2;
    case Extent::WithoutOob:
        return 3;
    case Extent::Complete:
        return 4;
    default:
        return std::nullopt;
    }
}

/// @return what the board lacks, in words without a full stop; empty when it lacks nothing.
std::string Lack(const RunSettings &settings, const NandChip &chip) {
    const NandGeometry &geometry = chip.Geometry();
    if (chip.EccMode() != Ecc::Host)
        return "no chip that computes its own ECC; use --ecc host";
    if (FindPages(geometry) == nullptr)
        return "pages with OOB of 512+16, 2048+64 and 4096+128 bytes only";
    if (geometry.pageSize == kPages[0].pageSize && geometry.eraseSize != kSmallErase)
        return "erase blocks of 16 KiB only where pages have 512 bytes";
    if (geometry.pageSize != kPages[0].pageSize &&
        (geometry.eraseSize < kLeastErase || geometry.eraseSize > kLeastErase << (kEraseSizes - 1)))
        return "erase blocks from 64 to 512 KiB only";
    if (!IsPowerOfTwo(geometry.Blocks()))
        return "chips with a power of two of erase blocks only";
    if (geometry.size > kMostBytes)
        return "chips of up to 512 MiB only";
    if (!settings.sim.faults.empty())
        return "no failing requests; leave out --fault";
    if (!settings.missingSysfs.empty())
        return "all sysfs files; leave out --no-sysfs";
    if (settings.sim.cutAtChange != 0 && !ExtentNumber(settings.sim.cutExtent))
        return "no unstable pages; use another state of --cut";
    for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
        if (chip.IsUnstable(block))
            return "no unstable pages, and the chip has one in block " + std::to_string(block);
    }
    const auto isLine = [](const std::string &text) { return text.find('\n') == std::string::npos; };
    for (const auto *list : {&settings.arguments, &settings.mounts, &settings.starts}) {
        if (!std::all_of(list->begin(), list->end(), isLine))
            return "no arguments, mounts or commands with line ends";
    }
    return "";
}

/// The parameters that make the kernel's NAND simulator a chip like this one, erased.
std::string NandsimParameters(const NandChip &chip) {
    const NandGeometry &geometry = chip.Geometry();
    const bool isSmall = geometry.pageSize == kPages[0].pageSize;
    // The kernel addresses pages as the ID says, before the size is overridden.
    const std::uint64_t mostShort = isSmall ? 32 * kMiB : 128 * kMiB;
    const bool isShort = geometry.size <= mostShort;
    std::string parameters = "id_bytes=0x20,";
    if (isSmall) {
        parameters += isShort ? "0x75" : "0x79";
    } else {
        const unsigned id = FindPages(geometry)->id | (Log2(geometry.eraseSize) - Log2(kLeastErase)) << kEraseShift;
        parameters += FormatText("%s,0x00,0x%02x", isShort ? "0xf1" : "0xdc", id);
    }
    parameters += " overridesize=" + std::to_string(Log2(geometry.Blocks()));
    std::string weakBlocks, weakPages;
    const auto add = [](std::string &list, std::uint32_t number) {
        // Without a number of changes that succeed, there would be three.
        list += (list.empty() ? "" : ",") + std::to_string(number) + ":0";
    };
    for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
        if (chip.IsWeakBlock(block))
            add(weakBlocks, block);
        for (std::uint32_t page = block * geometry.PagesPerBlock(); page < (block + 1) * geometry.PagesPerBlock();
             ++page) {
            if (chip.IsWeakPage(page))
                add(weakPages, page);
        }
    }
    if (std::max(weakBlocks.size(), weakPages.size()) > kMostParameter)
        throw std::invalid_argument("the board takes fewer worn-out blocks: the list is too long for its kernel");
    if (!weakBlocks.empty())
        parameters += " weakblocks=" + weakBlocks;
    if (!weakPages.empty())
        parameters += " weakpages=" + weakPages;
    return parameters;
}

void Write(const std::string &path, const std::string &text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file)
        throw SystemError("can't write " + path);
}

std::string Lines(const std::vector<std::string> &items) {
    std::string text;
    for (const std::string &item : items)
        text += item + "\n";
    return text;
}

/// @return the bytes of a file; none when there is no such file.
std::string Content(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// What the board gets, and what it leaves.
class Folder {
public:
    Folder(const RunSettings &settings, const std::string &path) : m_settings(settings), m_path(path) {
        fs::remove_all(path);
        fs::create_directory(path);
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    const std::string &Path() const { return m_path; }
    std::string Result(const char *name) const { return Content(m_path + "/results/" + name); }

    void Fill(const NandChip &chip, const std::string &cells, const std::string &script) const {
        const NandGeometry &geometry = chip.Geometry();
        const auto link = [this](const std::string &target, const char *name) {
            if (!target.empty())
                fs::create_symlink(fs::absolute(target), m_path + "/" + name);
        };
        link(m_settings.update, "update");
        link(m_settings.root, "root");
        link(m_settings.boardProgram, "program");
        link(cells, "chip");
        const std::string program =
            fs::path(m_settings.boardProgram.empty() ? m_settings.program : m_settings.boardProgram).filename();
        bool isErased = true;
        for (std::uint32_t block = 0; isErased && block < geometry.Blocks(); ++block)
            isErased = chip.IsBlank(block);
        std::ostringstream job;
        job << "nandsim=" << ShellWord(NandsimParameters(chip)) << "\npage=" << geometry.pageSize
            << "\nerase=" << geometry.eraseSize << "\nbytes=" << geometry.size << "\nraw=" << geometry.RawSize()
            << "\nloads=" << (isErased ? "no" : "yes") << "\nresults_at=" << ResultsAt(geometry)
            << "\nstart_at=" << StartAt(geometry) << "\ncut=" << m_settings.sim.cutAtChange
            << "\nextent=" << ExtentNumber(m_settings.sim.cutExtent).value_or(1) << "\nseconds=" << Seconds()
            << "\nstream=" << (m_settings.isConsole ? "console" : "pipe") << "\nplace=" << ShellWord(m_settings.place)
            << "\nprogram=" << ShellWord(program) << "\n";
        Write(m_path + "/job", job.str());
        std::string devices;
        for (const SimDevice &device : m_settings.sim.devices)
            devices += std::to_string(device.number) + " " + std::to_string(device.offset) + " " +
                       std::to_string(device.size) + " " + device.name + "\n";
        Write(m_path + "/devices", devices);
        Write(m_path + "/arguments", Lines(m_settings.arguments));
        Write(m_path + "/mounts", Lines(m_settings.mounts));
        Write(m_path + "/starts", Lines(m_settings.starts));
        std::string environments;
        for (const SetRange &range :
             FindSetRanges(ReadUpdateLines(VisibleScript(script)), chip, m_settings.sim.devices)) {
            const std::string line = std::to_string(range.offset) + " " + std::to_string(range.size) + "\n";
            if (environments.find(line) == std::string::npos)
                environments += line;
        }
        Write(m_path + "/environments", environments);
    }

    /// The cells that the board read after the run, or from ahead of it.
    std::ifstream CellsAfter() const { return std::ifstream(m_path + "/disk", std::ios::binary); }
    std::ifstream CellsBefore(const NandGeometry &geometry) const {
        std::ifstream file = CellsAfter();
        file.seekg(static_cast<std::streamoff>(StartAt(geometry) * kMiB));
        return file;
    }

    /// Seconds that the update may take on the board.
    int Seconds() const { return std::max(m_settings.milliseconds / 1000, 1) * kSlowness; }

private:
    // Places on the disk in MiB: cells, results, cells before the run.
    static std::uint64_t ResultsAt(const NandGeometry &geometry) { return geometry.RawSize() / kMiB + 1; }
    static std::uint64_t StartAt(const NandGeometry &geometry) { return ResultsAt(geometry) + kResultRoom / kMiB; }

    const RunSettings &m_settings;
    const std::string m_path;
};

/// Runs the command in a process group of its own, which a held signal or the time ends.
/// @return false when a signal ended it
bool Boot(const std::string &command, const std::string &folder, int seconds, const HeldSignals &signals) {
    const pid_t pid = Check(fork(), "can't start the board");
    if (pid == 0) {
        setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execlp(command.c_str(), command.c_str(), folder.c_str(), nullptr);
        dprintf(STDERR_FILENO, "flashsim: can't run %s: %s\n", command.c_str(), strerror(errno));
        _exit(127);
    }
    constexpr int kPeriod = 100;
    const auto end = [pid] {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    };
    int status = 0;
    for (std::int64_t left = std::int64_t{seconds} * 1000; waitpid(pid, &status, WNOHANG) == 0; left -= kPeriod) {
        pollfd wait = {signals.Descriptor(), POLLIN, 0};
        if (poll(&wait, 1, kPeriod) > 0) {
            end();
            return false;
        }
        if (left <= 0) {
            end();
            throw std::runtime_error("the board did not power off in time; " + folder + "/console was its console");
        }
    }
    if (status != 0)
        throw std::runtime_error("the board did not run: " + command + " failed");
    return true;
}

/// Makes the chip what the board's was when the update began: mounting may have changed cells.
void TakeStart(std::ifstream file, NandChip &chip) {
    const NandGeometry &geometry = chip.Geometry();
    const std::uint32_t pages = geometry.PagesPerBlock();
    const std::size_t raw = geometry.RawPageSize();
    std::vector<std::uint8_t> cells(pages * raw);
    for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
        if (!file.read(reinterpret_cast<char *>(cells.data()), static_cast<std::streamsize>(cells.size())))
            throw std::runtime_error("the board left no whole chip from before the run");
        if (std::equal(cells.begin(), cells.end(), chip.Cells(block * pages)))
            continue;
        chip.Erase(block);
        for (std::uint32_t page = 0; page < pages; ++page) {
            const std::uint8_t *bytes = cells.data() + page * raw;
            if (std::all_of(bytes, bytes + raw, [](std::uint8_t byte) { return byte == 0xFF; }))
                continue;
            NandChip::PageProgram program;
            program.data = bytes;
            program.length = geometry.pageSize;
            program.oob = bytes + geometry.pageSize;
            program.oobLength = geometry.oobSize;
            chip.Program(block * pages + page, program);
        }
    }
    chip.ForgetMarks();
}

/// Brings the requests and the updater's record into the state of the run.
void TakeTrace(const std::string &text, SimState &state) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] == kRecordMark) {
            state.Record(line.substr(1));
            continue;
        }
        std::string name = line.substr(0, line.find(' '));
        if (name == "pread" || name == "pwrite")
            name.erase(0, 1);
        RequestKind kind;
        if (line.find(" mtd") == name.size() && FindRequest(name, kind))
            state.Begin(kind);
        state.Trace(line);
    }
}

/// Repeats the changes on the chip, so that it knows which pages are programmed, and then takes the cells from the
/// board.
class ChangeTaker {
public:
    ChangeTaker(NandChip &chip, SimState &state) : m_chip(chip), m_state(state) {}

    void TakeChanges(const std::string &text) {
        std::istringstream lines(text);
        const NandGeometry &geometry = m_chip.Geometry();
        char kind = 0;
        for (std::uint32_t place = 0; lines >> kind >> place;) {
            if (kind == 'O')
                throw std::runtime_error("the board's log of changes was full: the verdict would be incomplete");
            if (place >= (kind == 'E' ? geometry.Blocks() : geometry.Pages()))
                throw std::runtime_error("the board's log of changes names a place that is not on the chip");
            if (kind == 'E') {
                const std::string look = ErasedLine(m_chip, place);
                if (!look.empty())
                    m_state.Record(look);
                m_chip.Erase(place);
            }
            if (kind == 'P')
                m_chip.Program(place, {});
            if (kind == 'E' || kind == 'P')
                m_state.BeginChange(geometry.pageSize * std::uint64_t{place} *
                                    (kind == 'E' ? geometry.PagesPerBlock() : 1));
        }
    }

    /// @throws std::runtime_error when a block differs that has not been changed: nothing on the board is trusted then
    void TakeCells(std::ifstream file) {
        const NandGeometry &geometry = m_chip.Geometry();
        const std::uint32_t pages = geometry.PagesPerBlock();
        NandChip::BlockImage image;
        for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
            m_chip.SaveBlock(block, image);
            std::vector<std::uint8_t> cells(image.cells.size());
            if (!file.read(reinterpret_cast<char *>(cells.data()), static_cast<std::streamsize>(cells.size())))
                throw std::runtime_error("the board left no whole chip");
            if (!m_chip.IsTouched(block)) {
                if (cells != image.cells)
                    throw std::runtime_error("block " + std::to_string(block) +
                                             " differs on the board, which has logged no change of the block");
                continue;
            }
            image.cells = std::move(cells);
            m_chip.RestoreBlock(block, image);
            // A torn erase leaves pages programmed.
            for (std::uint32_t page = block * pages; page < (block + 1) * pages; ++page) {
                const std::uint8_t *bytes = m_chip.Cells(page);
                const bool isBlank =
                    std::all_of(bytes, bytes + geometry.RawPageSize(), [](std::uint8_t byte) { return byte == 0xFF; });
                if (!isBlank && !m_chip.IsProgrammed(page))
                    m_chip.Program(page, {});
            }
        }
    }

private:
    NandChip &m_chip;
    SimState &m_state;
};

/// What the kernel's table of bad blocks has learnt in the run.
void TakeMarks(const std::string &trace, const std::vector<SimDevice> &devices, NandChip &chip) {
    std::istringstream lines(trace);
    for (std::string line; std::getline(lines, line);) {
        int number = 0;
        unsigned long long offset = 0;
        int result = -1;
        if (std::sscanf(line.c_str(), "MEMSETBADBLOCK mtd%d offset=0x%llx = %d", &number, &offset, &result) != 3 ||
            result != 0)
            continue;
        for (const SimDevice &device : devices) {
            if (device.number == number && offset < device.size)
                chip.SetBad(static_cast<std::uint32_t>((device.offset + offset) / chip.Geometry().eraseSize));
        }
    }
}

void TakeCounters(const std::string &text, SimState &state, BoardFinds &finds) {
    const std::vector<SimDevice> devices = state.Devices();
    std::istringstream lines(text);
    int number = 0;
    for (std::uint32_t corrected, failed, bad; lines >> number >> corrected >> failed >> bad;) {
        finds.counters.push_back({number, corrected, failed, bad});
        for (std::size_t i = 0; i < devices.size(); ++i) {
            if (devices[i].number != number)
                continue;
            state.Counters(i).corrected = corrected;
            state.Counters(i).failed = failed;
            state.Counters(i).badBlocks = bad;
        }
    }
}

/// Takes the kernel's log from the mark on with which the board begins the update.
void TakeLog(const std::string &text, BoardFinds &finds) {
    std::istringstream lines(text);
    bool hasBegun = false;
    for (std::string line; std::getline(lines, line);) {
        if (hasBegun)
            finds.kernelLog.push_back(VisibleText(line));
        hasBegun = hasBegun || line.find(kUpdateMark) != std::string::npos;
    }
}

/// Reads the file of the recorder that says how the run ended.
void TakeEnd(const std::string &text, RunOutcome &outcome, SimState &state) {
    std::istringstream lines(text);
    bool isWhole = false;
    for (std::string word; lines >> word;) {
        if (word == "status") {
            isWhole = static_cast<bool>(lines >> outcome.status);
        } else if (word == "overdue") {
            outcome.isOverdue = true;
        } else if (word == "cut") {
            std::string name, at, offset;
            lines >> name >> at >> offset;
            RequestKind kind = RequestKind::WritePage;
            FindRequest(name, kind);
            state.NotePowerCut(kind, std::strtoull(offset.c_str(), nullptr, 16));
        }
    }
    if (!isWhole)
        throw std::runtime_error("the board left no result");
}

void Pass(int descriptor, const std::string &text) {
    for (std::size_t done = 0; descriptor >= 0 && done < text.size();) {
        const ssize_t written = write(descriptor, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
            return;
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

} // namespace

void CheckBoard(const RunSettings &settings, const NandChip &chip) {
    const std::string lack = Lack(settings, chip);
    if (!lack.empty())
        throw std::invalid_argument("the board has " + lack);
}

std::vector<SetRange> FindSetRanges(const std::vector<UpdateLine> &lines, const NandChip &chip,
                                    const std::vector<SimDevice> &devices) {
    const WholeFlash flash(chip, devices);
    std::vector<SetRange> ranges;
    for (const UpdateLine &line : lines) {
        const std::optional<FlashRange> range = flash.RangeOf(line);
        if (line.kind == LineKind::SetEnv && line.isComplete && range && flash.IsOnFlash(*range))
            ranges.push_back({line, static_cast<std::int64_t>(flash.OnChip(range->begin)), range->end - range->begin});
    }
    return ranges;
}

RunOutcome RunOnBoard(const RunSettings &settings, const std::string &command, const std::string &chip,
                      const std::string &statePath, const HeldSignals &signals, const std::string &twin,
                      BoardFinds &finds) {
    ChipFile file(chip);
    CheckBoard(settings, file.Chip());
    RunOutcome outcome = ReadUpdate(settings, chip, statePath, signals);
    if (outcome.isInterrupted || outcome.isOverdue)
        return outcome;
    const Folder folder(settings, statePath + ".board");
    folder.Fill(file.Chip(), chip, outcome.script);
    SimState::Create(statePath, settings.sim);
    SimState state(statePath);
    state.BeginCounters(file.Chip());
    if (!Boot(command, folder.Path(), folder.Seconds() + kBootSeconds, signals)) {
        outcome.isInterrupted = true;
        return outcome;
    }
    const std::string problem = folder.Result("problem");
    if (!problem.empty())
        throw std::runtime_error("the board could not run the update: " + problem.substr(0, problem.find('\n')));
    if (!folder.Result("start").empty())
        TakeStart(folder.CellsBefore(file.Chip().Geometry()), file.Chip());
    if (!twin.empty())
        ChipFile::Copy(chip, twin);
    ReadFound(folder.Result("found"), finds);
    TakeLog(folder.Result("dmesg"), finds);
    finds.bootSeconds = std::strtod(folder.Result("started").c_str(), nullptr);
    outcome.out = folder.Result("out");
    outcome.err = folder.Result("err");
    for (std::string *text : {&outcome.out, &outcome.err}) {
        outcome.isCut = outcome.isCut || text->size() > kMostOutput;
        text->resize(std::min(text->size(), kMostOutput));
    }
    const std::string trace = folder.Result("trace");
    TakeTrace(trace, state);
    ChangeTaker taker(file.Chip(), state);
    taker.TakeChanges(folder.Result("changes"));
    taker.TakeCells(folder.CellsAfter());
    TakeMarks(trace, settings.sim.devices, file.Chip());
    TakeCounters(folder.Result("counters"), state, finds);
    // Last: no request is noted without power.
    TakeEnd(folder.Result("end"), outcome, state);
    Pass(settings.passOut, outcome.out);
    Pass(settings.passErr, outcome.err);
    return outcome;
}
