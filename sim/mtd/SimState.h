#pragma once

#include "base/SharedFile.h"
#include "chip/ChangeListener.h"
#include "mtd/MtdDevice.h"
#include "mtd/Requests.h"
#include "mtd/StopPlace.h"

#include <cstdint>
#include <string>
#include <vector>

/// A device of the simulated "/proc/mtd": /dev/mtd<number>, a part of the chip or the whole of it.
struct SimDevice {
    int number;
    std::string name;
    std::uint64_t offset; ///< where it begins on the chip, in bytes; whole blocks
    std::uint64_t size;   ///< in bytes; whole blocks
};

/// A request that fails without reaching the flash.
struct SimFault {
    RequestKind kind;
    std::uint64_t nth; ///< the n-th request of the kind in the run, from 1; 0 means every one
    int error;         ///< errno value
};

/// Why a program's use of flash needs attention beyond its requests.
enum class ProgramNoteKind : std::uint32_t {
    ForeignProgram,    ///< built for another processor and not run
    UpdaterReplaced,   ///< the same, and the updater under test ran in its place
    UbiformatReplaced, ///< the same for the update's ubiformat: the one of the system ran
    StaticProgram,     ///< statically linked: its accesses to flash devices fail
    Unserved,          ///< made a request of the kernel that the simulation refuses; `subject` names the request
};

/// An event that a verdict has to name; the same one is kept once.
struct ProgramNote {
    ProgramNoteKind kind;
    std::string program; ///< path or name of the program
    std::string subject; ///< "mmap of /dev/mtd0"; empty when the kind says all
};

/// Room that the trace of one run may take: that of a gigabyte written page by page.
constexpr std::uint64_t kTraceLimit = std::uint64_t{1} << 30;

/// What a simulated run is to be.
struct SimSettings {
    std::vector<SimDevice> devices; ///< up to 32
    std::vector<SimFault> faults;   ///< up to 64
    std::uint64_t cutAtChange = 0;  ///< power is lost during the n-th page program or block erase, from 1; 0: never
    Extent cutExtent = Extent::FirstHalf; ///< how far that change gets; not Whole
    std::uint64_t traceLimit = 0;         ///< most bytes of trace or record; 0: none. Room is taken as they come
    /// What is kept instead of a trace.
    enum class Record : std::uint32_t { None, Steps, StepsWithBytes } record = Record::None;
};

/// What a line of the record begins with, between those of the trace.
constexpr char kRecordMark = '\1';

/// The state of one simulated run: a file that all its processes share, without locks and without flushing.
class SimState : public ChangeListener, public ChipListener {
public:
    /// Makes the state file of a run that is about to begin.
    /// @throw std::runtime_error with one line when it can't be written or the settings have too much of something
    static void Create(const std::string &path, const SimSettings &settings);

    /// Takes part in the run.
    /// @throw std::runtime_error with one line when the file is missing or isn't a run's state
    explicit SimState(const std::string &path);

    /// Makes it the state of another run, which begins now.
    /// @throw std::runtime_error with one line when the settings have too much of something
    void Restart(const SimSettings &settings);

    std::vector<SimDevice> Devices() const;
    /// The text of "/proc/mtd".
    /// @param eraseSize of the chip, in bytes
    std::string DeviceTable(std::uint32_t eraseSize) const;

    /// Sets the counters of the devices when no process has done so in this run: bad blocks are those of the chip.
    void BeginCounters(const NandChip &chip);
    /// What the kernel counts for a device, by its place in Devices().
    MtdCounters &Counters(std::size_t device);
    /// What the kernel keeps of the chip.
    PageCache &Cache();

    /// Counts a request. Doesn't return once power is off.
    /// @return 0, or the errno value with which a fault makes it fail.
    int Begin(RequestKind kind);
    /// Where the updater stops for branches.
    StopPlace &Stop();
    /// @return whether this process is the updater, and is to stop before the request that has just begun.
    bool IsAtStop() const;
    /// The run so far, while no process of it goes on.
    struct Kept {
        std::vector<std::uint8_t> bytes;
        std::uint64_t traceEnd;
    };
    Kept Keep() const;
    /// Makes the state what it was, but for its StopPlace.
    void TakeBack(const Kept &kept);
    /// @return how many requests of a kind were made, failed ones included.
    std::uint64_t Requests(RequestKind kind) const;
    /// @return how many pages were programmed and blocks erased, one that the power cut ended included.
    std::uint64_t Changes() const;

    bool PowerWasCut() const;
    /// Notes that power was lost during a request, at an offset on the chip, in a run elsewhere whose record this state
    /// gets.
    void NotePowerCut(RequestKind request, std::uint64_t offset);
    /// Doesn't return once power is off: for what is no request, but needs power all the same.
    void NeedPower() const;
    /// @return where power was lost, as "MEMWRITE at 0x800", an offset on the chip; empty when it never was.
    std::string CutPlace() const;

    bool Traces() const;
    /// Adds a line to the trace, in the order of all processes; `line` comes without a newline.
    void Trace(const std::string &line);
    /// @return the lines so far, each ended by a newline.
    std::string TraceText() const;
    /// Adds a line to a record beside the trace, in the same room; see UpdaterRecord.
    void Record(const std::string &line);
    /// @return the lines of the record so far, each ended by a newline.
    std::string RecordText() const;
    /// @return the lines of trace and record in their order, as RunTimeline takes them; those of the record begin with
    ///         kRecordMark.
    std::string WholeText() const;
    /// @return true when lines were left out for want of room.
    bool TraceOverflowed() const;

    /// @return whether the run records steps. The chip then has to listen to this object.
    bool Records() const;
    /// Says which program this process runs, and whether that is the updater itself: steps of others are recorded as
    /// such, and the trace names others that change flash.
    /// @param eraseSize of the chip, in bytes: changes of one block one after the other are named once
    void SetProgram(const std::string &name, bool isUpdater, std::uint32_t eraseSize);
    /// Of the programs with the updater's name, the first is the updater until the process ends or hands over.
    /// @return whether this process is.
    bool ClaimUpdater();
    void HandOverUpdater();
    /// @return the record so far, as ReadSteps takes it; no bytes when steps are missing for want of room.
    const std::uint8_t *RecordBytes(std::size_t &length) const;
    void Saw(const ChipAccess &access) override;

    /// Makes a new open file description, which dup, fork and exec share.
    /// @return its number, or -1 when the run has opened too many.
    int NewOpenFile(const OpenFile &file);
    OpenFile &GetOpenFile(int number);

    /// Keeps a note of a program, up to some 60 different ones; longer texts than some 100 characters lose their start.
    void NoteProgram(const ProgramNote &note);
    std::vector<ProgramNote> ProgramNotes() const;

    void Note(std::uint64_t offset, const char *text) override;
    Extent BeginChange(std::uint64_t offset) override;
    [[noreturn]] void PowerOff(std::uint64_t offset) override;

private:
    struct Shared;
    void RecordChange(const ChipAccess &access);
    std::uint64_t TraceRoom() const;
    bool HasTraceRoom(std::uint64_t end);
    std::size_t RunSize() const;
    enum class Lines { OfTrace, OfRecord, All };
    std::string KeptLines(Lines wanted) const;
    void Append(const char *bytes, std::uint64_t length);

    SharedFile m_file;
    Shared *m_shared;
    RequestKind m_current = RequestKind::Open;
    bool m_bIsUpdater = false;
    std::string m_program;
    std::uint32_t m_eraseSize = 0;
    std::uint64_t m_namedBlock = ~0ULL; ///< for whose changes the trace has last named the program
};
