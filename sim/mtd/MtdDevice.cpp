#include "mtd/MtdDevice.h"

#include "mtd/MtdOperation.h"
#include "mtd/Trace.h"
#include "mtd/UserMemory.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <limits>
#include <linux/blkpg.h>
#include <linux/fs.h>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>

namespace {

constexpr std::size_t kReadWriteMost = 0x7FFFF000; ///< one read or write moves no more
constexpr std::uint64_t kWriteChunk = 4 << 20;     ///< the kernel copies a write in parts of this size
constexpr std::uint32_t kOobMost = 4096;           ///< one OOB request moves no more
constexpr std::uint64_t kLowWord = 0xFFFFFFFF;     ///< of 64-bit lengths the kernel takes the low half
/// Larger pages are read by ECC steps; of these the kernel reads all and keeps the last.
constexpr std::uint32_t kLargestCachedPage = 512;
constexpr std::uint32_t kSmallMarkPlace = 5; ///< of the bad-block mark in the OOB of such pages

bool MayRead(const OpenFile &file) { return (file.flags & O_ACCMODE) != O_WRONLY; }
bool MayWrite(const OpenFile &file) { return (file.flags & O_ACCMODE) != O_RDONLY; }

/// A length that reaches beyond the end of all memory.
bool IsBadLength(std::size_t length) { return length > std::numeric_limits<std::size_t>::max() / 2; }

std::uint8_t ModeOf(const OpenFile &file) { return file.mode == MTD_FILE_MODE_RAW ? MTD_OPS_RAW : MTD_OPS_PLACE_OOB; }

} // namespace

struct MtdDevice::Answer {
    unsigned long number;
    bool changesFlash; ///< needs a descriptor that may write
    int (MtdDevice::*answer)(OpenFile &file, void *argument);
};

const MtdDevice::Answer MtdDevice::kAnswers[] = {
    {MEMGETINFO, false, &MtdDevice::GetInfo},
    {MEMGETREGIONCOUNT, false, &MtdDevice::GetRegionCount},
    {MEMGETREGIONINFO, false, &MtdDevice::GetRegionInfo},
    {MEMGETBADBLOCK, false, &MtdDevice::IsBlockBad},
    {MEMSETBADBLOCK, true, &MtdDevice::SetBlockBad},
    {MEMERASE64, true, &MtdDevice::Erase64},
    {MEMERASE, true, &MtdDevice::EraseOld},
    {MEMWRITE, true, &MtdDevice::WritePages},
    {MEMREAD, false, &MtdDevice::ReadPages},
    {MEMWRITEOOB64, true, &MtdDevice::WriteOob64},
    {MEMREADOOB64, false, &MtdDevice::ReadOob64},
    {MEMWRITEOOB, true, &MtdDevice::WriteOobOld},
    {MEMREADOOB, false, &MtdDevice::ReadOobOld},
    {MEMLOCK, true, &MtdDevice::Lock},
    {MEMUNLOCK, true, &MtdDevice::Lock},
    {MEMISLOCKED, false, &MtdDevice::IsLocked},
    {MEMGETOOBSEL, false, &MtdDevice::GetOobPlaces},
    {ECCGETLAYOUT, false, &MtdDevice::GetEccLayout},
    {ECCGETSTATS, false, &MtdDevice::GetEccStats},
    {MTDFILEMODE, false, &MtdDevice::SetFileMode},
    {OTPSELECT, false, &MtdDevice::SelectOtp},
    {OTPGETREGIONCOUNT, false, &MtdDevice::RefuseOtp},
    {OTPGETREGIONINFO, false, &MtdDevice::RefuseOtp},
    {OTPLOCK, true, &MtdDevice::RefuseOtp},
    {OTPERASE, true, &MtdDevice::RefuseOtp},
    {BLKPG, false, &MtdDevice::AddPartition},
    {BLKRRPART, false, &MtdDevice::RereadPartitions},
};

MtdDevice::MtdDevice(NandChip &chip, ChangeListener &listener, const Part &part)
    : m_chip(chip), m_listener(listener), m_part(part) {}

