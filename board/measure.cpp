// What the benchmark on the board needs and busybox lacks.
//
// measure run COMMAND [ARGUMENT...]: runs it without its output; prints what it took in nanoseconds, which are
// instructions where qemu counts them, and its largest resident memory in KiB.
// measure bare DEVICE FILE OFFSET LENGTH: the least that an update can be: erases the range, then one read and one
// raw page program for each page of the file.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned kPage = 2048;
constexpr unsigned kBlock = 131072;

[[noreturn]] void Fail(const char *what) {
    std::fprintf(stderr, "measure: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

long long Now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

int Run(char *argv[]) {
    const long long begin = Now();
    const pid_t child = fork();
    if (child == 0) {
        const int nowhere = open("/dev/null", O_RDWR);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        execvp(argv[0], argv);
        _exit(127);
    }
    int status = 0;
    rusage usage = {};
    if (wait4(child, &status, 0, &usage) != child)
        Fail("wait");
    std::printf("%lld %ld\n", Now() - begin, usage.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

int Bare(char *argv[]) {
    const int device = open(argv[0], O_RDWR);
    const int file = open(argv[1], O_RDONLY);
    if (device < 0 || file < 0)
        Fail("open");
    auto offset = static_cast<__u32>(std::strtoul(argv[2], nullptr, 16));
    const __u32 end = offset + static_cast<__u32>(std::strtoul(argv[3], nullptr, 16));
    for (__u32 block = offset; block < end; block += kBlock) {
        erase_info_user64 range = {block, kBlock};
        if (ioctl(device, MEMERASE64, &range) != 0)
            Fail("erase");
    }
    static char page[kPage];
    while (read(file, page, kPage) == static_cast<ssize_t>(kPage)) {
        mtd_write_req request = {};
        request.start = offset;
        request.len = kPage;
        request.usr_data = reinterpret_cast<std::uintptr_t>(page);
        request.mode = MTD_OPS_RAW;
        if (ioctl(device, MEMWRITE, &request) != 0)
            Fail("write");
        offset += kPage;
    }
    return 0;
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc > 2 && std::strcmp(argv[1], "run") == 0)
        return Run(argv + 2);
    if (argc == 6 && std::strcmp(argv[1], "bare") == 0)
        return Bare(argv + 2);
    return 2;
}
