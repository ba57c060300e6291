#include "base/SharedFile.h"

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "base/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t kPart = 1 << 20;

/// Opens a new file, whatever the umask: whoever has an old one mapped keeps it whole.
ScopedFd OpenNew(const std::string &path) {
    constexpr mode_t kMode = 0600;
    unlink(path.c_str());
    ScopedFd file(Check(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode), path));
    Check(fchmod(file.Get(), kMode), path);
    return file;
}

/// Written, not mapped and set: that takes the pages one by one and clears each first.
void WriteAll(int fd, const std::uint8_t *data, std::size_t length, const std::string &path) {
    for (std::size_t done = 0; done < length;) {
        // A large chip takes seconds on a slow disk.
        if (HeldSignals::IsAnyPending())
            throw SystemError(path, EINTR);
        const std::size_t part = std::min(length - done, kPart);
        done += static_cast<std::size_t>(Check(write(fd, data + done, part), path));
    }
}

} // namespace

SharedFile SharedFile::Create(const std::string &path, std::uint64_t size, std::uint64_t ready) {
    const ScopedFd file = OpenNew(path);
    Check(ftruncate(file.Get(), static_cast<off_t>(size)), path);
    if (const int error = posix_fallocate(file.Get(), 0, static_cast<off_t>(ready)))
        throw SystemError(path, error);
    return Map(file.Get(), size, path, MAP_SHARED);
}

SharedFile SharedFile::CreateFull(const std::string &path, std::uint64_t size, std::uint8_t byte) {
    const ScopedFd file = OpenNew(path);
    const std::vector<std::uint8_t> part(static_cast<std::size_t>(std::min<std::uint64_t>(size, kPart)), byte);
    for (std::uint64_t done = 0; done < size; done += part.size())
        WriteAll(file.Get(), part.data(), static_cast<std::size_t>(std::min<std::uint64_t>(size - done, part.size())),
                 path);
    return Map(file.Get(), size, path, MAP_SHARED);
}

void SharedFile::Copy(const SharedFile &from, const std::string &path) {
    const ScopedFd file = OpenNew(path);
    WriteAll(file.Get(), from.m_data, from.m_size, path);
}

SharedFile SharedFile::Open(const std::string &path) { return OpenAs(path, MAP_SHARED); }

SharedFile SharedFile::OpenPrivate(const std::string &path) { return OpenAs(path, MAP_PRIVATE); }

SharedFile SharedFile::OpenAs(const std::string &path, int sharing) {
    const ScopedFd file(Check(open(path.c_str(), O_RDWR | O_CLOEXEC), path));
    struct stat status = {};
    Check(fstat(file.Get(), &status), path);
    return Map(file.Get(), static_cast<std::uint64_t>(status.st_size), path, sharing);
}

SharedFile SharedFile::Map(int fd, std::uint64_t size, const std::string &path, int sharing) {
    if (size > std::numeric_limits<std::size_t>::max())
        throw SystemError(path, EFBIG);
    const auto length = static_cast<std::size_t>(size);
    if (length == 0)
        return {nullptr, 0, path};
    void *data = mmap(nullptr, length, PROT_READ | PROT_WRITE, sharing, fd, 0);
    if (data == MAP_FAILED)
        throw SystemError(path);
    return {static_cast<std::uint8_t *>(data), length, path};
}

bool SharedFile::IsWhole() const {
    struct stat status = {};
    return stat(m_sPath.c_str(), &status) == 0 && static_cast<std::uint64_t>(status.st_size) == m_size;
}

bool SharedFile::MakeReady(std::uint64_t first, std::uint64_t end) const {
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t start = first / page * page;
    // Kernels before 5.14 don't know the request: there the bytes take their room when they are touched.
    return madvise(m_data + start, static_cast<std::size_t>(end - start), MADV_POPULATE_WRITE) == 0 || errno == EINVAL;
}

SharedFile::SharedFile(SharedFile &&other) noexcept
    : m_data(other.m_data), m_size(other.m_size), m_sPath(std::move(other.m_sPath)) {
    other.m_data = nullptr;
}

SharedFile::~SharedFile() {
    if (m_data != nullptr)
        munmap(m_data, m_size);
}
