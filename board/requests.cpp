// Makes a fixed list of requests of an MTD device and prints the result of each, one a line. The output must be the
// same on the kernel and on the simulator.
//
// The last argument is the device: an erased chip of 128 KiB blocks and 2 KiB pages with 64 bytes OOB, whose block 5
// is bad.
#include "Requests.h"

#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mtd/mtd-user.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t kBlock = 0x20000;
constexpr std::uint64_t kPage = 2048;
constexpr std::uint64_t kSubPage = 512;
constexpr std::uint64_t kOob = 64;
constexpr std::uint64_t kBad = 5 * kBlock;
constexpr std::uint64_t kNegative = ~std::uint64_t{0} - kPage + 1;

const char *path; ///< of the device
int device = -1;
void *volatile nowhere = nullptr; ///< a null pointer that the compiler does not recognise

void PrintFile(const std::string &name) {
    std::ifstream file(name);
    for (std::string line; std::getline(file, line);)
        std::printf("%s: %s\n", name.c_str(), line.c_str());
}

void Open(int flags, const char *name) {
    if (device >= 0)
        close(device);
    device = open(path, flags);
    std::printf("open %s %s\n", name, device >= 0 ? "done" : "failed");
}

void Seek(std::int64_t offset, int whence) {
    std::printf("lseek %" PRId64 " whence %d", offset, whence);
    PrintResult(lseek(device, static_cast<off_t>(offset), whence));
}

/// Reads at the current position.
void ReadOn(std::uint64_t length) {
    Bytes bytes(static_cast<std::size_t>(length), 0xA5);
    std::printf("read %" PRIu64, length);
    const ssize_t count = read(device, bytes.data(), bytes.size());
    PrintResult(count);
    if (count > 0)
        std::printf("    data %08x\n", Digest(bytes.data(), static_cast<std::size_t>(count)));
}

void Read(std::uint64_t offset, std::uint64_t length) {
    Seek(static_cast<std::int64_t>(offset), SEEK_SET);
    ReadOn(length);
}

void WriteOn(std::uint64_t length, std::uint32_t seed) {
    const Bytes bytes = Noise(length, seed);
    std::printf("write %" PRIu64, length);
    PrintResult(write(device, bytes.data(), bytes.size()));
}

void Write(std::uint64_t offset, std::uint64_t length, std::uint32_t seed) {
    Seek(static_cast<std::int64_t>(offset), SEEK_SET);
    WriteOn(length, seed);
}

void IsBad(std::uint64_t offset) {
    auto place = static_cast<std::int64_t>(offset);
    std::printf("MEMGETBADBLOCK %#" PRIx64, offset);
    PrintResult(ioctl(device, MEMGETBADBLOCK, &place));
}

void Erase(std::uint64_t start, std::uint64_t length) {
    erase_info_user64 range = {start, length};
    std::printf("MEMERASE64 %#" PRIx64 " + %#" PRIx64, start, length);
    PrintResult(ioctl(device, MEMERASE64, &range));
}

void EraseOld(std::uint32_t start, std::uint32_t length) {
    erase_info_user range = {start, length};
    std::printf("MEMERASE %#" PRIx32 " + %#" PRIx32, start, length);
    PrintResult(ioctl(device, MEMERASE, &range));
}

enum Pointers { kBoth, kDataOnly, kOobOnly, kNeither };

void WritePages(std::uint64_t start, std::uint64_t length, std::uint64_t oobLength, Pointers pointers, int mode) {
    Bytes data = Noise(length, static_cast<std::uint32_t>(start + length));
    Bytes oob = Noise(oobLength, static_cast<std::uint32_t>(start + oobLength + 1));
    mtd_write_req request = {};
    request.start = start;
    request.len = length;
    request.ooblen = oobLength;
    request.usr_data = pointers == kBoth || pointers == kDataOnly ? Address(data) : 0;
    request.usr_oob = pointers == kBoth || pointers == kOobOnly ? Address(oob) : 0;
    request.mode = static_cast<__u8>(mode);
    std::printf("MEMWRITE %#" PRIx64 " + %" PRIu64 ", oob %" PRIu64 ", pointers %d, mode %d", start, length, oobLength,
                pointers, mode);
    PrintResult(ioctl(device, MEMWRITE, &request));
}

void WriteOob(std::uint64_t start, std::uint32_t length, bool null = false) {
    Bytes oob = Noise(length, static_cast<std::uint32_t>(start + length));
    mtd_oob_buf64 request = {start, 0, length, null ? 0 : Address(oob)};
    std::printf("MEMWRITEOOB64 %#" PRIx64 " + %" PRIu32 "%s", start, length, null ? " null" : "");
    PrintResult(ioctl(device, MEMWRITEOOB64, &request));
}

void ReadOob(std::uint64_t start, std::uint32_t length, bool null = false) {
    Bytes oob(length, 0xA5);
    mtd_oob_buf64 request = {start, 0, length, null ? 0 : Address(oob)};
    std::printf("MEMREADOOB64 %#" PRIx64 " + %" PRIu32 "%s", start, length, null ? " null" : "");
    const int result = ioctl(device, MEMREADOOB64, &request);
    PrintResult(result);
    if (result == 0 && length != 0)
        std::printf("    oob %08x\n", Digest(oob.data(), length));
}

