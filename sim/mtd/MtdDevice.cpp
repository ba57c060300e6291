#include "mtd/MtdDevice.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>

namespace {

constexpr int kNotSupported = 524;                 ///< the kernel's ENOTSUPP, which user space has no name for
constexpr std::size_t kReadWriteMost = 0x7FFFF000; ///< one read or write moves no more
constexpr std::uint64_t kWriteChunk = 4 << 20;     ///< the kernel copies a write in parts of this size
constexpr std::uint32_t kOobMost = 4096;           ///< one OOB request moves no more

bool MayRead(const OpenFile &file) { return (file.flags & O_ACCMODE) != O_WRONLY; }
bool MayWrite(const OpenFile &file) { return (file.flags & O_ACCMODE) != O_RDONLY; }

/// A length that reaches behind the end of all memory.
bool IsBadLength(std::size_t length) { return length > std::numeric_limits<std::size_t>::max() / 2; }

/// The kernel casts its 64-bit user addresses just so.
std::uint8_t *UserPointer(std::uint64_t address) {
    return reinterpret_cast<std::uint8_t *>(static_cast<std::uintptr_t>(address)); // NOLINT(performance-no-int-to-ptr)
}

/// Takes a request's structure from the caller.
/// @return false when there is none.
template <typename Structure> bool CopyIn(Structure &to, const void *from) {
    if (from == nullptr)
        return false;
    std::memcpy(&to, from, sizeof to);
    return true;
}

} // namespace

/// Data and OOB bytes for one write of the MTD layer, and how much of them went out.
struct MtdDevice::Operation {
    std::uint8_t mode = MTD_OPS_PLACE_OOB;
    const std::uint8_t *data = nullptr;
    std::uint64_t length = 0;
    const std::uint8_t *oob = nullptr;
    std::uint64_t oobLength = 0;
    std::uint32_t oobOffset = 0;
};

MtdDevice::MtdDevice(NandChip &chip, FlashEvents &events, std::uint64_t offset, std::uint64_t size)
    : m_chip(chip), m_events(events), m_offset(offset), m_size(size) {}

std::int64_t MtdDevice::Seek(OpenFile &file, std::int64_t offset, int whence) const {
    std::int64_t base = 0;
    if (whence == SEEK_CUR)
        base = file.position;
    else if (whence == SEEK_END)
        base = static_cast<std::int64_t>(m_size);
    else if (whence != SEEK_SET)
        return -EINVAL;
    // Neither sum can overflow where it matters: base is a size of flash.
    if (offset > static_cast<std::int64_t>(m_size) - base || offset < -base)
        return -EINVAL;
    file.position = base + offset;
    return file.position;
}

std::int64_t MtdDevice::Read(OpenFile &file, void *data, std::size_t length) {
    if (!MayRead(file))
        return -EBADF;
    if (IsBadLength(length))
        return -EFAULT;
    const auto position = static_cast<std::uint64_t>(file.position);
    if (position >= m_size)
        return 0;
    const std::uint64_t count = std::min<std::uint64_t>(std::min(length, kReadWriteMost), m_size - position);
    if (count == 0)
        return 0;
    if (data == nullptr)
        return -EFAULT;
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    auto *out = static_cast<std::uint8_t *>(data);
    for (std::uint64_t done = 0; done < count;) {
        const std::uint64_t at = m_offset + position + done;
        const auto column = static_cast<std::uint32_t>(at % pageSize);
        const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(pageSize - column, count - done));
        if (m_chip.Read(static_cast<std::uint32_t>(at / pageSize), column, part, out) != NandChip::ReadResult::Clean)
            m_events.Note(at - column, "read without valid ECC");
        out += part;
        done += part;
    }
    file.position += static_cast<std::int64_t>(count);
    return static_cast<std::int64_t>(count);
}

std::int64_t MtdDevice::Write(OpenFile &file, const void *data, std::size_t length) {
    if (!MayWrite(file))
        return -EBADF;
    if (IsBadLength(length))
        return -EFAULT;
    const auto position = static_cast<std::uint64_t>(file.position);
    if (position >= m_size)
        return -ENOSPC;
    const std::uint64_t count = std::min<std::uint64_t>(std::min(length, kReadWriteMost), m_size - position);
    if (count == 0)
        return 0;
    if (data == nullptr)
        return -EFAULT;
    for (std::uint64_t done = 0; done < count;) {
        Operation operation;
        operation.data = static_cast<const std::uint8_t *>(data) + done;
        operation.length = std::min(kWriteChunk, count - done);
        if (const int error = WriteData(position + done, operation))
            return error;
        done += operation.length;
        file.position += static_cast<std::int64_t>(operation.length);
    }
    return static_cast<std::int64_t>(count);
}

