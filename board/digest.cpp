// Prints the state of a flash: a line with number and digest for each block that is not erased.
//
// digest dump BYTES: reads a dump with OOB (as nanddump --oob writes) from standard input; a block has BYTES there.
// digest device PATH: reads an MTD device raw, OOB included, and prints its ECC and bad block counters as well.
#include "Requests.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kOobRequestLimit = 4096; ///< the kernel refuses to read more OOB bytes at once

[[noreturn]] void Fail(const char *what) {
    std::fprintf(stderr, "digest: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

void PrintBlock(unsigned number, const Bytes &block) {
    if (std::any_of(block.begin(), block.end(), [](unsigned char byte) { return byte != 0xFF; }))
        std::printf("block %u %08" PRIx32 "\n", number, Digest(block.data(), block.size()));
}

int Dump(std::size_t blockBytes) {
    Bytes block(blockBytes);
    for (unsigned number = 0; std::fread(block.data(), 1, block.size(), stdin) == block.size(); ++number)
        PrintBlock(number, block);
    return 0;
}

int Device(const char *path) {
    const int device = open(path, O_RDONLY);
    mtd_info_user info = {};
    if (device < 0)
        Fail(path);
    if (ioctl(device, MEMGETINFO, &info) != 0)
        Fail("MEMGETINFO");
    if (ioctl(device, MTDFILEMODE, MTD_FILE_MODE_RAW) != 0)
        Fail("MTDFILEMODE");

    const std::size_t oobBytes = std::size_t{info.erasesize} / info.writesize * info.oobsize;
    Bytes block(info.erasesize + oobBytes);
    for (unsigned number = 0; number < info.size / info.erasesize; ++number) {
        const std::uint64_t start = std::uint64_t{number} * info.erasesize;
        if (pread(device, block.data(), info.erasesize, static_cast<off_t>(start)) !=
            static_cast<ssize_t>(info.erasesize))
            Fail("read");
        const std::size_t pagesAtOnce = kOobRequestLimit / info.oobsize;
        for (std::size_t done = 0; done < oobBytes;) {
            const std::size_t length = std::min(oobBytes - done, pagesAtOnce * info.oobsize);
            mtd_oob_buf64 request = {};
            request.start = start + done / info.oobsize * info.writesize;
            request.length = static_cast<__u32>(length);
            request.usr_ptr = reinterpret_cast<std::uintptr_t>(block.data() + info.erasesize + done);
            if (ioctl(device, MEMREADOOB64, &request) != 0)
                Fail("MEMREADOOB64");
            done += length;
        }
        PrintBlock(number, block);
    }

    mtd_ecc_stats stats = {};
    if (ioctl(device, ECCGETSTATS, &stats) != 0)
        Fail("ECCGETSTATS");
    std::printf("corrected %u failed %u bad %u table %u\n", stats.corrected, stats.failed, stats.badblocks,
                stats.bbtblocks);
    close(device);
    return 0;
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc == 3 && std::strcmp(argv[1], "dump") == 0)
        return Dump(std::strtoul(argv[2], nullptr, 10));
    if (argc == 3 && std::strcmp(argv[1], "device") == 0)
        return Device(argv[2]);
    std::fputs("usage: digest dump BYTES <FILE, or digest device PATH\n", stderr);
    return 2;
}
