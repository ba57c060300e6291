#include "UFile.h"

#include "ULog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kTextLimit = 0x100000;
constexpr std::size_t kLoadStep = 4096;
constexpr mode_t kOpenMode = 0777;
constexpr unsigned int kWriteMode = 0644;

/// Reports errno and returns `failure`.
/// Always inline, so that the reported stack begins with the operation itself.
template <typename Result>
__attribute__((always_inline)) inline Result Failed(int line, const char *operation, Result failure) {
    USysLog::error(__FILE__, line, operation, errno);
    return failure;
}

} // namespace

int UFile::Exist(const char *path) {
    struct stat64 status;
    return stat64(path, &status) == 0 ? 1 : 0;
}

int UFile::IsDir(const char *path) {
    struct stat64 status;
    return stat64(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

std::string UFile::ReadFile(const char *path) {
    // Not value-initialised: pages beyond the end of the file are never touched.
    const std::unique_ptr<char[]> buffer(new char[kTextLimit + 1]);
    buffer[0] = '\0';
    const int fd = open64(path, O_RDONLY);
    if (fd > 0) {
        const ssize_t count = read(fd, buffer.get(), kTextLimit);
        buffer[count > 0 ? static_cast<std::size_t>(count) : 0] = '\0';
        close(fd);
    }
    return std::string(buffer.get());
}

int UFile::ReadFile(const char *path, char *buffer, int length) {
    const int fd = open64(path, O_RDONLY);
    if (fd <= 0)
        return -1;
    const ssize_t count = read(fd, buffer, static_cast<std::size_t>(length));
    close(fd);
    return static_cast<int>(count);
}

int UFile::Create(const char *path, int flags) {
    const int fd = open64(path, flags | O_CREAT | O_RDWR, kOpenMode);
    return fd == -1 ? Failed(__LINE__, "Create", -1) : fd;
}

int UFile::Open(const char *path, int flags) {
    const int fd = open64(path, flags, kOpenMode);
    return fd == -1 ? Failed(__LINE__, "Open", -1) : fd;
}

int UFile::Close(int fd) { return close(fd) == -1 ? Failed(__LINE__, "Close", 0) : 1; }

int UFile::Read(int fd, void *buffer, unsigned int length) {
    const int count = static_cast<int>(read(fd, buffer, length));
    return count < 0 ? Failed(__LINE__, "Read", count) : count;
}

int UFile::Write(int fd, void *buffer, unsigned int length) {
    const int count = static_cast<int>(write(fd, buffer, length));
    return count < 0 ? Failed(__LINE__, "Write", count) : count;
}

long long UFile::Seek(int fd, long long offset, int whence) {
    const long long position = lseek64(fd, offset, whence);
    return position == -1 ? Failed(__LINE__, "Seek", -1LL) : position;
}

int UFile::Flush(int fd) { return fsync(fd) == -1 ? Failed(__LINE__, "Flush", 0) : 1; }

int UFile::CheckPermission(const char *path, int mode) {
    return access(path, mode) == -1 ? Failed(__LINE__, "CheckPermission", 0) : 1;
}

int UFile::ChangePermission(const char *path, unsigned int mode) {
    return chmod(path, mode) == -1 ? Failed(__LINE__, "ChangePermission", 0) : 1;
}

int UFile::ReserveSpace4(int fd, long long offset, long long length) {
    if (length < 1)
        return 0;
    if (fallocate64(fd, 0, offset, length) != -1)
        return 1;
    const int code = errno;
    printf("fallocate errno:%d\n", code);
    errno = code;
    return Failed(__LINE__, "ReserveSpace4", 0);
}

int UFile::ReserveSpace(int fd, long long offset, long long length) {
    const int code = posix_fallocate64(fd, offset, length);
    if (code == 0)
        return 1;
    errno = code;
    return Failed(__LINE__, "ReserveSpace", 0);
}

int UFile::Remove(const char *path) { return remove(path) == -1 ? Failed(__LINE__, "Remove", 0) : 1; }

int UFile::Rename(const char *from, const char *to) {
    return rename(from, to) == -1 ? Failed(__LINE__, "Rename", 0) : 1;
}

int UFile::GetAttrs(const char *path, struct stat *record) {
    return stat(path, record) == -1 ? Failed(__LINE__, "GetAttrs", 0) : 1;
}

int UFile::GetLastWriteTime(const char *path) {
    struct stat64 status;
    return stat64(path, &status) == -1 ? Failed(__LINE__, "GetLastWriteTime", -1) : static_cast<int>(status.st_mtime);
}

int UFile::MakeSymLink(const char *target, const char *link) {
    return symlink(target, link) != 0 ? Failed(__LINE__, "MakeSymLink", 0) : 1;
}

int UFile::GetAbsolutePath(const char *path, char *result) {
    return realpath(path, result) == nullptr ? Failed(__LINE__, "GetAbsolutePath", 0) : 1;
}

char *UFile::CreateAbsolutePath(const char *path) {
    char *result = realpath(path, nullptr);
    return result == nullptr ? Failed(__LINE__, "CreateAbsolutePath", result) : result;
}

int UFile::ControlCache(int fd, CacheMode mode, long long offset, long long length) {
    const int code = posix_fadvise64(fd, offset, length, static_cast<int>(mode));
    if (code == 0)
        return 1;
    USysLog::error(__FILE__, __LINE__, "ControlCache", code);
    return 0;
}

int UFile::SyncFileRange(int fd, int flags, long long offset, long long length) {
    return sync_file_range(fd, offset, length, static_cast<unsigned int>(flags)) != 0
               ? Failed(__LINE__, "SyncFileRange", 0)
               : 1;
}

int UFile::CreateTempFile(const char *stem, const char *tail, char *path) {
    const std::string end = tail == nullptr ? "" : tail;
    const std::string pattern = std::string("/tmp/") + (stem == nullptr ? "" : stem) + "XXXXXX" + end;
    std::memcpy(path, pattern.c_str(), pattern.size() + 1);
    const int fd = tail == nullptr ? mkstemp64(path) : mkstemps64(path, static_cast<int>(end.size()));
    return fd == -1 ? Failed(__LINE__, "CreateTempFile", -1) : fd;
}

int UFile::Lock(int fd, int type, bool wait) {
    struct flock64 record = {};
    record.l_type = static_cast<short>(type);
    return fcntl64(fd, wait ? F_SETLKW64 : F_SETLK64, &record) == -1 ? Failed(__LINE__, "Lock", 0) : 1;
}

int UFile::SetNonBlock(int fd, bool on) {
    const int flags = fcntl64(fd, F_GETFL);
    if (flags == -1)
        return Failed(__LINE__, "SetNonBlock", 0);
    return fcntl64(fd, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) == -1 ? 0 : 1;
}

long long UFile::GetFileSize(const char *path) {
    struct stat64 status;
    if (stat64(path, &status) != -1)
        return status.st_size;
    USysLog::error(__FILE__, __LINE__, "GetFileSize", errno, "GetFileSize('%s') error.", path);
    return -1;
}

long long UFile::GetFileSize(int fd) {
    struct stat64 status;
    return fstat64(fd, &status) == -1 ? Failed(__LINE__, "GetFileSize", -1LL) : status.st_size;
}

int UFile::ReadLink(const char *path, char *result, unsigned int size) {
    const ssize_t length = readlink(path, result, size);
    if (length == -1)
        return Failed(__LINE__, "ReadLink", 0);
    const unsigned int end = static_cast<unsigned int>(length);
    result[end < size ? end : size - 1] = '\0';
    return 1;
}

int UFile::SaveBinaryFile(std::string path, std::string data) {
    std::ofstream file(path, std::ios::out | std::ios::binary);
    if (file.fail())
        return 0;
    file.write(data.data(), static_cast<std::streamsize>(data.size()));
    return 1;
}

int UFile::LoadBinaryFile(std::string path, std::string &result) {
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (file.fail())
        return 0;
    char step[kLoadStep];
    while (!file.eof()) {
        file.read(step, sizeof step);
        // A folder can be opened but not read: its stream goes bad and never reaches the end of the file.
        if (file.bad())
            return 0;
        if (file.gcount() > 0)
            result.append(step, static_cast<std::size_t>(file.gcount()));
    }
    return 1;
}

int UFile::WriteFile(const char *path, const char *data, int length, unsigned int mode) {
    int count = 0;
    const int fd = open64(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd > 0) {
        count = static_cast<int>(write(fd, data, static_cast<std::size_t>(length)));
        close(fd);
    }
    return count == length ? 1 : 0;
}

int UFile::WriteFile(const char *path, std::string &data) {
    return WriteFile(path, data.data(), static_cast<int>(data.size()), kWriteMode);
}
