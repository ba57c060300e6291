#pragma once

#include "chip/ChangeListener.h"
#include "chip/NandChip.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

struct mtd_oob_buf64;

/// An open file description: what descriptors made by dup and fork share.
struct OpenFile {
    std::int64_t position;  ///< bytes from the device's start
    std::int32_t minor;     ///< of the node: 2N for /dev/mtdN, 2N + 1 for /dev/mtdNro
    std::int32_t flags;     ///< as given to open
    std::uint32_t mode = 0; ///< of MTDFILEMODE: MTD_FILE_MODE_NORMAL or MTD_FILE_MODE_RAW
};

/// What the kernel counts for a device while it runs.
struct MtdCounters {
    std::atomic<std::uint32_t> corrected; ///< bits
    std::atomic<std::uint32_t> failed;    ///< ECC steps beyond correction
    std::atomic<std::uint32_t> badBlocks; ///< present at the start, and each mark requested since
};

/// The page of which the kernel keeps the last partial read, for chips with pages of up to 512 bytes.
struct PageCache {
    static constexpr std::uint32_t kNone = 0xFFFFFFFF;
    std::atomic<std::uint32_t> page; ///< number on the chip, or kNone
    std::atomic<std::uint32_t> bits; ///< most bits that were corrected in one step of it
};

/// One MTD character device over a part of a chip, with the behaviour of the Linux kernel (6.1).
///
/// Results are what the kernel gives: a count, a position, 0 or 1, or a negative errno value. Pointers are the
/// caller's; a null one is a bad address (-EFAULT) where bytes would move through it, any other is trusted.
class MtdDevice {
public:
    /// A device's part of the chip in bytes, whole blocks, and what the kernel keeps of it.
    struct Part {
        std::uint64_t offset;
        std::uint64_t size;
        MtdCounters &counters;
        PageCache &cache;
    };

    MtdDevice(NandChip &chip, ChangeListener &listener, const Part &part);

    /// @return the new position, up to the device's size; -EINVAL beyond.
    std::int64_t Seek(OpenFile &file, std::int64_t offset, int whence) const;

    /// Reads and moves the position: through the ECC, raw in a file of that mode. Data beyond correction is given all
    /// the same.
    /// @return bytes read, fewer at the device's end, 0 after it.
    std::int64_t Read(OpenFile &file, void *data, std::size_t length);

    /// Writes with ECC (without in a file of raw mode) and moves the position. Position and length have to be whole
    /// sub-pages.
    /// @return bytes written, fewer at the device's end; -ENOSPC after it.
    std::int64_t Write(OpenFile &file, const void *data, std::size_t length);

    /// @param request an ioctl number; unknown ones give -ENOTTY
    /// @param argument the structure that belongs to the request
    int Request(OpenFile &file, unsigned long request, void *argument);

private:
    struct Operation;
    struct Answer;
    static const Answer kAnswers[];

    int GetInfo(OpenFile &file, void *argument);
    int GetRegionCount(OpenFile &file, void *argument);
    int GetRegionInfo(OpenFile &file, void *argument);
    int IsBlockBad(OpenFile &file, void *argument);
    int SetBlockBad(OpenFile &file, void *argument);
    int EraseOld(OpenFile &file, void *argument);
    int Erase64(OpenFile &file, void *argument);
    int WritePages(OpenFile &file, void *argument);
    int ReadPages(OpenFile &file, void *argument);
    int WriteOob64(OpenFile &file, void *argument);
    int ReadOob64(OpenFile &file, void *argument);
    int WriteOobOld(OpenFile &file, void *argument);
    int ReadOobOld(OpenFile &file, void *argument);
    int Lock(OpenFile &file, void *argument);
    int IsLocked(OpenFile &file, void *argument);
    int GetOobPlaces(OpenFile &file, void *argument);
    int GetEccLayout(OpenFile &file, void *argument);
    int GetEccStats(OpenFile &file, void *argument);
    int SetFileMode(OpenFile &file, void *argument);
    int SelectOtp(OpenFile &file, void *argument);
    int RefuseOtp(OpenFile &file, void *argument);
    int AddPartition(OpenFile &file, void *argument);
    int RereadPartitions(OpenFile &file, void *argument);

    int Erase(std::uint64_t start, std::uint64_t length);
    bool EraseOneBlock(std::uint64_t offset);
    int TakeOobRequest(const OpenFile &file, mtd_oob_buf64 &request, Operation &operation) const;
    int WriteOob(const OpenFile &file, mtd_oob_buf64 request, std::uint32_t &written);
    int ReadOob(const OpenFile &file, mtd_oob_buf64 request, std::uint32_t &read);

    std::uint32_t OobAvailable(std::uint8_t mode) const;
    void Shorten(std::uint64_t start, Operation &operation) const;
    int CheckRange(std::uint64_t start, const Operation &operation) const;
    int WriteData(std::uint64_t start, const Operation &operation);
    int WriteOobOnly(std::uint64_t start, const Operation &operation);
    int ProgramPage(std::uint64_t offset, NandChip::PageProgram program, const Operation &operation,
                    std::uint64_t oobDone, std::uint64_t oobLength);
    int ReadData(std::uint64_t start, const Operation &operation, EccResult &result);
    int ReadOobOnly(std::uint64_t start, const Operation &operation);
    void ReadPage(std::uint32_t page, std::uint32_t column, std::uint32_t length, const Operation &operation,
                  std::uint8_t *data, EccResult &result);
    void CopyOob(std::uint32_t page, const Operation &operation, std::uint8_t *out, std::uint32_t length) const;

    bool HasCache() const;
    void DropCache(std::uint32_t first, std::uint32_t end);
    std::uint32_t PageAt(std::uint64_t offset) const;
    std::uint32_t BlockAt(std::uint64_t offset) const;

    NandChip &m_chip;
    ChangeListener &m_listener;
    Part m_part;
};