/// The contents of a page: data as a normal reader sees them, and OOB bytes.
void Look(std::uint64_t offset) {
    Read(offset, kPage);
    ReadOob(offset, kOob);
}

/// The files that a program reads before it opens the device.
void Files() {
    const std::string number = std::string(path).substr(std::strlen("/dev/mtd"));
    for (const char *name : {"size", "erasesize", "writesize", "oobsize"})
        PrintFile("/sys/class/mtd/mtd" + number + "/" + name);
    PrintFile("/proc/mtd");
}

void Positions(std::uint64_t size) {
    const auto end = static_cast<std::int64_t>(size);
    Seek(0, SEEK_SET);
    Seek(-1, SEEK_SET);
    Seek(100, SEEK_CUR);
    Seek(-101, SEEK_CUR);
    Seek(0, SEEK_CUR);
    Seek(end, SEEK_SET);
    Seek(end + 1, SEEK_SET);
    Seek(0, SEEK_END);
    Seek(-1, SEEK_END);
    Seek(1, SEEK_END);
    Seek(0, 9);
}

void Reads(std::uint64_t size) {
    Read(0, 0);
    Read(0, 1);
    Read(kPage - 1, 3);
    ReadOn(kPage);
    Read(size - 100, kPage);
    ReadOn(1);
    Read(kBad, kPage);
    std::printf("read null");
    PrintResult(read(device, nowhere, 16));
}

void BadBlocks(std::uint64_t size) {
    for (const std::uint64_t offset : {std::uint64_t{0}, kBad, kBad + 1, kBad + kBlock - 1, kBad - 1, size - 1, size,
                                       size + kBlock, kNegative, std::uint64_t{1} << 40})
        IsBad(offset);
    std::printf("MEMGETBADBLOCK null");
    PrintResult(ioctl(device, MEMGETBADBLOCK, nullptr));
}

void NormalWrites(std::uint64_t size) {
    Write(0, kPage, 1);
    Look(0);
    Write(kPage, kSubPage, 2);
    WriteOn(kSubPage, 3);
    Look(kPage);
    Write(2 * kPage, 3 * kPage + kSubPage, 4);
    Look(5 * kPage);
    for (const std::uint64_t offset : {std::uint64_t{1}, std::uint64_t{100}, kPage + 1, 8 * kPage + 256})
        Write(offset, kPage, 5);
    for (const std::uint64_t length : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{100}, kPage + 1})
        Write(8 * kPage, length, 6);
    Look(8 * kPage);
    Write(size - kPage, 2 * kPage, 7);
    WriteOn(kPage, 8);
    Write(size, 0, 9);
    Look(size - kPage);
    // Programmed bits stay programmed.
    Write(0, kPage, 10);
    ReadOob(0, kOob);
    Write(9 * kPage, kBlock, 11);
    Look(kBlock + 8 * kPage);
    Write(kBad, kPage, 12);
    Look(kBad);
    std::printf("write null");
    PrintResult(write(device, nowhere, kPage));
}

void Erases(std::uint64_t size) {
    Write(8 * kBlock, 3 * kBlock, 20);
    Erase(8 * kBlock, kBlock);
    Look(8 * kBlock);
    EraseOld(9 * kBlock, 2 * kBlock);
    Look(10 * kBlock);
    Erase(8 * kBlock, 0);
    Erase(8 * kBlock + 1, kBlock);
    Erase(8 * kBlock, kBlock + 1);
    Erase(8 * kBlock + kPage, kBlock);
    Erase(8 * kBlock, kPage);
    Erase(size - kBlock, kBlock);
    Erase(size - kBlock, 2 * kBlock);
    Erase(size, kBlock);
    Erase(size, 0);
    Erase(kNegative, kBlock);
    Erase(std::uint64_t{1} << 32, kBlock);
    Erase(0, std::uint64_t{1} << 32);
    EraseOld(0x80000000, kBlock);
    // The range is erased up to the bad block; blocks after the bad one are not erased.
    Write(kBad - kBlock, kBlock, 21);
    Write(kBad + kBlock, kBlock, 22);
    Erase(kBad - kBlock, 3 * kBlock);
    Look(kBad - kBlock);
    Look(kBad + kBlock);
    Erase(kBad, kBlock);
    EraseOld(kBad, kBlock);
    std::printf("MEMERASE64 null");
    PrintResult(ioctl(device, MEMERASE64, nullptr));
    std::printf("MEMERASE null");
    PrintResult(ioctl(device, MEMERASE, nullptr));
}