int MtdDevice::Request(OpenFile &file, unsigned long request, void *argument) {
    switch (request) {
    case MEMGETBADBLOCK:
        return IsBlockBad(argument);
    case MEMREADOOB64:
        return ReadOob(argument);
    case MEMERASE64:
    case MEMERASE:
    case MEMWRITE:
    case MEMWRITEOOB64:
        break;
    default:
        return -ENOTTY;
    }
    if (!MayWrite(file))
        return -EPERM;
    switch (request) {
    case MEMERASE64: {
        erase_info_user64 range = {};
        return CopyIn(range, argument) ? Erase(range.start, range.length) : -EFAULT;
    }
    case MEMERASE: {
        erase_info_user range = {};
        return CopyIn(range, argument) ? Erase(range.start, range.length) : -EFAULT;
    }
    case MEMWRITE:
        return WritePages(argument);
    default:
        return WriteOob(argument);
    }
}

int MtdDevice::IsBlockBad(const void *argument) const {
    std::int64_t offset = 0;
    if (!CopyIn(offset, argument))
        return -EFAULT;
    if (offset < 0 || static_cast<std::uint64_t>(offset) >= m_size)
        return -EINVAL;
    return m_chip.IsBad(BlockAt(static_cast<std::uint64_t>(offset))) ? 1 : 0;
}

int MtdDevice::Erase(std::uint64_t start, std::uint64_t length) {
    const std::uint32_t eraseSize = m_chip.Geometry().eraseSize;
    if (start >= m_size || length > m_size - start)
        return -EINVAL;
    if (length == 0)
        return 0;
    if (start % eraseSize != 0 || length % eraseSize != 0)
        return -EINVAL;
    for (std::uint64_t offset = start; offset < start + length; offset += eraseSize) {
        const std::uint32_t block = BlockAt(offset);
        if (m_chip.IsBad(block))
            return -EIO;
        const Extent extent = m_events.BeginChange();
        const bool erased = m_chip.Erase(block, extent);
        if (extent != Extent::Whole)
            m_events.PowerOff(m_offset + offset);
        if (!erased)
            return -EIO;
    }
    return 0;
}

int MtdDevice::WritePages(const void *argument) {
    mtd_write_req request = {};
    if (!CopyIn(request, argument))
        return -EFAULT;
    const std::uint8_t *data = UserPointer(request.usr_data);
    const std::uint8_t *oob = UserPointer(request.usr_oob);
    constexpr std::uint64_t kLowWord = 0xFFFFFFFF;
    std::uint64_t length = data == nullptr ? 0 : request.len & kLowWord;
    std::uint64_t oobLength = oob == nullptr ? 0 : request.ooblen & kLowWord;
    if (request.start > m_size || length > m_size - request.start)
        return -EINVAL;

    // The kernel goes by erase blocks' worth of bytes; what went out before a failure stays.
    const std::uint64_t most = m_chip.Geometry().eraseSize;
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    std::uint64_t start = request.start;
    while (length > 0 || (data == nullptr && oobLength > 0)) {
        Operation operation;
        operation.mode = request.mode;
        operation.data = length > 0 ? data : nullptr;
        operation.length = std::min(length, most);
        operation.oob = oob;
        operation.oobLength = std::min(oobLength, most);
        if (operation.length == most)
            operation.length -= (start + most) % pageSize;
        if (operation.length > 0) {
            const std::uint64_t pages = (start + operation.length - 1) / pageSize - start / pageSize + 1;
            operation.oobLength = std::min(operation.oobLength, pages * OobAvailable(operation.mode));
        }
        const int error = operation.data != nullptr ? WriteData(start, operation) : WriteOobOnly(start, operation);
        if (error != 0)
            return error;
        start += operation.length;
        length -= operation.length;
        data = data == nullptr ? nullptr : data + operation.length;
        oobLength -= operation.oobLength;
        oob = oob == nullptr ? nullptr : oob + operation.oobLength;
    }
    return 0;
}

/// Takes an OOB request from the caller: the page it begins in, and what of the OOB it means.
int MtdDevice::TakeOobRequest(const void *argument, mtd_oob_buf64 &request, Operation &operation) const {
    if (!CopyIn(request, argument))
        return -EFAULT;
    const NandGeometry &geometry = m_chip.Geometry();
    // Bytes into the page are bytes into its OOB.
    const auto column = static_cast<std::uint32_t>(request.start % geometry.pageSize);
    if (request.length > kOobMost || (column != 0 && request.length > geometry.oobSize - std::uint64_t{column}))
        return -EINVAL;
    request.start -= column;
    operation.oobOffset = column;
    operation.oobLength = request.length;
    return 0;
}

int MtdDevice::WriteOob(void *argument) {
    mtd_oob_buf64 request = {};
    Operation operation;
    if (const int error = TakeOobRequest(argument, request, operation))
        return error;
    operation.oob = UserPointer(request.usr_ptr);
    if (operation.oob == nullptr && request.length > 0)
        return -EFAULT;
    const int error = WriteOobOnly(request.start, operation);
    static_cast<mtd_oob_buf64 *>(argument)->length = error == 0 ? request.length : 0;
    return error;
}

