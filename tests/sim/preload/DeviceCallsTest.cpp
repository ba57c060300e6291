// Runs in a sandbox with a chip of 64 blocks of 16 KiB, 512-byte pages, 16 bytes OOB; block 3 is bad. mtd0 is the whole
// chip, mtd1 its blocks 2 to 9.

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <mtd/mtd-user.h>
#include <poll.h>
#include <set>
#include <spawn.h>
#include <string>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

constexpr off_t kBlock = 0x4000;
constexpr ssize_t kPage = 512;
constexpr const char *kWhole = "/dev/mtd0";
constexpr const char *kReadOnly = "/dev/mtd0ro";

std::string Load(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// @return what a shell command prints, and its exit status.
std::string Said(const std::string &command) {
    FILE *output = popen((command + " 2>&1; echo $?").c_str(), "r");
    std::string text;
    char part[256];
    while (fgets(part, sizeof part, output) != nullptr)
        text += part;
    pclose(output);
    return text;
}

/// @return the errno value of a call that failed; 0 when it did not.
int Failure(long result) { return result == -1 ? errno : 0; }

/// Erases the first two blocks and fills their first pages with letters.
class Devices : public testing::Test {
protected:
    Devices() {
        erase_info_user range = {0, 2 * kBlock};
        EXPECT_EQ(ioctl(fd, MEMERASE, &range), 0);
        for (const char letter : {'a', 'b', 'c'})
            EXPECT_EQ(write(fd, std::string(kPage, letter).data(), kPage), kPage);
        lseek(fd, 0, SEEK_SET);
    }
    ~Devices() override { close(fd); }

    int fd = open(kWhole, O_RDWR | O_CLOEXEC);
    char page[kPage] = {};
};

} // namespace

