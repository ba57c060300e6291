// The requests of an MTD device that neither read nor change flash.

#include "mtd/MtdDevice.h"
#include "mtd/MtdOperation.h"
#include "mtd/UserMemory.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>

int MtdDevice::GetInfo(OpenFile & /*file*/, void *argument) {
    const NandGeometry &geometry = m_chip.Geometry();
    mtd_info_user info = {};
    info.type = MTD_NANDFLASH;
    info.flags = MTD_CAP_NANDFLASH;
    info.size = static_cast<std::uint32_t>(m_part.size); // 32 bits by the interface
    info.erasesize = geometry.eraseSize;
    info.writesize = geometry.pageSize;
    info.oobsize = geometry.oobSize;
    return CopyOut(argument, info);
}

/// NAND has the same erase size everywhere, which counts as no region.
int MtdDevice::GetRegionCount(OpenFile & /*file*/, void *argument) { return CopyOut(argument, 0); }

int MtdDevice::GetRegionInfo(OpenFile & /*file*/, void *argument) { return argument == nullptr ? -EFAULT : -EINVAL; }

/// Raw NAND knows locks, but chips without the feature refuse them after the checks.
int MtdDevice::Lock(OpenFile & /*file*/, void *argument) {
    erase_info_user range = {};
    if (!CopyIn(range, argument))
        return -EFAULT;
    if (range.start >= m_part.size || range.length > m_part.size - range.start)
        return -EINVAL;
    return range.length == 0 ? 0 : -kNotSupported;
}

int MtdDevice::IsLocked(OpenFile & /*file*/, void *argument) { return argument == nullptr ? -EFAULT : -EOPNOTSUPP; }

int MtdDevice::GetOobPlaces(OpenFile & /*file*/, void *argument) {
    nand_oobinfo places = {};
    const OobLayout &layout = m_chip.Layout();
    for (const OobRegion &region : layout.ecc) {
        if (places.eccbytes + region.length > std::size(places.eccpos))
            return -EINVAL;
        for (std::uint32_t i = 0; i < region.length; ++i)
            places.eccpos[places.eccbytes++] = region.offset + i;
    }
    for (std::size_t i = 0; i < std::min(layout.free.size(), std::size(places.oobfree)); ++i) {
        places.oobfree[i][0] = layout.free[i].offset;
        places.oobfree[i][1] = layout.free[i].length;
    }
    places.useecc = MTD_NANDECC_AUTOPLACE;
    return CopyOut(argument, places);
}

int MtdDevice::GetEccLayout(OpenFile & /*file*/, void *argument) {
    nand_ecclayout_user places = {};
    const OobLayout &layout = m_chip.Layout();
    for (const OobRegion &region : layout.ecc) {
        // The old structure ends early; the kernel gives what fits.
        for (std::uint32_t i = 0; i < region.length && places.eccbytes < std::size(places.eccpos); ++i)
            places.eccpos[places.eccbytes++] = region.offset + i;
    }
    for (std::size_t i = 0; i < std::min(layout.free.size(), std::size(places.oobfree)); ++i) {
        places.oobfree[i] = {layout.free[i].offset, layout.free[i].length};
        places.oobavail += layout.free[i].length;
    }
    return CopyOut(argument, places);
}

int MtdDevice::GetEccStats(OpenFile & /*file*/, void *argument) {
    const MtdCounters &counters = m_part.counters;
    return CopyOut(argument, mtd_ecc_stats{counters.corrected, counters.failed, counters.badBlocks, 0});
}

int MtdDevice::SetFileMode(OpenFile &file, void *argument) {
    const std::uint64_t mode = UserAddress(argument);
    file.mode = MTD_FILE_MODE_NORMAL;
    file.position = 0;
    switch (mode) {
    case MTD_FILE_MODE_NORMAL:
        return 0;
    case MTD_FILE_MODE_RAW:
        file.mode = MTD_FILE_MODE_RAW;
        return 0;
    case MTD_FILE_MODE_OTP_FACTORY:
    case MTD_FILE_MODE_OTP_USER:
        return -EOPNOTSUPP;
    default:
        return -EINVAL;
    }
}

int MtdDevice::SelectOtp(OpenFile &file, void *argument) {
    int mode = 0;
    if (!CopyIn(mode, argument))
        return -EFAULT;
    file.mode = MTD_FILE_MODE_NORMAL;
    file.position = 0;
    switch (mode) {
    case MTD_OTP_OFF:
        return 0;
    case MTD_OTP_FACTORY:
    case MTD_OTP_USER:
        return -EOPNOTSUPP;
    default:
        return -EINVAL;
    }
}

/// No file is ever in an OTP mode.
int MtdDevice::RefuseOtp(OpenFile & /*file*/, void * /*argument*/) { return -EINVAL; }

/// Partitions stay as the run has them.
int MtdDevice::AddPartition(OpenFile & /*file*/, void * /*argument*/) { return -EPERM; }

int MtdDevice::RereadPartitions(OpenFile & /*file*/, void * /*argument*/) { return 0; }
