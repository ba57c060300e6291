#include "base/SharedFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

[[noreturn]] void Fail(const std::string &path, int error) {
    throw std::system_error(error, std::generic_category(), path);
}

/// Closes itself; a mapping doesn't need it any more.
struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0)
            close(fd);
    }
};

/// Opens a new file: whoever has an old one mapped keeps it whole.
int OpenNew(const std::string &path) {
    constexpr mode_t kMode = 0666;
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
    if (fd < 0)
        Fail(path, errno);
    return fd;
}

/// Written, not mapped and set: that takes the pages one by one and clears each first.
void WriteAll(int fd, const std::uint8_t *data, std::size_t length, const std::string &path) {
    for (std::size_t done = 0; done < length;) {
        const ssize_t written = write(fd, data + done, length - done);
        if (written < 0)
            Fail(path, errno);
        done += static_cast<std::size_t>(written);
    }
}

} // namespace

SharedFile SharedFile::Create(const std::string &path, std::uint64_t size, std::uint64_t ready) {
    const Descriptor file = {OpenNew(path)};
    if (ftruncate(file.fd, static_cast<off_t>(size)) != 0)
        Fail(path, errno);
    if (const int error = posix_fallocate(file.fd, 0, static_cast<off_t>(ready)))
        Fail(path, error);
    return Map(file.fd, size, path);
}

SharedFile SharedFile::CreateFull(const std::string &path, std::uint64_t size, std::uint8_t byte) {
    constexpr std::size_t kPart = 1 << 20;
    const Descriptor file = {OpenNew(path)};
    const std::vector<std::uint8_t> part(static_cast<std::size_t>(std::min<std::uint64_t>(size, kPart)), byte);
    for (std::uint64_t done = 0; done < size; done += part.size())
        WriteAll(file.fd, part.data(), static_cast<std::size_t>(std::min<std::uint64_t>(size - done, part.size())),
                 path);
    return Map(file.fd, size, path);
}

void SharedFile::Copy(const SharedFile &from, const std::string &path) {
    const Descriptor file = {OpenNew(path)};
    WriteAll(file.fd, from.m_data, from.m_size, path);
}

SharedFile SharedFile::Open(const std::string &path) {
    const Descriptor file = {open(path.c_str(), O_RDWR | O_CLOEXEC)};
    struct stat status = {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0)
        Fail(path, errno);
    return Map(file.fd, static_cast<std::uint64_t>(status.st_size), path);
}

SharedFile SharedFile::Map(int fd, std::uint64_t size, const std::string &path) {
    if (size > std::numeric_limits<std::size_t>::max())
        Fail(path, EFBIG);
    const auto length = static_cast<std::size_t>(size);
    if (length == 0)
        return {nullptr, 0};
    void *data = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED)
        Fail(path, errno);
    return {static_cast<std::uint8_t *>(data), length};
}

bool SharedFile::MakeReady(std::uint64_t first, std::uint64_t end) const {
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t start = first / page * page;
    // Kernels before 5.14 don't know the request: there the bytes take their room when they are touched.
    return madvise(m_data + start, static_cast<std::size_t>(end - start), MADV_POPULATE_WRITE) == 0 || errno == EINVAL;
}

SharedFile::SharedFile(SharedFile &&other) noexcept : m_data(other.m_data), m_size(other.m_size) {
    other.m_data = nullptr;
}

SharedFile::~SharedFile() {
    if (m_data != nullptr)
        munmap(m_data, m_size);
}