TEST_F(Devices, AreCharacterDevicesByEveryPathAndCall) {
    ASSERT_EQ(symlink(kReadOnly, "/tmp/link"), 0);
    ASSERT_EQ(mknod("/tmp/node", S_IFCHR | 0600, makedev(90, 2)), 0);
    const int dev = open("/dev", O_PATH);
    const int own = open(kReadOnly, O_RDONLY);
    const struct {
        const char *name;
        std::function<int(struct stat &)> call;
        unsigned minor;
    } rows[] = {
        {"stat", [](struct stat &s) { return stat(kWhole, &s); }, 0},
        {"dots", [](struct stat &s) { return stat("/dev/../dev/./mtd1ro", &s); }, 3},
        {"link", [](struct stat &s) { return stat("/tmp/link", &s); }, 1},
        {"node", [](struct stat &s) { return stat("/tmp/node", &s); }, 2},
        {"lstat", [](struct stat &s) { return lstat("/dev/mtd1", &s); }, 2},
        {"fstatat", [=](struct stat &s) { return fstatat(dev, "mtd1", &s, 0); }, 2},
        {"fstat", [=](struct stat &s) { return fstat(own, &s); }, 1},
        {"empty path", [=](struct stat &s) { return fstatat(own, "", &s, AT_EMPTY_PATH); }, 1},
    };
    for (const auto &row : rows) {
        struct stat status = {};
        ASSERT_EQ(row.call(status), 0) << row.name;
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFCHR | 0600)) << row.name;
        EXPECT_EQ(status.st_rdev, makedev(90, row.minor)) << row.name;
    }
    for (const auto &[folder, path, minor] :
         {std::make_tuple(AT_FDCWD, "/tmp/link", 1U), {dev, "mtd1", 2U}, {own, "", 1U}}) {
        struct statx status = {};
        ASSERT_EQ(statx(folder, path, AT_EMPTY_PATH, STATX_ALL, &status), 0) << path;
        EXPECT_EQ(status.stx_mode & S_IFMT, S_IFCHR) << path;
        EXPECT_EQ(std::make_pair(status.stx_rdev_major, status.stx_rdev_minor), std::make_pair(90U, minor)) << path;
    }
    struct stat status = {};
    EXPECT_EQ(lstat("/tmp/link", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(Failure(stat("/dev/mtd7", &status)), ENOENT);
    EXPECT_EQ(stat("/proc/mtd", &status), 0);
    EXPECT_EQ(Said("cat /proc/mtd"), "dev:    size   erasesize  name\nmtd0: 00100000 00004000 \"all\"\n"
                                     "mtd1: 00020000 00004000 \"part\"\n0\n");
    EXPECT_EQ(access("/proc/mtd", R_OK), 0);
    EXPECT_EQ(access("/proc/mtd", W_OK), -1);
    EXPECT_EQ(access(kWhole, R_OK | W_OK), 0);

    std::set<std::string> names;
    DIR *folder = opendir("/dev");
    while (const dirent *entry = readdir(folder)) {
        if (std::strncmp(entry->d_name, "mtd", 3) == 0 && entry->d_type == DT_CHR)
            names.insert(entry->d_name);
    }
    closedir(folder);
    EXPECT_EQ(names, (std::set<std::string>{"mtd0", "mtd0ro", "mtd1", "mtd1ro"}));
    close(dev);
    close(own);
    unlink("/tmp/link");
    unlink("/tmp/node");
}

TEST_F(Devices, OpenByEveryPathAndRefuseWhatTheKernelRefuses) {
    ASSERT_EQ(symlink("mtd0", "/dev/link"), 0);
    const int dev = open("/dev", O_PATH);
    const std::string own = "/proc/self/fd/" + std::to_string(fd);
    const struct {
        int folder;
        std::string path;
        int flags, error;
    } rows[] = {
        {AT_FDCWD, kWhole, O_RDWR, 0},
        {AT_FDCWD, kReadOnly, O_RDONLY, 0},
        {AT_FDCWD, kReadOnly, O_RDWR, EACCES},
        {AT_FDCWD, kReadOnly, O_WRONLY, EACCES},
        {AT_FDCWD, "/dev/link", O_RDWR, 0},
        {AT_FDCWD, "/dev//../dev/mtd0", O_RDWR, 0},
        {AT_FDCWD, own, O_RDONLY, 0},
        {dev, "mtd0", O_RDWR | O_CREAT | O_TRUNC, 0},
        {AT_FDCWD, kWhole, O_RDWR | O_CREAT | O_EXCL, EEXIST},
        {AT_FDCWD, kWhole, O_RDONLY | O_DIRECTORY, ENOTDIR},
        {AT_FDCWD, "/dev/mtd7", O_RDONLY, ENOENT},
        {AT_FDCWD, "/dev/mtd0rw", O_RDONLY, ENOENT},
        {AT_FDCWD, "/proc/mtd", O_RDWR, EACCES},
    };
    for (const auto &row : rows) {
        errno = 0;
        const int opened = openat(row.folder, row.path.c_str(), row.flags, 0600);
        EXPECT_EQ(opened < 0 ? errno : 0, row.error) << row.path;
        if (opened < 0)
            continue;
        EXPECT_EQ(fcntl(opened, F_GETFL) & O_ACCMODE, row.flags & O_ACCMODE) << row.path;
        EXPECT_EQ(read(opened, page, kPage), kPage) << row.path;
        EXPECT_EQ(page[0], 'a') << row.path;
        close(opened);
    }
    close(dev);
    unlink("/dev/link");
    char target[64] = {};
    EXPECT_EQ(readlink(own.c_str(), target, sizeof target), static_cast<ssize_t>(std::strlen(kWhole)));
    EXPECT_STREQ(target, kWhole);
}

TEST_F(Devices, DescriptorsShareTheirPositionOverDupForkAndExec) {
    constexpr int kHigh = 500;
    ASSERT_EQ(read(fd, page, kPage), kPage);
    const int copy = fcntl(fd, F_DUPFD, 100);
    EXPECT_EQ(lseek(copy, 0, SEEK_CUR), kPage);
    ASSERT_EQ(dup2(fd, kHigh), kHigh);
    const pid_t child = fork();
    if (child == 0)
        _exit(read(kHigh, page, kPage) == kPage && page[0] == 'b' ? 0 : 1);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 2 * kPage);
    EXPECT_EQ(Said("bash -c 'head -c 1 <&" + std::to_string(kHigh) + "; head -c 1 <&" + std::to_string(copy) + "'"),
              "cc0\n");
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 2 * kPage + 2);

    close(kHigh);
    close(copy);
    EXPECT_EQ(Failure(read(kHigh, page, kPage)), EBADF);
    // A number that was a device's is a usual file's now.
    ASSERT_EQ(dup2(open("/dev/zero", O_RDONLY), kHigh), kHigh);
    EXPECT_EQ(read(kHigh, page, 1), 1);
    EXPECT_EQ(page[0], '\0');
    ASSERT_EQ(dup2(fd, kHigh), kHigh);
    EXPECT_EQ(close_range(kHigh, ~0U, 0), 0);
    EXPECT_EQ(lseek(kHigh, 0, SEEK_CUR), -1);
}

