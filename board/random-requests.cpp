// random-requests PATH SEED COUNT: makes COUNT random requests of an MTD device and prints a line for each: the
// request, its result and errno, and a digest of what it gave. The requests depend on SEED and the device's sizes
// alone, so two devices of the same sizes and contents must give the same lines.
//
// Requests that never return on Linux 6.1 are left out: MEMWRITE with data and a mode other than MTD_OPS_PLACE_OOB,
// MTD_OPS_AUTO_OOB and MTD_OPS_RAW.
#include "Requests.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8, "the same offsets on each processor");

namespace {

constexpr unsigned char kUntouched = 0xA5;     ///< fills buffers: bytes that a request must not touch show
constexpr std::uint32_t kMaxOobRequest = 4096; ///< more OOB bytes in one request are refused
constexpr unsigned kHotBlocks = 6;             ///< few blocks get most requests, so that requests meet

std::string path;                        ///< of the device
std::array<int, 3> files = {-1, -1, -1}; ///< open descriptors of the device
std::uint64_t blockSize, pageSize, subPageSize, oobSize, deviceSize;
std::uint64_t state;  ///< of the random numbers
std::uint64_t marked; ///< the one block that may become bad
int file;             ///< descriptor of the present request

/// A number from 0 to below `bound`.
std::uint64_t Random(std::uint64_t bound) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return (state >> 11) % bound;
}

bool OneIn(unsigned count) { return Random(count) == 0; }

std::size_t RandomIndex(std::size_t bound) { return static_cast<std::size_t>(Random(bound)); }

template <typename T, std::size_t N> T OneOf(const T (&values)[N]) { return values[RandomIndex(N)]; }

/// Mostly inside the device and on a page, but any offset may come.
std::uint64_t RandomOffset() {
    const std::uint64_t blocks = deviceSize / blockSize;
    const std::uint64_t block = OneIn(8) ? Random(blocks) : std::min(Random(kHotBlocks) * 3, blocks - 1);
    const std::uint64_t pages = blockSize / pageSize;
    const std::uint64_t page = block * blockSize + (OneIn(2) ? Random(4) : Random(pages)) * pageSize;
    switch (Random(24)) {
    case 0:
        return page + Random(pageSize);
    case 1:
        return deviceSize - pageSize * Random(3);
    case 2:
        return deviceSize + OneOf({std::uint64_t{0}, std::uint64_t{1}, pageSize, pageSize + 1});
    case 3:
        return OneOf({~std::uint64_t{0}, ~std::uint64_t{0} - pageSize + 1, std::uint64_t{1} << 32,
                      (std::uint64_t{1} << 32) + page, std::uint64_t{1} << 63, std::uint64_t{0x80000000}});
    case 4:
    case 5:
        return page + Random(pageSize / subPageSize) * subPageSize;
    case 6:
        return block * blockSize + blockSize - pageSize;
    default:
        return page;
    }
}

/// Mostly some pages, at most two blocks.
std::uint64_t RandomLength() {
    switch (Random(16)) {
    case 0:
        return 0;
    case 1:
        return Random(3 * pageSize);
    case 2:
    case 3:
        return subPageSize * Random(2 * pageSize / subPageSize + 1);
    case 4:
        return OneIn(4) ? blockSize + pageSize * Random(3) : pageSize * Random(17);
    default:
        return pageSize * (1 + Random(3));
    }
}

std::uint64_t RandomOobLength() {
    switch (Random(8)) {
    case 0:
        return Random(2 * oobSize + 2);
    case 1:
        return OneOf({kMaxOobRequest - oobSize, std::uint64_t{kMaxOobRequest}, std::uint64_t{kMaxOobRequest} + 1});
    case 2:
        return oobSize * Random(5);
    default:
        return oobSize;
    }
}

/// Blocks mostly whole.
erase_info_user64 RandomBlocks() {
    std::uint64_t start = RandomOffset();
    if (!OneIn(8))
        start -= start % blockSize;
    const std::uint64_t length = OneIn(8) ? RandomLength() : blockSize * (OneIn(6) ? Random(4) : 1);
    return {start, length};
}

Bytes RandomBytes(std::uint64_t length) {
    return Noise(length, static_cast<std::uint32_t>(Random(std::uint64_t{1} << 32)));
}

void PrintDigest(const Bytes &bytes) { std::printf(" digest %08" PRIx32, Digest(bytes.data(), bytes.size())); }

