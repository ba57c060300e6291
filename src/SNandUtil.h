#pragma once

/// One open MTD character device and the requests that the updater makes.
///
/// Blocks and pages are absolute numbers within the device: block `b` begins at byte b * m_nEraseSize, page `p` at
/// byte p * m_nWriteSize. Block offsets have 64 bits; page offsets are 32-bit signed, so pages from byte 0x80000000 on
/// cannot be accessed. Only WriteOOB and ReadOOB print. errno is left as the failing call set it. An object is not
/// copied and belongs to one thread.
class SNandUtil {
public:
    /// Reads the geometry of /dev/mtd<device> from sysfs and opens the device for reading and writing.
    /// Reports nothing: a size that cannot be read is 0, a device that cannot be opened leaves -1 in m_nFd.
    explicit SNandUtil(int device);

    /// Syncs and closes the device.
    virtual ~SNandUtil();

    SNandUtil(const SNandUtil &) = delete;
    SNandUtil &operator=(const SNandUtil &) = delete;

    /// @return 1 for a bad block, 0 for a good one, negative when the request failed.
    int IsBlockBad(int block);

    /// Erases one block. Tries the 64-bit request first, then the older request, which ends at 4 GiB.
    /// @return 0 when erased, else the result of the last request.
    int EraseBlock(int block);

    /// Write or read the m_nOobSize out-of-band bytes of one page; `oob` has room for m_nOobSize bytes.
    /// ReadOOB fills the buffer despite the const. A failure prints a line on standard error.
    /// @return 0, else the result of the request.
    int WriteOOB(int page, const char *oob);
    int ReadOOB(int page, const char *oob);

    /// Writes `length` bytes from the start of a page on; the kernel adds the ECC.
    /// @return the length when all bytes were written, else -1.
    int WritePage(int page, const char *data, int length);

    /// Reads one whole page into `data`, which has room for m_nWriteSize bytes, corrected by the kernel's ECC.
    /// @return m_nWriteSize, or -1.
    int ReadPage(int page, char *data);

    /// Writes data and OOB of one page in one request. On a kernel without that request, writes the OOB first and then
    /// the data; a null `oob` or `data` is skipped.
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
