// Copies a whole chip, data and OOB of each page as nanddump lays them, without ECC.
//
// cells load DEVICE: programs the pages of standard input that are not erased
// cells dump DEVICE: writes all pages to standard output
#include "Requests.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kOobRequestLimit = 4096; ///< the kernel refuses to read more OOB bytes at once

[[noreturn]] void Fail(const char *what) {
    std::fprintf(stderr, "cells: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

bool Take(Bytes &bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = read(STDIN_FILENO, bytes.data() + done, bytes.size() - done);
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

void Load(int device, const mtd_info_user &info) {
    const std::size_t raw = std::size_t{info.writesize} + info.oobsize;
    Bytes block(info.erasesize / info.writesize * raw);
    for (std::uint64_t start = 0; start < info.size; start += info.erasesize) {
        if (!Take(block))
            Fail("read");
        for (std::size_t at = 0; at < block.size(); at += raw) {
            const unsigned char *page = block.data() + at;
            if (std::all_of(page, page + raw, [](unsigned char byte) { return byte == 0xFF; }))
                continue;
            mtd_write_req request = {};
            request.start = start + at / raw * info.writesize;
            request.len = info.writesize;
            request.ooblen = info.oobsize;
            request.usr_data = reinterpret_cast<std::uintptr_t>(page);
            request.usr_oob = reinterpret_cast<std::uintptr_t>(page + info.writesize);
            request.mode = MTD_OPS_RAW;
            // A worn-out page is programmed and reported as failed.
            if (ioctl(device, MEMWRITE, &request) != 0 && errno != EIO)
                Fail("MEMWRITE");
        }
    }
}

void Dump(int device, const mtd_info_user &info) {
    const std::size_t pages = info.erasesize / info.writesize;
    const std::size_t raw = std::size_t{info.writesize} + info.oobsize;
    Bytes data(info.erasesize), oob(pages * info.oobsize), block(pages * raw);
    if (ioctl(device, MTDFILEMODE, MTD_FILE_MODE_RAW) != 0)
        Fail("MTDFILEMODE");
    for (std::uint64_t start = 0; start < info.size; start += info.erasesize) {
        if (pread(device, data.data(), data.size(), static_cast<off_t>(start)) != static_cast<ssize_t>(data.size()))
            Fail("read");
        const std::size_t step = kOobRequestLimit / info.oobsize * info.oobsize;
        for (std::size_t done = 0; done < oob.size(); done += step) {
            mtd_oob_buf64 request = {};
            request.start = start + done / info.oobsize * info.writesize;
            request.length = static_cast<__u32>(std::min(step, oob.size() - done));
            request.usr_ptr = reinterpret_cast<std::uintptr_t>(oob.data() + done);
            if (ioctl(device, MEMREADOOB64, &request) != 0)
                Fail("MEMREADOOB64");
        }
        for (std::size_t page = 0; page < pages; ++page) {
            std::copy_n(data.data() + page * info.writesize, info.writesize, block.data() + page * raw);
            std::copy_n(oob.data() + page * info.oobsize, info.oobsize, block.data() + page * raw + info.writesize);
        }
        for (std::size_t done = 0; done < block.size();) {
            const ssize_t count = write(STDOUT_FILENO, block.data() + done, block.size() - done);
            if (count <= 0)
                Fail("write");
            done += static_cast<std::size_t>(count);
        }
    }
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc != 3 || (std::strcmp(argv[1], "load") != 0 && std::strcmp(argv[1], "dump") != 0)) {
        std::fputs("usage: cells load DEVICE <FILE, or cells dump DEVICE >FILE\n", stderr);
        return 2;
    }
    const bool isLoad = std::strcmp(argv[1], "load") == 0;
    const int device = open(argv[2], isLoad ? O_RDWR : O_RDONLY);
    mtd_info_user info = {};
    if (device < 0)
        Fail(argv[2]);
    if (ioctl(device, MEMGETINFO, &info) != 0)
        Fail("MEMGETINFO");
    (isLoad ? Load : Dump)(device, info);
    return 0;
}
