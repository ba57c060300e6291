#include "SharedFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[noreturn]] void Fail(const std::string &path, int error) {
    throw std::runtime_error(path + ": " + std::strerror(error));
}

/// Closes itself; a mapping doesn't need it any more.
struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0)
            close(fd);
    }
};

} // namespace

SharedFile SharedFile::Create(const std::string &path, std::uint64_t size, Room room) {
    constexpr mode_t kMode = 0666;
    // A new file: whoever has an old one mapped keeps it whole.
    unlink(path.c_str());
    const Descriptor file = {open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode)};
    const auto length = static_cast<off_t>(size);
    if (file.fd < 0 || ftruncate(file.fd, length) != 0)
        Fail(path, errno);
    if (room == Room::AtOnce) {
        if (const int error = posix_fallocate(file.fd, 0, length))
            Fail(path, error);
    }
    return Map(file.fd, size, path);
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

SharedFile::SharedFile(SharedFile &&other) noexcept : m_data(other.m_data), m_size(other.m_size) {
    other.m_data = nullptr;
}

SharedFile::~SharedFile() {
    if (m_data != nullptr)
        munmap(m_data, m_size);
}