/// Prints a structure that a request filled in, byte by byte; it must have no padding and no pointers.
template <typename T> void PrintBytes(const T &value) {
    std::printf(" digest %08" PRIx32, Digest(reinterpret_cast<const unsigned char *>(&value), sizeof value));
}

void PrintReturn(long long result) {
    const int error = errno;
    std::printf(" = %lld", result);
    if (result < 0)
        std::printf(" errno %d", error);
}

void Open() {
    const int flags = OneOf({O_RDWR, O_RDWR, O_RDWR, O_RDONLY, O_WRONLY});
    const bool readOnly = OneIn(6);
    int &slot = files[RandomIndex(files.size())];
    close(slot);
    slot = open((path + (readOnly ? "ro" : "")).c_str(), flags);
    std::printf("open %d%s", flags, readOnly ? " ro" : "");
    PrintReturn(slot < 0 ? -1 : 0);
    // Later requests need an open descriptor.
    if (slot < 0)
        slot = open(path.c_str(), O_RDWR);
}

void Duplicate() {
    int &slot = files[RandomIndex(files.size())];
    std::printf("dup");
    if (slot != file) {
        close(slot);
        slot = dup(file);
    }
    PrintReturn(slot < 0 ? -1 : 0);
}

void Seek() {
    const auto offset = static_cast<off_t>(RandomOffset());
    const int whence = OneOf({SEEK_SET, SEEK_SET, SEEK_SET, SEEK_CUR, SEEK_END, 9});
    const off_t sent = whence == SEEK_SET || OneIn(4) ? offset : static_cast<off_t>(Random(2 * pageSize)) - 2048;
    std::printf("lseek %lld whence %d", static_cast<long long>(sent), whence);
    PrintReturn(lseek(file, sent, whence));
}

/// Mostly seeks to a page: at the current position most reads and writes would meet the device's end.
void SeekToPage() {
    if (OneIn(4))
        return;
    const auto offset = static_cast<off_t>(RandomOffset());
    std::printf("lseek %lld = %lld, ", static_cast<long long>(offset),
                static_cast<long long>(lseek(file, offset, SEEK_SET)));
}

void Read() {
    SeekToPage();
    Bytes bytes(static_cast<std::size_t>(RandomLength()), kUntouched);
    std::printf("read %zu", bytes.size());
    PrintReturn(read(file, bytes.data(), bytes.size()));
    PrintDigest(bytes);
}

void Write() {
    SeekToPage();
    const Bytes bytes = RandomBytes(RandomLength());
    std::printf("write %zu", bytes.size());
    PrintReturn(write(file, bytes.data(), bytes.size()));
}

void ReadAt() {
    Bytes bytes(static_cast<std::size_t>(RandomLength()), kUntouched);
    const std::uint64_t offset = RandomOffset();
    std::printf("pread %#" PRIx64 " + %zu", offset, bytes.size());
    PrintReturn(pread(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)));
    PrintDigest(bytes);
}

void WriteAt() {
    const Bytes bytes = RandomBytes(RandomLength());
    const std::uint64_t offset = RandomOffset();
    std::printf("pwrite %#" PRIx64 " + %zu", offset, bytes.size());
    PrintReturn(pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)));
}

/// Splits the bytes at a random place.
std::array<iovec, 2> Split(Bytes &bytes) {
    const std::size_t first = OneIn(2) ? std::min<std::size_t>(bytes.size(), static_cast<std::size_t>(pageSize))
                                       : static_cast<std::size_t>(Random(bytes.size() + 1));
    return {iovec{bytes.data(), first}, iovec{bytes.data() + first, bytes.size() - first}};
}

void ReadVector() {
    SeekToPage();
    Bytes bytes(static_cast<std::size_t>(RandomLength()), kUntouched);
    const auto parts = Split(bytes);
    std::printf("readv %zu + %zu", parts[0].iov_len, parts[1].iov_len);
    PrintReturn(OneIn(2) ? readv(file, parts.data(), 2)
                         : preadv(file, parts.data(), 2, static_cast<off_t>(RandomOffset())));
    PrintDigest(bytes);
}