std::int64_t MtdDevice::Seek(OpenFile &file, std::int64_t offset, int whence) const {
    std::int64_t base = 0;
    if (whence == SEEK_CUR)
        base = file.position;
    else if (whence == SEEK_END)
        base = static_cast<std::int64_t>(m_part.size);
    else if (whence != SEEK_SET)
        return -EINVAL;
    // Neither sum can overflow where it matters: base is a size of flash.
    if (offset > static_cast<std::int64_t>(m_part.size) - base || offset < -base)
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
    if (position >= m_part.size)
        return 0;
    const std::uint64_t count = std::min<std::uint64_t>(std::min(length, kReadWriteMost), m_part.size - position);
    if (count == 0)
        return 0;
    if (data == nullptr)
        return -EFAULT;
    Operation operation;
    operation.mode = ModeOf(file);
    operation.out = static_cast<std::uint8_t *>(data);
    operation.length = count;
    EccResult ignored;
    ReadData(position, operation, ignored);
    file.position += static_cast<std::int64_t>(count);
    return static_cast<std::int64_t>(count);
}

std::int64_t MtdDevice::Write(OpenFile &file, const void *data, std::size_t length) {
    if (!MayWrite(file))
        return -EBADF;
    if (IsBadLength(length))
        return -EFAULT;
    const auto position = static_cast<std::uint64_t>(file.position);
    if (position >= m_part.size)
        return -ENOSPC;
    const std::uint64_t count = std::min<std::uint64_t>(std::min(length, kReadWriteMost), m_part.size - position);
    if (count == 0)
        return 0;
    if (data == nullptr)
        return -EFAULT;
    for (std::uint64_t done = 0; done < count;) {
        Operation operation;
        operation.mode = ModeOf(file);
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
    const auto *end = std::end(kAnswers);
    const auto *found =
        std::find_if(std::begin(kAnswers), end, [request](const Answer &known) { return known.number == request; });
    if (found == end)
        return -ENOTTY;
    if (found->changesFlash && !MayWrite(file))
        return -EPERM;
    return (this->*found->answer)(file, argument);
}

int MtdDevice::IsBlockBad(OpenFile & /*file*/, void *argument) {
    std::int64_t offset = 0;
    if (!CopyIn(offset, argument))
        return -EFAULT;
    if (offset < 0 || static_cast<std::uint64_t>(offset) >= m_part.size)
        return -EINVAL;
    return m_chip.IsBad(BlockAt(static_cast<std::uint64_t>(offset))) ? 1 : 0;
}

int MtdDevice::SetBlockBad(OpenFile & /*file*/, void *argument) {
    std::int64_t place = 0;
    if (!CopyIn(place, argument))
        return -EFAULT;
    const auto offset = static_cast<std::uint64_t>(place);
    if (offset >= m_part.size)
        return -EINVAL;
    int error = 0;
    if (!m_chip.IsBad(BlockAt(offset))) {
        // An erase that fails is the usual reason for a mark. An offset inside the block isn't erased at all.
        if (offset % m_chip.Geometry().eraseSize == 0)
            EraseOneBlock(offset);
        constexpr std::uint8_t kMark = 0;
        Operation mark;
        mark.oob = &kMark;
        mark.oobLength = sizeof kMark;
        mark.oobOffset = m_chip.Geometry().pageSize <= kLargestCachedPage ? kSmallMarkPlace : 0;
        error = ProgramPage(offset, {}, mark, 0, sizeof kMark);
        m_chip.SetBad(BlockAt(offset));
    }
    // The kernel counts a block once more that was bad already.
    if (error == 0)
        ++m_part.counters.badBlocks;
    return error;
}

int MtdDevice::Erase64(OpenFile & /*file*/, void *argument) {
    erase_info_user64 range = {};
    return CopyIn(range, argument) ? Erase(range.start, range.length) : -EFAULT;
}

int MtdDevice::EraseOld(OpenFile & /*file*/, void *argument) {
    erase_info_user range = {};
    return CopyIn(range, argument) ? Erase(range.start, range.length) : -EFAULT;
}

int MtdDevice::Erase(std::uint64_t start, std::uint64_t length) {
    const std::uint32_t eraseSize = m_chip.Geometry().eraseSize;
    if (start >= m_part.size || length > m_part.size - start)
        return -EINVAL;
    if (length == 0)
        return 0;
    if (start % eraseSize != 0 || length % eraseSize != 0)
        return -EINVAL;
    for (std::uint64_t offset = start; offset < start + length; offset += eraseSize) {
        if (m_chip.IsBad(BlockAt(offset)) || !EraseOneBlock(offset))
            return -EIO;
    }
    return 0;
}

bool MtdDevice::EraseOneBlock(std::uint64_t offset) {
    const std::uint32_t pages = m_chip.Geometry().PagesPerBlock();
    DropCache(PageAt(offset), PageAt(offset) + pages);
    const Extent extent = m_listener.BeginChange(m_part.offset + offset);
    const bool erased = m_chip.Erase(BlockAt(offset), extent);
    if (extent != Extent::Whole)
        m_listener.PowerOff(m_part.offset + offset);
    return erased;
}

int MtdDevice::WritePages(OpenFile & /*file*/, void *argument) {
    mtd_write_req request = {};
    if (!CopyIn(request, argument))
        return -EFAULT;
    const std::uint8_t *data = UserPointer(request.usr_data);
    const std::uint8_t *oob = UserPointer(request.usr_oob);
    std::uint64_t length = data == nullptr ? 0 : request.len & kLowWord;
    std::uint64_t oobLength = oob == nullptr ? 0 : request.ooblen & kLowWord;
    if (request.start > m_part.size || length > m_part.size - request.start)
        return -EINVAL;

    // The kernel goes by erase blocks' worth of bytes; what went out before a failure stays.
    const std::uint64_t most = m_chip.Geometry().eraseSize;
    std::uint64_t start = request.start;
    while (length > 0 || (data == nullptr && oobLength > 0)) {
        Operation operation;
        operation.mode = request.mode;
        operation.data = length > 0 ? data : nullptr;
        operation.length = std::min(length, most);
        operation.oob = oob;
        operation.oobLength = std::min(oobLength, most);
        Shorten(start, operation);
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

int MtdDevice::ReadPages(OpenFile & /*file*/, void *argument) {
    mtd_read_req request = {};
    if (!CopyIn(request, argument))
        return -EFAULT;
    std::uint8_t *data = UserPointer(request.usr_data);
    std::uint8_t *oob = UserPointer(request.usr_oob);
    const std::uint64_t wanted = request.len, wantedOob = request.ooblen;
    request.len = data == nullptr ? 0 : request.len & kLowWord;
    request.ooblen = oob == nullptr ? 0 : request.ooblen & kLowWord;
    const bool hasOob = request.ooblen > 0;
    EccResult total;
    int error = request.start > m_part.size || request.len > m_part.size - request.start ? -EINVAL : 0;

    // By erase blocks' worth of bytes, as writes.
    const std::uint64_t most = m_chip.Geometry().eraseSize;
    while (error == 0 && (request.len > 0 || (data == nullptr && request.ooblen > 0))) {
        Operation operation;
        operation.mode = request.mode;
        operation.out = request.len > 0 ? data : nullptr;
        operation.length = std::min<std::uint64_t>(request.len, most);
        operation.oobOut = hasOob ? oob : nullptr;
        operation.oobLength = std::min<std::uint64_t>(request.ooblen, most);
        Shorten(request.start, operation);
        error = operation.out != nullptr ? ReadData(request.start, operation, total)
                                         : ReadOobOnly(request.start, operation);
        if (error != 0)
            break;
        request.start += operation.length;
        request.len -= operation.length;
        data = data == nullptr ? nullptr : data + operation.length;
        request.ooblen -= operation.oobLength;
        oob = oob == nullptr ? nullptr : oob + operation.oobLength;
    }
    if (error == 0 && total.failed > 0)
        error = -EBADMSG;
    else if (error == 0 && total.corrected > 0)
        error = -EUCLEAN;
    request.len = wanted - request.len;
    request.ooblen = wantedOob - request.ooblen;
    request.ecc_stats = {total.failed, total.corrected, total.mostBits};
    std::memcpy(argument, &request, sizeof request);
    return error;
}

/// Prepares an OOB request: the page where it begins, and the part of the OOB.
int MtdDevice::TakeOobRequest(const OpenFile &file, mtd_oob_buf64 &request, Operation &operation) const {
    const NandGeometry &geometry = m_chip.Geometry();
    // Bytes into the page are bytes into its OOB.
    const auto column = static_cast<std::uint32_t>(request.start % geometry.pageSize);
    if (request.length > kOobMost || (column != 0 && request.length > geometry.oobSize - std::uint64_t{column}))
        return -EINVAL;
    request.start -= column;
    operation.mode = ModeOf(file);
    operation.oobOffset = column;
    operation.oobLength = request.length;
    return 0;
}

/// @param written gets the number of bytes, when the kernel gets as far as to store one
int MtdDevice::WriteOob(const OpenFile &file, mtd_oob_buf64 request, std::uint32_t &written) {
    Operation operation;
    if (const int error = TakeOobRequest(file, request, operation))
        return error;
    operation.oob = UserPointer(request.usr_ptr);
    if (operation.oob == nullptr && request.length > 0)
        return -EFAULT;
    const int error = WriteOobOnly(request.start, operation);
    written = error == 0 ? request.length : 0;
    return error;
}

/// @param read gets the number of bytes, when the kernel gets as far as to store one
int MtdDevice::ReadOob(const OpenFile &file, mtd_oob_buf64 request, std::uint32_t &read) {
    Operation operation;
    if (const int error = TakeOobRequest(file, request, operation))
        return error;
    operation.oobOut = UserPointer(request.usr_ptr);
    const int error = CheckRange(request.start, operation);
    read = error == 0 ? request.length : 0;
    if (error != 0 || request.length == 0)
        return error;
    return operation.oobOut == nullptr ? -EFAULT : ReadOobOnly(request.start, operation);
}

int MtdDevice::WriteOob64(OpenFile &file, void *argument) {
    mtd_oob_buf64 request = {};
    return CopyIn(request, argument) ? WriteOob(file, request, static_cast<mtd_oob_buf64 *>(argument)->length)
                                     : -EFAULT;
}

int MtdDevice::ReadOob64(OpenFile &file, void *argument) {
    mtd_oob_buf64 request = {};
    return CopyIn(request, argument) ? ReadOob(file, request, static_cast<mtd_oob_buf64 *>(argument)->length) : -EFAULT;
}

int MtdDevice::WriteOobOld(OpenFile &file, void *argument) {
    mtd_oob_buf request = {};
    if (!CopyIn(request, argument))
        return -EFAULT;
    return WriteOob(file, {request.start, 0, request.length, UserAddress(request.ptr)},
                    static_cast<mtd_oob_buf *>(argument)->length);
}

int MtdDevice::ReadOobOld(OpenFile &file, void *argument) {
    mtd_oob_buf request = {};
    if (!CopyIn(request, argument))
        return -EFAULT;
    // The old request has its count in place of the start.
    return ReadOob(file, {request.start, 0, request.length, UserAddress(request.ptr)},
                   static_cast<mtd_oob_buf *>(argument)->start);
}

std::uint32_t MtdDevice::OobAvailable(std::uint8_t mode) const {
    return mode == MTD_OPS_AUTO_OOB ? static_cast<std::uint32_t>(m_chip.FreeOob().size()) : m_chip.Geometry().oobSize;
}

/// Takes of one step of a page request what belongs together: up to a page's end, with the OOB bytes of its pages.
void MtdDevice::Shorten(std::uint64_t start, Operation &operation) const {
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    if (operation.length == m_chip.Geometry().eraseSize)
        operation.length -= (start + operation.length) % pageSize;
    if (operation.length > 0) {
        const std::uint64_t pages = (start + operation.length - 1) / pageSize - start / pageSize + 1;
        operation.oobLength = std::min(operation.oobLength, pages * OobAvailable(operation.mode));
    }
}

int MtdDevice::CheckRange(std::uint64_t start, const Operation &operation) const {
    if (start > m_part.size || operation.length > m_part.size - start)
        return -EINVAL;
    // OOB bytes alone, be it none, begin on a page of the device.
    if (start == m_part.size && operation.data == nullptr && operation.out == nullptr)
        return -EINVAL;
    if (operation.oobLength == 0)
        return 0;
    const std::uint32_t available = OobAvailable(operation.mode);
    if (operation.oobOffset >= available)
        return -EINVAL;
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    const std::uint64_t pages = m_part.size / pageSize - start / pageSize;
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
        // The kernel completes a part of a page in the buffer that holds the kept page.
        if (program.length < pageSize)
            m_part.cache.page = PageCache::kNone;
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
    DropCache(page, page + 1);
    const std::uint64_t place = std::uint64_t{page} * m_chip.Geometry().pageSize;
    program.extent = m_listener.BeginChange(place);
    const NandChip::Programmed result = m_chip.Program(page, program);
    if (program.extent != Extent::Whole)
        m_listener.PowerOff(place);
    if (result.overUnerased)
        m_listener.Note(place, kUnerasedNote);
    return result.done ? 0 : -EIO;
}

/// Reads pages or parts of pages, each with its share of the OOB bytes. The ECC's work is added to `result`.
int MtdDevice::ReadData(std::uint64_t start, const Operation &operation, EccResult &result) {
    if (const int error = CheckRange(start, operation))
        return error;
    if (operation.mode > MTD_OPS_RAW)
        return -kNotSupported;
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    EccResult sum;
    std::uint64_t oobDone = 0;
    for (std::uint64_t done = 0; done < operation.length;) {
        const auto column = static_cast<std::uint32_t>((start + done) % pageSize);
        const auto part =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(pageSize - column, operation.length - done));
        const std::uint32_t page = PageAt(start + done);
        ReadPage(page, column, part, operation, operation.out + done, sum);
        const auto oobPart = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(operation.oobLength - oobDone, OobAvailable(operation.mode)));
        if (oobPart > 0)
            CopyOob(page, operation, operation.oobOut + oobDone, oobPart);
        done += part;
        oobDone += oobPart;
    }
    m_part.counters.corrected += sum.corrected;
    m_part.counters.failed += sum.failed;
    result.corrected += sum.corrected;
    result.failed += sum.failed;
    result.mostBits = std::max(result.mostBits, sum.mostBits);
    return 0;
}

/// Reads a part of one page. Where the kernel reads the whole page for it, the ECC of the whole counts.
void MtdDevice::ReadPage(std::uint32_t page, std::uint32_t column, std::uint32_t length, const Operation &operation,
                         std::uint8_t *data, EccResult &result) {
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    const bool isWhole = length == pageSize;
    const bool hasOob = operation.oobOut != nullptr;
    PageCache &cache = m_part.cache;
    if (HasCache() && cache.page == page && !hasOob) {
        m_chip.Read(page, column, length, data);
        result.mostBits = std::max(result.mostBits, cache.bits.load());
        return;
    }
    if (operation.mode == MTD_OPS_RAW) {
        std::memcpy(data, m_chip.Cells(page) + column, length);
        if (HasCache() && !isWhole)
            cache.page = PageCache::kNone;
        return;
    }
    EccResult own;
    if (isWhole || (!hasOob && !HasCache())) {
        own = m_chip.Read(page, column, length, data);
    } else {
        std::uint8_t whole[NandGeometry::kMaxPage];
        own = m_chip.Read(page, 0, pageSize, whole);
        std::memcpy(data, whole + column, length);
    }
    if (HasCache() && !isWhole) {
        cache.bits = own.mostBits;
        cache.page = hasOob || own.failed > 0 ? PageCache::kNone : page;
    }
    if (own.Worst() != ReadResult::Clean)
        m_listener.Note(std::uint64_t{page} * pageSize, kUnsoundReadNote);
    result.corrected += own.corrected;
    result.failed += own.failed;
    result.mostBits = std::max(result.mostBits, own.mostBits);
}

int MtdDevice::ReadOobOnly(std::uint64_t start, const Operation &operation) {
    if (const int error = CheckRange(start, operation))
        return error;
    if (operation.mode > MTD_OPS_RAW)
        return -kNotSupported;
    std::uint64_t done = 0;
    for (std::uint32_t page = PageAt(start); done < operation.oobLength; ++page) {
        const auto part = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(OobAvailable(operation.mode) - operation.oobOffset, operation.oobLength - done));
        CopyOob(page, operation, operation.oobOut + done, part);
        done += part;
    }
    return 0;
}

