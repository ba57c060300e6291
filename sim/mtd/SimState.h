#pragma once

#include "base/SharedFile.h"
#include "chip/FlashEvents.h"
#include "mtd/MtdDevice.h"

#include <cstdint>
#include <string>
#include <vector>

/// What a program can ask of a device.
enum class RequestKind : std::uint32_t {
    Open,
    Lseek,
    Read,
    Write,
    Fsync,
    Close,
    GetBadBlock,
    Erase64,
    Erase,
    WritePage,
    WriteOob,
    ReadOob,
};
constexpr std::uint32_t kRequestKinds = 12;

/// @return the name of a kind as traces and faults spell it: "open", "lseek", "read", "write", "fsync", "close",
///         "MEMGETBADBLOCK", "MEMERASE64", "MEMERASE", "MEMWRITE", "MEMWRITEOOB64", "MEMREADOOB64".
const char *RequestName(RequestKind kind);

/// @return the name of an errno value, "EIO"; its number in decimal when it has none.
std::string ErrnoName(int error);

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

/// Reads a fault as a command line gives it: "MEMWRITE:3=EIO" (the third), "MEMERASE64=ENOTTY" (every one),
/// "open=ENODEV". Errors are names or numbers.
/// @return false, and `fault` as it was, when the text is none.
bool ParseFault(const std::string &text, SimFault &fault);

/// What a simulated run is to be.
struct SimSettings {
    std::vector<SimDevice> devices; ///< up to 32
    std::vector<SimFault> faults;   ///< up to 64
    std::uint64_t cutAtChange = 0;  ///< power goes during the n-th page program or block erase, from 1; 0: never
    std::uint64_t traceLimit = 0;   ///< bytes of trace that are kept at most; 0: none. Room is taken as lines come
};

/// The state of one simulated run: a file that all its processes share, without locks and without flushing.
class SimState : public FlashEvents {
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

    /// Counts a request. Doesn't come back once the power is off.
    /// @return 0, or the errno value with which a fault makes it fail.
    int Begin(RequestKind kind);
    /// @return how many requests of a kind were made, failed ones included.
    std::uint64_t Requests(RequestKind kind) const;
    /// @return how many pages were programmed and blocks erased, one that the power cut ended included.
    std::uint64_t Changes() const;

    bool PowerWasCut() const;
    /// Doesn't come back once the power is off: for what is no request, but done by a device with power alone.
    void NeedPower() const;
    /// @return where the power went, as "MEMWRITE at 0x800", an offset on the chip; empty when it never did.
    std::string CutPlace() const;

    bool Traces() const;
    /// Adds a line to the trace, in the order of all processes; `line` comes without a newline.
    void Trace(const std::string &line);
    /// @return the lines so far, each ended by a newline.
    std::string TraceText() const;
    /// @return true when lines were left out for want of room.
    bool TraceOverflowed() const;

    /// Makes a new open file description, which dup, fork and exec share.
    /// @return its number, or -1 when the run has opened too many.
    int NewOpenFile(const OpenFile &file);
    OpenFile &GetOpenFile(int number);

    void Note(std::uint64_t offset, const char *text) override;
    Extent BeginChange() override;
    [[noreturn]] void PowerOff(std::uint64_t offset) override;

private:
    struct Shared;
    bool HasTraceRoom(std::uint64_t end);

    SharedFile m_file;
    Shared *m_shared;
    RequestKind m_current = RequestKind::Open;
};