void WriteVector() {
    SeekToPage();
    Bytes bytes = RandomBytes(RandomLength());
    const auto parts = Split(bytes);
    std::printf("writev %zu + %zu", parts[0].iov_len, parts[1].iov_len);
    PrintReturn(OneIn(2) ? writev(file, parts.data(), 2)
                         : pwritev(file, parts.data(), 2, static_cast<off_t>(RandomOffset())));
}

void GetInfo() {
    mtd_info_user info = {};
    std::printf("MEMGETINFO");
    PrintReturn(ioctl(file, MEMGETINFO, &info));
    std::printf(" type %u flags %#x size %u block %u page %u oob %u", info.type, info.flags, info.size, info.erasesize,
                info.writesize, info.oobsize);
}

void Erase() {
    erase_info_user64 range = RandomBlocks();
    std::printf("MEMERASE64 %#llx + %#llx", static_cast<unsigned long long>(range.start),
                static_cast<unsigned long long>(range.length));
    PrintReturn(ioctl(file, MEMERASE64, &range));
}

erase_info_user RandomOldBlocks() {
    const erase_info_user64 range = RandomBlocks();
    return {static_cast<__u32>(range.start), static_cast<__u32>(range.length)};
}

/// A request with the older structure of a range of blocks.
void RequestBlocks(const char *name, unsigned long request) {
    erase_info_user range = RandomOldBlocks();
    std::printf("%s %#x + %#x", name, range.start, range.length);
    PrintReturn(ioctl(file, request, &range));
}

void EraseOld() { RequestBlocks("MEMERASE", MEMERASE); }
void Lock() { RequestBlocks("MEMLOCK", MEMLOCK); }
void Unlock() { RequestBlocks("MEMUNLOCK", MEMUNLOCK); }
void IsLocked() { RequestBlocks("MEMISLOCKED", MEMISLOCKED); }

void WritePages() {
    Bytes data = RandomBytes(RandomLength());
    Bytes oob = RandomBytes(OneIn(3) ? RandomOobLength() : data.size() / pageSize * oobSize);
    mtd_write_req request = {};
    request.start = RandomOffset();
    request.len = data.size();
    request.ooblen = oob.size();
    request.usr_data = OneIn(6) ? 0 : Address(data);
    request.usr_oob = OneIn(3) ? 0 : Address(oob);
    request.mode = OneOf<__u8>({MTD_OPS_PLACE_OOB, MTD_OPS_AUTO_OOB, MTD_OPS_RAW});
    std::printf("MEMWRITE %#llx + %zu%s, oob %zu%s, mode %d", static_cast<unsigned long long>(request.start),
                data.size(), request.usr_data == 0 ? " null" : "", oob.size(), request.usr_oob == 0 ? " null" : "",
                request.mode);
    PrintReturn(ioctl(file, MEMWRITE, &request));
}

void WriteOob() {
    Bytes oob = RandomBytes(RandomOobLength());
    mtd_oob_buf64 request = {RandomOffset(), 0, static_cast<__u32>(oob.size()), OneIn(20) ? 0 : Address(oob)};
    std::printf("MEMWRITEOOB64 %#llx + %u%s", static_cast<unsigned long long>(request.start), request.length,
                request.usr_ptr == 0 ? " null" : "");
    PrintReturn(ioctl(file, MEMWRITEOOB64, &request));
    std::printf(" start %#llx length %u", static_cast<unsigned long long>(request.start), request.length);
}

void ReadOob() {
    Bytes oob(static_cast<std::size_t>(RandomOobLength()), kUntouched);
    mtd_oob_buf64 request = {RandomOffset(), 0, static_cast<__u32>(oob.size()), OneIn(20) ? 0 : Address(oob)};
    std::printf("MEMREADOOB64 %#llx + %u%s", static_cast<unsigned long long>(request.start), request.length,
                request.usr_ptr == 0 ? " null" : "");
    PrintReturn(ioctl(file, MEMREADOOB64, &request));
    std::printf(" start %#llx length %u", static_cast<unsigned long long>(request.start), request.length);
    PrintDigest(oob);
}

/// The older request of the same purpose, with 32-bit offsets.
void RequestOobOld(const char *name, unsigned long number, Bytes &oob) {
    mtd_oob_buf request = {static_cast<__u32>(RandomOffset()), static_cast<__u32>(oob.size()),
                           OneIn(20) ? nullptr : oob.data()};
    std::printf("%s %#x + %u%s", name, request.start, request.length, request.ptr == nullptr ? " null" : "");
    PrintReturn(ioctl(file, number, &request));
    std::printf(" start %#x length %u", request.start, request.length);
    PrintDigest(oob);
}