void MtdDevice::CopyOob(std::uint32_t page, const Operation &operation, std::uint8_t *out, std::uint32_t length) const {
    const std::uint8_t *oob = m_chip.Cells(page) + m_chip.Geometry().pageSize;
    const bool automatic = operation.mode == MTD_OPS_AUTO_OOB;
    for (std::uint32_t i = 0; i < length; ++i)
        out[i] = oob[automatic ? m_chip.FreeOob()[i] : operation.oobOffset + i];
}

bool MtdDevice::HasCache() const {
    return m_chip.Geometry().pageSize <= kLargestCachedPage && m_chip.EccMode() == Ecc::Host;
}

/// Forgets the kept page when it is one of these.
void MtdDevice::DropCache(std::uint32_t first, std::uint32_t end) {
    if (m_part.cache.page >= first && m_part.cache.page < end)
        m_part.cache.page = PageCache::kNone;
}

std::uint32_t MtdDevice::PageAt(std::uint64_t offset) const {
    return static_cast<std::uint32_t>((m_part.offset + offset) / m_chip.Geometry().pageSize);
}

std::uint32_t MtdDevice::BlockAt(std::uint64_t offset) const {
    return static_cast<std::uint32_t>((m_part.offset + offset) / m_chip.Geometry().eraseSize);
}