TEST_F(Devices, StreamsReadWriteAndSeek) {
    FILE *stream = fopen(kWhole, "r+");
    ASSERT_NE(stream, nullptr);
    std::fseek(stream, kPage, SEEK_SET);
    EXPECT_EQ(std::fgetc(stream), 'b');
    EXPECT_EQ(std::fread(page, 1, kPage, stream), static_cast<size_t>(kPage));
    EXPECT_EQ(page[kPage - 1], 'c');
    struct stat status = {};
    EXPECT_EQ(fstat(fileno(stream), &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    std::fseek(stream, kBlock, SEEK_SET);
    EXPECT_EQ(std::fwrite(std::string(kPage, 'w').data(), 1, kPage, stream), static_cast<size_t>(kPage));
    const int own = fileno(stream);
    EXPECT_EQ(std::fclose(stream), 0);
    EXPECT_EQ(lseek(own, 0, SEEK_CUR), -1);
    EXPECT_EQ(pread(fd, page, 1, kBlock + kPage - 1), 1);
    EXPECT_EQ(page[0], 'w');

    // Not whole sub-pages: the device refuses, and the stream says so.
    stream = fdopen(dup(fd), "w");
    std::fputs("part", stream);
    EXPECT_EQ(Failure(std::fclose(stream)), EINVAL);
    EXPECT_EQ(fopen(kReadOnly, "w"), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(Load(kReadOnly).substr(kPage - 1, 2), "ab");
    EXPECT_EQ(Said("md5sum </dev/mtd0 | cut -c-32"), Said("md5sum /dev/mtd0 | cut -c-32"));
    // A shell's own output, a stream in the program that it starts.
    EXPECT_EQ(Said("printf '%512s' x | tr ' ' s >/dev/mtd1; head -c 2 /dev/mtd1"), "ss0\n");
}

TEST_F(Devices, MoveVectorsAndAtOffsets) {
    char other[kPage] = {};
    const iovec parts[] = {{page, kPage}, {other, kPage}};
    EXPECT_EQ(readv(fd, parts, 2), 2 * kPage);
    EXPECT_EQ(other[0], 'b');
    EXPECT_EQ(preadv(fd, parts, 2, kPage), 2 * kPage);
    EXPECT_EQ(other[0], 'c');
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 2 * kPage);
    EXPECT_EQ(preadv(fd, parts, 2, 64 * kBlock - kPage), kPage);
    EXPECT_EQ(pwritev(fd, parts, 1, kBlock), kPage);
    EXPECT_EQ(Failure(pwrite(fd, page, kPage, kBlock + 1)), EINVAL);
    // Nothing at all is no write at the end, which would have no room.
    const iovec none[] = {{page, 0}, {other, 0}};
    EXPECT_EQ(pwritev(fd, none, 2, 64 * kBlock), 0);
    EXPECT_EQ(Failure(pwrite(fd, page, 0, 64 * kBlock)), ENOSPC);
    EXPECT_EQ(Failure(pwritev(fd, none, 2, -1)), EINVAL);
    EXPECT_EQ(Failure(pread(fd, page, kPage, -1)), EINVAL);
}

TEST_F(Devices, RefuseWhatACharacterDeviceWithoutTheOperationRefuses) {
    const int file = open("/tmp/file", O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(write(file, page, kPage), kPage);
    const int reader = open("/dev/mtd0", O_RDONLY);
    const int writer = open("/dev/mtd0", O_WRONLY);
    const auto map = [](int device, int protection) {
        return mmap(nullptr, kPage, protection, MAP_SHARED, device, 0) == MAP_FAILED ? -1L : 0L;
    };
    epoll_event event = {};
    const struct {
        const char *name;
        std::function<long()> call;
        int error;
    } rows[] = {
        {"mmap", [&] { return map(fd, PROT_READ | PROT_WRITE); }, ENODEV},
        {"mmap to read what is open to write", [&] { return map(writer, PROT_READ); }, EACCES},
        {"mmap to write what is open to read", [&] { return map(reader, PROT_WRITE); }, EACCES},
        {"ftruncate", [&]() -> long { return ftruncate(fd, 0); }, EINVAL},
        {"fallocate", [&]() -> long { return fallocate(fd, 0, 0, kPage); }, ENODEV},
        {"fsync", [&]() -> long { return fsync(fd); }, EINVAL},
        {"sendfile", [&]() -> long { return sendfile(fd, file, nullptr, kPage); }, EINVAL},
        {"copy_file_range", [&]() -> long { return copy_file_range(fd, nullptr, file, nullptr, kPage, 0); }, EINVAL},
        {"epoll", [&]() -> long { return epoll_ctl(epoll_create1(0), EPOLL_CTL_ADD, fd, &event); }, EPERM},
        {"tty", [&]() -> long { return ioctl(fd, TIOCGPGRP, &event); }, ENOTTY},
        {"raw call", [&] { return syscall(0, fd, page, kPage); }, EBADF},
    };
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(row.call(), -1) << row.name;
        EXPECT_EQ(errno, row.error) << row.name;
    }
    EXPECT_EQ(isatty(fd), 0);
    // Numbers kept in an int.
    int number = -1;
    EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(static_cast<int>(MEMGETREGIONCOUNT)), &number), 0);
    EXPECT_EQ(number, 0);
    for (const int open : {file, reader, writer})
        close(open);
}

