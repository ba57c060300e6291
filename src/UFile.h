#pragma once

#include <string>

struct stat;

/// File services: thin static wrappers over libc's large-file calls.
///
/// Unless stated otherwise, a failed call is reported to the system log with its errno name, number and text and with
/// the caller's stack, and the operation returns its failure value. Nothing is retried.
/// Paths are terminated texts; descriptors and buffers belong to the caller; offsets and lengths are bytes.
class UFile {
public:
    /// Advice values of posix_fadvise.
    enum CacheMode { Normal, Random, Sequential, WillNeed, DontNeed, NoReuse };

    UFile() {}
    virtual ~UFile() {}

    /// Follows symbolic links. @return 1 when the path exists, else 0. Never reported.
    static int Exist(const char *path);

    /// @return 1 when the path is a folder or a link to one, else 0. Never reported.
    static int IsDir(const char *path);

    /// Reads a text file with one read of up to 1 MiB. Never reported.
    /// @return the text up to its first zero byte; empty on failure.
    static std::string ReadFile(const char *path);

    /// Reads up to `length` bytes into `buffer` with one read; no terminator is added. Never reported.
    /// @return the count of bytes, or -1.
    static int ReadFile(const char *path, char *buffer, int length);

    /// Open a file with mode 0777; Create adds O_CREAT and O_RDWR to the flags.
    /// @return the descriptor, which the caller closes, or -1.
    static int Create(const char *path, int flags);
    static int Open(const char *path, int flags);

    /// @return 1, or 0 on failure.
    static int Close(int fd);

    /// @return the count of bytes, 0 at the end of the file, or the negative result.
    static int Read(int fd, void *buffer, unsigned int length);
    static int Write(int fd, void *buffer, unsigned int length);

    /// @return the new position, or -1.
    static long long Seek(int fd, long long offset, int whence);

    /// @return 1, or 0 on failure.
    static int Flush(int fd);
    static int CheckPermission(const char *path, int mode);
    static int ChangePermission(const char *path, unsigned int mode);

    /// Reserves space with fallocate. A length below 1 gives 0 without a report; a failure is also printed on stdout.
    /// @return 1, or 0 on failure.
    static int ReserveSpace4(int fd, long long offset, long long length);

    /// Reserves space with posix_fallocate, whose result is the code of the report and is stored in errno.
    /// @return 1, or 0 on failure.
    static int ReserveSpace(int fd, long long offset, long long length);

    /// @return 1, or 0 on failure.
    static int Remove(const char *path);
    static int Rename(const char *from, const char *to);

    /// Fills a record with 64-bit sizes: 32-bit callers are built with _FILE_OFFSET_BITS=64, as this class is.
    /// @return 1, or 0 on failure.
    static int GetAttrs(const char *path, struct stat *record);

    /// @return the time of the last write in seconds, or -1.
    static int GetLastWriteTime(const char *path);

    /// @return 1, or 0 on failure.
    static int MakeSymLink(const char *target, const char *link);

    /// Resolves a path into `result`, which must have room for PATH_MAX bytes.
    /// @return 1, or 0 on failure.
    static int GetAbsolutePath(const char *path, char *result);

    /// @return the resolved path, which the caller frees, or null.
    static char *CreateAbsolutePath(const char *path);

    /// Gives the kernel cache advice for a range; the result of posix_fadvise is the code of the report.
    /// @return 1, or 0 on failure.
    static int ControlCache(int fd, CacheMode mode, long long offset, long long length);

    /// @return 1, or 0 on failure.
    static int SyncFileRange(int fd, int flags, long long offset, long long length);

    /// Creates and opens a new file "/tmp/<stem>XXXXXX<tail>"; stem and tail may be null.
    /// `path` receives the name and must have room for 12 bytes and both texts.
    /// @return the descriptor, which the caller closes, or -1.
    static int CreateTempFile(const char *stem, const char *tail, char *path);

    /// Takes or releases (F_RDLCK, F_WRLCK, F_UNLCK) a record lock on the whole file.
    /// @return 1, or 0 on failure. When `wait` is false, a conflicting lock is a failure.
    static int Lock(int fd, int type, bool wait);

    /// Sets or clears O_NONBLOCK and keeps all other flags. Only a failed query is reported.
    /// @return 1, or 0 on failure.
    static int SetNonBlock(int fd, bool on);

    /// @return the size in bytes, or -1.
    static long long GetFileSize(const char *path);
    static long long GetFileSize(int fd);

    /// Reads a link into `result` of `size` bytes, terminated; a target that does not fit is silently cut.
    /// @return 1, or 0 on failure.
    static int ReadLink(const char *path, char *result, unsigned int size);

    /// Writes all of `data` to a new or emptied file. Never reported.
    /// @return 1, or 0 when the file cannot be opened; a failed write is not detected.
    static int SaveBinaryFile(std::string path, std::string data);

    /// Appends the file's bytes to `result`. Never reported.
    /// @return 1, or 0 when the file cannot be opened or read.
    static int LoadBinaryFile(std::string path, std::string &result);

    /// Writes a new or emptied file with one write; the second form with mode 0644. Never reported.
    /// @return 1 when all bytes were written, else 0; a length of 0 always gives 1.
    static int WriteFile(const char *path, const char *data, int length, unsigned int mode);
    static int WriteFile(const char *path, std::string &data);
};
