#pragma once

/// One open MTD character device and the requests that the updater makes of it.
///
/// Blocks and pages are absolute numbers within the device: block `b` begins at byte b * m_nEraseSize, page `p` at
/// byte p * m_nWriteSize. Block offsets are 64 bits wide; page offsets are 32-bit signed, so pages from byte
/// 0x80000000 on can't be reached. Nothing is printed but by WriteOOB and ReadOOB; errno is left as the failing
/// call set it. An object isn't copied and is used by one thread.
class SNandUtil {
public:
    /// Reads the geometry of /dev/mtd<device> from sysfs and opens the device for reading and writing.
    /// Reports nothing: a size that can't be read is 0, a device that can't be opened leaves -1 in m_nFd.
    explicit SNandUtil(int device);

    /// Syncs and closes the device.
    virtual ~SNandUtil();

    SNandUtil(const SNandUtil &) = delete;
    SNandUtil &operator=(const SNandUtil &) = delete;

    /// @return 1 for a bad block, 0 for a good one, negative when the request failed.
    int IsBlockBad(int block);

    /// Erases one block. Asks with 64-bit offsets first, then with the older request, which ends at 4 GiB.
    /// @return 0 when erased, else what the last request gave.
    int EraseBlock(int block);

    /// Writes or reads the m_nOobSize out-of-band bytes of one page; `oob` has room for as many.
    /// ReadOOB fills the buffer although it is taken as const. Prints a line on standard error on failure.
    /// @return 0, else what the request gave.
    int WriteOOB(int page, const char *oob);
    int ReadOOB(int page, const char *oob);

    /// Writes `length` bytes from the start of a page on, with the ECC that the kernel adds.
    /// @return the length when all of it was written, else -1.
    int WritePage(int page, const char *data, int length);

    /// Reads one whole page into `data`, which has room for m_nWriteSize bytes, corrected by the kernel's ECC.
    /// @return m_nWriteSize, or -1.
    int ReadPage(int page, char *data);

    /// Writes data and OOB of one page in one request. A kernel without that request gets OOB and page one after
    /// the other; a null `oob` or `data` is then left out.
    /// @param mode MTD_OPS_PLACE_OOB, MTD_OPS_AUTO_OOB or MTD_OPS_RAW.
    /// @return 0, or -1.
    int WritePageWithOob(int page, const char *data, int length, const char *oob, int oobLength, int mode);

    int m_nFd;        ///< descriptor of the device, or -1
    int m_nEraseSize; ///< bytes in an erase block
    int m_nWriteSize; ///< bytes in a page
    int m_nOobSize;   ///< out-of-band bytes of a page
    int m_nTotalSize; ///< bytes in the device, 2147483647 at most

private:
    long long BlockOffset(int block) const;
    int PageOffset(int page) const;
    bool SeekPage(int page) const;
    int OobRequest(unsigned long request, int page, const char *oob, const char *operation) const;
};