TEST_F(Devices, AreAlwaysReady) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pollfd files[] = {{ends[0], POLLIN, 0}, {fd, POLLIN | POLLOUT | POLLPRI, 0}};
    EXPECT_EQ(poll(files, 2, -1), 1);
    EXPECT_EQ(files[0].revents, 0);
    EXPECT_EQ(files[1].revents, POLLIN | POLLOUT);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(poll(files, 2, 0), 2);
    fd_set readers, failures;
    FD_ZERO(&readers);
    FD_ZERO(&failures);
    FD_SET(fd, &readers);
    FD_SET(ends[0], &readers);
    FD_SET(fd, &failures);
    EXPECT_EQ(select(std::max(fd, ends[0]) + 1, &readers, nullptr, &failures, nullptr), 2);
    EXPECT_TRUE(FD_ISSET(fd, &readers));
    EXPECT_FALSE(FD_ISSET(fd, &failures));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Devices, CountersOfSysfsAndRequestAreLive) {
    const std::string folder = "/sys/class/mtd/mtd1/";
    const auto counter = [&](const char *name) { return std::stoi(Load(folder + name)); };
    EXPECT_EQ(Load(folder + "dev"), "90:2\n");
    EXPECT_EQ(Load(folder + "offset"), "32768\n");
    EXPECT_EQ(Load("/sys/class/mtd/mtd0ro/dev"), "90:1\n");
    EXPECT_EQ(counter("bad_blocks"), 1);
    const int part = open("/dev/mtd1", O_RDWR);
    loff_t third = 2 * kBlock;
    EXPECT_EQ(ioctl(part, MEMSETBADBLOCK, &third), 0);
    EXPECT_EQ(ioctl(part, MEMGETBADBLOCK, &third), 1);
    EXPECT_EQ(counter("bad_blocks"), 2);
    EXPECT_EQ(Said("cd " + folder + " && cat bad_blocks"), "2\n0\n");

    // A raw write leaves no ECC: a set bit in each step looks like one to correct, two like damage.
    std::string data(kPage, '\xFF');
    data[0] = '\xFE';
    data[256] = '\xFC';
    mtd_write_req raw = {};
    raw.start = 7 * kBlock;
    raw.len = data.size();
    raw.usr_data = reinterpret_cast<std::uintptr_t>(data.data());
    raw.mode = MTD_OPS_RAW;
    ASSERT_EQ(ioctl(part, MEMWRITE, &raw), 0);
    ASSERT_EQ(pread(part, page, kPage, 7 * kBlock), kPage);
    EXPECT_EQ(counter("corrected_bits"), 1);
    EXPECT_EQ(counter("ecc_failures"), 1);
    mtd_ecc_stats stats = {};
    ASSERT_EQ(ioctl(part, ECCGETSTATS, &stats), 0);
    EXPECT_EQ((std::vector<unsigned>{stats.corrected, stats.failed, stats.badblocks, stats.bbtblocks}),
              (std::vector<unsigned>{1, 1, 2, 0}));
    close(part);
}

TEST_F(Devices, ServeProgramsWithAnEnvironmentOfTheirOwn) {
    EXPECT_EQ(Said("env -i /usr/bin/head -c 1 /dev/mtd0"), "a0\n");
    EXPECT_EQ(Said("env LD_PRELOAD= /usr/bin/head -c 1 /dev/mtd0"), "a0\n") << "what it preloads is its own";
    pid_t child = 0;
    char name[] = "head", count[] = "-c1", path[] = "/dev/mtd0";
    char *const words[] = {name, count, path, nullptr};
    char *const nothing[] = {nullptr};
    ASSERT_EQ(posix_spawnp(&child, "head", nullptr, nullptr, words, nothing), 0);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
