#pragma once

#include "chip/FlashEvents.h"
#include "chip/NandChip.h"

#include <cstddef>
#include <cstdint>

struct mtd_oob_buf64;

/// An open file description: what descriptors made by dup and fork share.
struct OpenFile {
    std::int64_t position; ///< bytes from the device's start
    std::int32_t device;   ///< number of the device
    std::int32_t flags;    ///< as given to open
};

/// One MTD character device over a part of a chip, with the behaviour of the Linux kernel (6.1).
///
/// Results are what the kernel gives: a count, a position, 0 or 1, or a negative errno value. Pointers are the
/// caller's; a null one is a bad address (-EFAULT) where bytes would move through it, any other is trusted.
class MtdDevice {
public:
    /// @param offset,size the device's part of the chip in bytes, whole blocks
    MtdDevice(NandChip &chip, FlashEvents &events, std::uint64_t offset, std::uint64_t size);

    /// @return the new position, up to the device's size; -EINVAL beyond.
    std::int64_t Seek(OpenFile &file, std::int64_t offset, int whence) const;

    /// Reads through the ECC and moves the position. Data that the ECC can't mend is given all the same.
    /// @return bytes read, fewer at the device's end, 0 behind it.
    std::int64_t Read(OpenFile &file, void *data, std::size_t length);

    /// Writes normally, with ECC, and moves the position. Position and length have to be whole sub-pages.
    /// @return bytes written, fewer at the device's end; -ENOSPC behind it.
    std::int64_t Write(OpenFile &file, const void *data, std::size_t length);

    /// @param request an ioctl number; those that aren't known give -ENOTTY
    /// @param argument the structure that belongs to it
    int Request(OpenFile &file, unsigned long request, void *argument);

private:
    struct Operation;

    int IsBlockBad(const void *argument) const;
    int Erase(std::uint64_t start, std::uint64_t length);
    int WritePages(const void *argument);
    int TakeOobRequest(const void *argument, mtd_oob_buf64 &request, Operation &operation) const;
    int WriteOob(void *argument);
    int ReadOob(void *argument) const;

    std::uint32_t OobAvailable(std::uint8_t mode) const;
    int CheckRange(std::uint64_t start, const Operation &operation) const;
    int WriteData(std::uint64_t start, const Operation &operation);
    int WriteOobOnly(std::uint64_t start, const Operation &operation);
    int ProgramPage(std::uint64_t offset, NandChip::PageProgram program, const Operation &operation,
                    std::uint64_t oobDone, std::uint64_t oobLength);

    std::uint32_t PageAt(std::uint64_t offset) const;
    std::uint32_t BlockAt(std::uint64_t offset) const;

    NandChip &m_chip;
    FlashEvents &m_events;
    std::uint64_t m_offset;
    std::uint64_t m_size;
};