void PageWrites(std::uint64_t size) {
    std::uint64_t at = 16 * kBlock;
    // A raw write leaves no ECC: a later normal read changes bits.
    // Other modes are left out: Linux 6.1 never returns from them.
    for (const int mode : {MTD_OPS_RAW, MTD_OPS_PLACE_OOB, MTD_OPS_AUTO_OOB}) {
        for (const Pointers pointers : {kBoth, kDataOnly, kOobOnly, kNeither}) {
            WritePages(at, kPage, kOob, pointers, mode);
            Look(at);
            at += kPage;
        }
    }
    for (const int mode : {MTD_OPS_RAW, MTD_OPS_PLACE_OOB, MTD_OPS_AUTO_OOB}) {
        // Parts of pages, many pages, more pages than a block, OOB bytes for less and more than the pages.
        const struct {
            std::uint64_t column, length, oob;
        } requests[] = {
            {0, 0, 0},
            {0, kSubPage, 0},
            {kSubPage, kSubPage, 0},
            {0, kPage - 1, 0},
            {1, kPage, 0},
            {0, 3 * kPage, 3 * kOob},
            {0, 3 * kPage, kOob},
            {0, kPage, 3 * kOob},
            {0, kPage, 10},
            {0, kPage + kSubPage, 0},
            {0, kPage, 0},
            {0, kBlock + kPage, 0},
            {0, 0, kOob},
            {0, 0, kOob + 1},
            {0, 0, 38},
            {kSubPage, 0, kOob},
            {kSubPage, kPage, 0},
        };
        for (const auto &request : requests) {
            WritePages(at + request.column, request.length, request.oob, kBoth, mode);
            Look(at);
            Look(at + kPage);
            at += request.length > kBlock ? 2 * kBlock : 4 * kPage;
        }
    }
    WritePages(size - kPage, 2 * kPage, 0, kDataOnly, MTD_OPS_RAW);
    WritePages(size, kPage, 0, kDataOnly, MTD_OPS_RAW);
    WritePages(size, 0, 0, kDataOnly, MTD_OPS_RAW);
    WritePages(size, 0, kOob, kOobOnly, MTD_OPS_RAW);
    WritePages(size + kPage, 0, 0, kNeither, MTD_OPS_RAW);
    WritePages(kNegative, kPage, 0, kDataOnly, MTD_OPS_RAW);
    WritePages(kBad, kPage, kOob, kBoth, MTD_OPS_RAW);
    Look(kBad);
    IsBad(kBad);
    std::printf("MEMWRITE null");
    PrintResult(ioctl(device, MEMWRITE, nullptr));
}

void OobRequests(std::uint64_t size) {
    std::uint64_t at = 40 * kBlock;
    for (const std::uint32_t length : {0U, 1U, 38U, 63U, 64U, 65U, 128U, 4096U, 4097U}) {
        WriteOob(at, length);
        ReadOob(at, length);
        Look(at);
        at += kPage;
    }
    for (const std::uint64_t column : {1U, 63U, 64U, 100U, 2047U}) {
        for (const std::uint32_t length : {0U, 1U, 63U, 64U}) {
            WriteOob(at + column, length);
            ReadOob(at + column, length);
        }
        ReadOob(at, kOob);
        at += kPage;
    }
    WriteOob(at, kOob, true);
    ReadOob(at, kOob, true);
    WriteOob(at, 0, true);
    ReadOob(at, 0, true);
    for (const std::uint64_t offset : {size - kPage, size - 1, size, size + kPage, kNegative, std::uint64_t{1} << 32}) {
        WriteOob(offset, kOob);
        ReadOob(offset, kOob);
        ReadOob(offset, 2 * kOob);
    }
    // A bad block mark that is written as OOB bytes has no effect before the next scan of the chip.
    WriteOob(60 * kBlock, kOob);
    IsBad(60 * kBlock);
    ReadOob(kBad, kOob);
    WriteOob(kBad + kPage, kOob);
    ReadOob(kBad + kPage, kOob);
    std::printf("MEMREADOOB64 null");
    PrintResult(ioctl(device, MEMREADOOB64, nullptr));
    std::printf("MEMWRITEOOB64 null");
    PrintResult(ioctl(device, MEMWRITEOOB64, nullptr));
    std::printf("no request of the kernel's");
    PrintResult(ioctl(device, _IO('M', 99), nullptr));
}

/// A descriptor without the right to write, or to read.
void Rights() {
    Read(0, kPage);
    Write(70 * kBlock, kPage, 30);
    IsBad(kBad);
    Erase(70 * kBlock, kBlock);
    EraseOld(70 * kBlock, kBlock);
    WritePages(70 * kBlock, kPage, kOob, kBoth, MTD_OPS_RAW);
    WriteOob(70 * kBlock, kOob);
    ReadOob(70 * kBlock, kOob);
}

} // namespace

int main(int argc, char *argv[]) {
    path = argv[argc - 1];
    // A request that never returns is the last one in the output.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Files();
    Open(O_RDWR, "for both");
    if (device < 0)
        return 1;
    const auto size = static_cast<std::uint64_t>(lseek(device, 0, SEEK_END));
    Positions(size);
    Reads(size);
    BadBlocks(size);
    NormalWrites(size);
    Erases(size);
    PageWrites(size);
    OobRequests(size);
    Open(O_RDONLY, "to read");
    Rights();
    Open(O_WRONLY, "to write");
    Rights();
    return 0;
}