int MtdDevice::ReadOob(void *argument) const {
    mtd_oob_buf64 request = {};
    Operation operation;
    if (const int error = TakeOobRequest(argument, request, operation))
        return error;
    const int error = CheckRange(request.start, operation);
    static_cast<mtd_oob_buf64 *>(argument)->length = error == 0 ? request.length : 0;
    if (error != 0 || request.length == 0)
        return error;
    std::uint8_t *out = UserPointer(request.usr_ptr);
    if (out == nullptr)
        return -EFAULT;
    const NandGeometry &geometry = m_chip.Geometry();
    std::uint32_t left = request.length;
    for (std::uint32_t page = PageAt(request.start); left > 0; ++page) {
        const std::uint32_t part = std::min(geometry.oobSize - operation.oobOffset, left);
        std::memcpy(out, m_chip.Cells(page) + geometry.pageSize + operation.oobOffset, part);
        out += part;
        left -= part;
    }
    return 0;
}

std::uint32_t MtdDevice::OobAvailable(std::uint8_t mode) const {
    return mode == MTD_OPS_AUTO_OOB ? static_cast<std::uint32_t>(m_chip.FreeOob().size()) : m_chip.Geometry().oobSize;
}

int MtdDevice::CheckRange(std::uint64_t start, const Operation &operation) const {
    if (start > m_size || operation.length > m_size - start)
        return -EINVAL;
    if (operation.oobLength == 0)
        return 0;
    const std::uint32_t available = OobAvailable(operation.mode);
    if (operation.oobOffset >= available)
        return -EINVAL;
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    const std::uint64_t pages = m_size / pageSize - start / pageSize;
    return operation.oobLength + operation.oobOffset > pages * available ? -EINVAL : 0;
}

/// Writes pages or sub-pages, each with its share of the OOB bytes.
int MtdDevice::WriteData(std::uint64_t start, const Operation &operation) {
    if (const int error = CheckRange(start, operation))
        return error;
    if (operation.mode > MTD_OPS_RAW)
        return -kNotSupported;
    const std::uint32_t subPage = m_chip.SubPageSize();
    if (start % subPage != 0 || operation.length % subPage != 0)
        return -EINVAL;
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    std::uint64_t oobDone = 0;
    for (std::uint64_t done = 0; done < operation.length;) {
        NandChip::PageProgram program;
        program.withEcc = operation.mode != MTD_OPS_RAW;
        program.data = operation.data + done;
        program.column = static_cast<std::uint32_t>((start + done) % pageSize);
        program.length =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(pageSize - program.column, operation.length - done));
        const std::uint64_t oobPart =
            std::min<std::uint64_t>(operation.oobLength - oobDone, OobAvailable(operation.mode));
        if (const int error = ProgramPage(start + done, program, operation, oobDone, oobPart))
            return error;
        done += program.length;
        oobDone += oobPart;
    }
    return 0;
}

int MtdDevice::WriteOobOnly(std::uint64_t start, const Operation &operation) {
    if (const int error = CheckRange(start, operation))
        return error;
    if (operation.mode > MTD_OPS_RAW)
        return -kNotSupported;
    if (operation.oobOffset + operation.oobLength > OobAvailable(operation.mode))
        return -EINVAL;
    return ProgramPage(start, {}, operation, 0, operation.oobLength);
}

/// Programs one page with the OOB bytes from `oobDone` on, placed as the operation's mode says.
int MtdDevice::ProgramPage(std::uint64_t offset, NandChip::PageProgram program, const Operation &operation,
                           std::uint64_t oobDone, std::uint64_t oobLength) {
    std::uint8_t placed[NandChip::kMaxOob];
    const std::uint8_t *oob = operation.oob + oobDone;
    if (oobLength > 0 && (operation.mode == MTD_OPS_AUTO_OOB || operation.oobOffset != 0)) {
        std::fill_n(placed, m_chip.Geometry().oobSize, std::uint8_t{0xFF});
        for (std::uint64_t i = 0; i < oobLength; ++i) {
            const bool automatic = operation.mode == MTD_OPS_AUTO_OOB;
            placed[automatic ? m_chip.FreeOob()[i] : operation.oobOffset + i] = oob[i];
        }
        oob = placed;
        oobLength = m_chip.Geometry().oobSize;
    }
    if (oobLength > 0) {
        program.oob = oob;
        program.oobLength = static_cast<std::uint32_t>(oobLength);
    }
    const std::uint32_t page = PageAt(offset);
    program.extent = m_events.BeginChange();
    const NandChip::Programmed result = m_chip.Program(page, program);
    const std::uint64_t place = std::uint64_t{page} * m_chip.Geometry().pageSize;
    if (program.extent != Extent::Whole)
        m_events.PowerOff(place);
    if (result.overUnerased)
        m_events.Note(place, "programmed over unerased bits");
    return result.done ? 0 : -EIO;
}

std::uint32_t MtdDevice::PageAt(std::uint64_t offset) const {
    return static_cast<std::uint32_t>((m_offset + offset) / m_chip.Geometry().pageSize);
}

std::uint32_t MtdDevice::BlockAt(std::uint64_t offset) const {
    return static_cast<std::uint32_t>((m_offset + offset) / m_chip.Geometry().eraseSize);
}