void WriteOobOld() {
    Bytes oob = RandomBytes(RandomOobLength());
    RequestOobOld("MEMWRITEOOB", MEMWRITEOOB, oob);
}

void ReadOobOld() {
    Bytes oob(static_cast<std::size_t>(RandomOobLength()), kUntouched);
    RequestOobOld("MEMREADOOB", MEMREADOOB, oob);
}

void IsBad() {
    auto offset = static_cast<std::int64_t>(RandomOffset());
    std::printf("MEMGETBADBLOCK %#" PRIx64, offset);
    PrintReturn(ioctl(file, MEMGETBADBLOCK, &offset));
}

/// One block alone, or in time no good block would be left.
void SetBad() {
    auto offset = static_cast<std::int64_t>(OneIn(4) ? deviceSize + RandomOffset() : marked);
    std::printf("MEMSETBADBLOCK %#" PRIx64, offset);
    PrintReturn(ioctl(file, MEMSETBADBLOCK, &offset));
}

void GetRegions() {
    int count = -1;
    std::printf("MEMGETREGIONCOUNT");
    PrintReturn(ioctl(file, MEMGETREGIONCOUNT, &count));
    region_info_user region = {};
    region.regionindex = static_cast<__u32>(Random(2));
    std::printf(" count %d, MEMGETREGIONINFO %u", count, region.regionindex);
    PrintReturn(ioctl(file, MEMGETREGIONINFO, &region));
}

void GetStats() {
    mtd_ecc_stats stats = {};
    std::printf("ECCGETSTATS");
    PrintReturn(ioctl(file, ECCGETSTATS, &stats));
    std::printf(" corrected %u failed %u bad %u table %u", stats.corrected, stats.failed, stats.badblocks,
                stats.bbtblocks);
}

void GetLayout() {
    nand_ecclayout_user layout = {};
    std::printf("ECCGETLAYOUT");
    PrintReturn(ioctl(file, ECCGETLAYOUT, &layout));
    std::printf(" ecc %u available %u", layout.eccbytes, layout.oobavail);
    PrintBytes(layout);
    nand_oobinfo selection = {};
    std::printf(", MEMGETOOBSEL");
    PrintReturn(ioctl(file, MEMGETOOBSEL, &selection));
    PrintBytes(selection);
}

void SetFileMode() {
    const auto mode = static_cast<int>(OneIn(3) ? std::uint64_t{MTD_FILE_MODE_RAW} : Random(6));
    std::printf("MTDFILEMODE %d", mode);
    PrintReturn(ioctl(file, MTDFILEMODE, mode));
    std::printf(" position %lld", static_cast<long long>(lseek(file, 0, SEEK_CUR)));
}

void OneTimeProgrammable() {
    int number = static_cast<int>(Random(4));
    std::array<otp_info, 4> regions = {};
    std::printf("OTPSELECT %d", number);
    PrintReturn(ioctl(file, OTPSELECT, &number));
    number = -1;
    std::printf(", OTPGETREGIONCOUNT");
    PrintReturn(ioctl(file, OTPGETREGIONCOUNT, &number));
    std::printf(" count %d, OTPGETREGIONINFO", number);
    PrintReturn(ioctl(file, OTPGETREGIONINFO, regions.data()));
    std::printf(", OTPLOCK");
    PrintReturn(ioctl(file, OTPLOCK, regions.data()));
    // OTPERASE is younger than some headers.
    std::printf(", OTPERASE");
    PrintReturn(ioctl(file, _IOW('M', 25, otp_info), regions.data()));
}

