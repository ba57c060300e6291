#include "SNandUtil.h"

#include "UFile.h"
#include "UTextUtil.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kPathSize = 256;
constexpr std::uint64_t kOldEraseReach = 0xFFFFFFFF;

/// The kernel takes user addresses as 64-bit values; on 32-bit systems the high word is 0.
std::uint64_t UserAddress(const char *buffer) { return reinterpret_cast<std::uintptr_t>(buffer); }

/// A 32-bit value in a 64-bit field of a request.
std::uint64_t SignExtended(int value) { return static_cast<std::uint64_t>(std::int64_t{value}); }

} // namespace

SNandUtil::SNandUtil(int device) : m_nFd(-1), m_nEraseSize(-1), m_nWriteSize(-1), m_nOobSize(-1), m_nTotalSize(-1) {
    const struct {
        const char *path;
        int *field;
    } geometry[] = {
        {"/sys/class/mtd/mtd%d/size", &m_nTotalSize},
        {"/sys/class/mtd/mtd%d/erasesize", &m_nEraseSize},
        {"/sys/class/mtd/mtd%d/writesize", &m_nWriteSize},
        {"/sys/class/mtd/mtd%d/oobsize", &m_nOobSize},
    };
    char path[kPathSize];
    for (const auto &row : geometry) {
        std::snprintf(path, sizeof path, row.path, device);
        *row.field = UTextUtil::ToInt(UFile::ReadFile(path).c_str(), 10);
    }
    std::snprintf(path, sizeof path, "/dev/mtd%d", device);
    m_nFd = open(path, O_RDWR);
}

SNandUtil::~SNandUtil() {
    fsync(m_nFd);
    close(m_nFd);
}

long long SNandUtil::BlockOffset(int block) const { return static_cast<long long>(block) * m_nEraseSize; }

int SNandUtil::PageOffset(int page) const {
    // Wraps at 32 bits like the device's own arithmetic; unsigned, where that is defined.
    return static_cast<int>(static_cast<unsigned int>(page) * static_cast<unsigned int>(m_nWriteSize));
}

bool SNandUtil::SeekPage(int page) const {
    const int offset = PageOffset(page);
    const off_t position = lseek(m_nFd, offset, SEEK_SET);
    return position >= 0 && position == offset;
}

int SNandUtil::IsBlockBad(int block) {
    loff_t offset = BlockOffset(block);
    return ioctl(m_nFd, MEMGETBADBLOCK, &offset);
}

int SNandUtil::EraseBlock(int block) {
    erase_info_user64 range = {};
    range.start = static_cast<std::uint64_t>(BlockOffset(block));
    range.length = SignExtended(m_nEraseSize);
    const int result = ioctl(m_nFd, MEMERASE64, &range);
    if (result == 0)
        return 0;
    if (range.start + range.length > kOldEraseReach) {
        errno = EINVAL;
        return -1;
    }
    erase_info_user old = {};
    old.start = static_cast<std::uint32_t>(range.start);
    old.length = static_cast<std::uint32_t>(range.length);
    return ioctl(m_nFd, MEMERASE, &old);
}

int SNandUtil::OobRequest(unsigned long request, int page, const char *oob, const char *operation) const {
    mtd_oob_buf64 buffer = {};
    buffer.start = SignExtended(PageOffset(page));
    buffer.length = static_cast<std::uint32_t>(m_nOobSize);
    buffer.usr_ptr = UserAddress(oob);
    const int result = ioctl(m_nFd, request, &buffer);
    if (result != 0)
        fprintf(stderr, "[%s] ioctl failed,\n", operation);
    return result;
}

int SNandUtil::WriteOOB(int page, const char *oob) { return OobRequest(MEMWRITEOOB64, page, oob, "WriteOOB"); }

int SNandUtil::ReadOOB(int page, const char *oob) { return OobRequest(MEMREADOOB64, page, oob, "ReadOOB"); }

int SNandUtil::WritePage(int page, const char *data, int length) {
    if (!SeekPage(page))
        return -1;
    return write(m_nFd, data, static_cast<std::size_t>(length)) == length ? length : -1;
}

int SNandUtil::ReadPage(int page, char *data) {
    if (!SeekPage(page))
        return -1;
    return read(m_nFd, data, static_cast<std::size_t>(m_nWriteSize)) == m_nWriteSize ? m_nWriteSize : -1;
}

int SNandUtil::WritePageWithOob(int page, const char *data, int length, const char *oob, int oobLength, int mode) {
    if (!SeekPage(page))
        return -1;
    mtd_write_req request = {};
    request.start = SignExtended(PageOffset(page));
    request.len = SignExtended(length);
    request.ooblen = SignExtended(oobLength);
    request.usr_data = UserAddress(data);
    request.usr_oob = UserAddress(oob);
    request.mode = static_cast<std::uint8_t>(mode);
    if (ioctl(m_nFd, MEMWRITE, &request) == 0)
        return 0;
    if (errno != ENOTTY && errno != EOPNOTSUPP)
        return -1;
    // The kernel lacks the request. Without OOB bytes the OOB request is skipped: the kernel refuses a null buffer.
    if (oob != nullptr && WriteOOB(page, oob) != 0)
        return -1;
    if (data == nullptr)
        return 0;
    return WritePage(page, data, length) == length ? 0 : -1;
}
