#include "SharedFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[noreturn]] void Fail(const std::string &path) { throw std::runtime_error(path + ": " + std::strerror(errno)); }

/// Closes itself; the mapping doesn't need it any more.
struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0)
            close(fd);
    }
};

} // namespace

SharedFile SharedFile::Create(const std::string &path, std::uint64_t size) {
    // A new file: whoever has an old one mapped keeps it whole.
    unlink(path.c_str());
    return {path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, size};
}

SharedFile SharedFile::Open(const std::string &path) { return {path, O_RDWR | O_CLOEXEC, 0}; }

SharedFile::SharedFile(const std::string &path, int flags, std::uint64_t size) {
    constexpr mode_t kMode = 0666;
    const Descriptor file = {open(path.c_str(), flags, kMode)};
    struct stat status = {};
    if (file.fd < 0 || (size != 0 && ftruncate(file.fd, static_cast<off_t>(size)) != 0) || fstat(file.fd, &status) != 0)
        Fail(path);
    m_size = static_cast<std::uint64_t>(status.st_size);
    if (m_size == 0)
        return;
    void *data = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd, 0);
    if (data == MAP_FAILED)
        Fail(path);
    m_data = static_cast<std::uint8_t *>(data);
}

SharedFile::SharedFile(SharedFile &&other) noexcept : m_data(other.m_data), m_size(other.m_size) {
    other.m_data = nullptr;
}

SharedFile::~SharedFile() {
    if (m_data != nullptr)
        munmap(m_data, m_size);
}