void NullPointer() {
    const struct {
        const char *name;
        unsigned long number;
    } request = OneOf<std::remove_const_t<decltype(request)>>({
        {"MEMGETINFO", MEMGETINFO},
        {"MEMERASE", MEMERASE},
        {"MEMWRITEOOB", MEMWRITEOOB},
        {"MEMREADOOB", MEMREADOOB},
        {"MEMLOCK", MEMLOCK},
        {"MEMUNLOCK", MEMUNLOCK},
        {"MEMGETREGIONCOUNT", MEMGETREGIONCOUNT},
        {"MEMGETREGIONINFO", MEMGETREGIONINFO},
        {"MEMGETOOBSEL", MEMGETOOBSEL},
        {"MEMGETBADBLOCK", MEMGETBADBLOCK},
        {"MEMSETBADBLOCK", MEMSETBADBLOCK},
        {"OTPSELECT", OTPSELECT},
        {"OTPLOCK", OTPLOCK},
        {"ECCGETLAYOUT", ECCGETLAYOUT},
        {"ECCGETSTATS", ECCGETSTATS},
        {"MEMERASE64", MEMERASE64},
        {"MEMWRITEOOB64", MEMWRITEOOB64},
        {"MEMREADOOB64", MEMREADOOB64},
        {"MEMISLOCKED", MEMISLOCKED},
        {"MEMWRITE", MEMWRITE},
        {"unknown", _IO('M', 99)},
    });
    std::printf("%s null", request.name);
    PrintReturn(ioctl(file, request.number, nullptr));
}

/// Calls that a program may make of any descriptor.
void OtherCalls() {
    struct stat status = {};
    pollfd events = {file, POLLIN | POLLOUT, 0};
    std::printf("fstat");
    PrintReturn(fstat(file, &status));
    std::printf(" mode %#o device %#llx, poll", status.st_mode & S_IFMT,
                static_cast<unsigned long long>(status.st_rdev));
    PrintReturn(poll(&events, 1, 0));
    std::printf(" events %#x, F_GETFL", static_cast<unsigned>(events.revents));
    PrintReturn(fcntl(file, F_GETFL) & O_ACCMODE);
    std::printf(", fsync");
    PrintReturn(fsync(file));
    std::printf(", ftruncate");
    PrintReturn(ftruncate(file, 0));
    std::printf(", mmap");
    const void *map = mmap(nullptr, static_cast<std::size_t>(pageSize), PROT_READ, MAP_SHARED, file, 0);
    PrintReturn(map == MAP_FAILED ? -1 : 0);
}

const struct {
    unsigned weight;
    void (*make)();
} kRequests[] = {
    {3, Open},        {2, Duplicate},   {6, Seek},
    {14, Read},       {10, Write},      {12, ReadAt},
    {6, WriteAt},     {4, ReadVector},  {4, WriteVector},
    {2, GetInfo},     {16, Erase},      {4, EraseOld},
    {2, Lock},        {2, Unlock},      {2, IsLocked},
    {20, WritePages}, {6, WriteOob},    {10, ReadOob},
    {3, WriteOobOld}, {4, ReadOobOld},  {6, IsBad},
    {1, SetBad},      {1, GetRegions},  {6, GetStats},
    {1, GetLayout},   {3, SetFileMode}, {1, OneTimeProgrammable},
    {2, NullPointer}, {1, OtherCalls},
};

/// The sizes of the device; the sub-page is half a small page and a quarter of a large one, as the kernel's.
bool TakeSizes() {
    const int device = open(path.c_str(), O_RDONLY);
    mtd_info_user info = {};
    const bool isDevice = device >= 0 && ioctl(device, MEMGETINFO, &info) == 0 && info.erasesize != 0;
    close(device);
    blockSize = info.erasesize;
    pageSize = info.writesize;
    subPageSize = info.writesize <= 512 ? 256 : info.writesize / 4;
    oobSize = info.oobsize;
    deviceSize = info.size;
    return isDevice;
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc != 4) {
        std::fputs("usage: random-requests PATH SEED COUNT\n", stderr);
        return 2;
    }
    path = argv[1];
    state = std::strtoull(argv[2], nullptr, 10) * 2685821657736338717U + 1;
    const unsigned long count = std::strtoul(argv[3], nullptr, 10);
    // A request that never returns is the last one in the output.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!TakeSizes()) {
        std::printf("%s: no MTD device: %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    marked = Random(kHotBlocks) * 3 * blockSize;
    for (int &slot : files)
        slot = open(path.c_str(), O_RDWR);

    std::uint64_t weights = 0;
    for (const auto &request : kRequests)
        weights += request.weight;
    for (unsigned long i = 0; i < count; ++i) {
        file = files[RandomIndex(files.size())];
        std::uint64_t choice = Random(weights);
        const auto *request = kRequests;
        for (; choice >= request->weight; ++request)
            choice -= request->weight;
        std::printf("%lu fd %td ", i, std::find(files.begin(), files.end(), file) - files.begin());
        request->make();
        std::printf("\n");
    }
    return 0;
}
