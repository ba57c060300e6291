#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

/// A file in memory, read and written by every process that maps it.
class SharedFile {
public:
    /// Makes a file of `size` zero bytes; an old file of that name is replaced. The first `ready` bytes take their room
    /// at once, the others by MakeReady: touching bytes for which there is no room ends the process.
    /// @throw SystemError, also for want of room
    static SharedFile Create(const std::string &path, std::uint64_t size, std::uint64_t ready);

    /// Makes a file that holds the same byte all over. It takes its room at once.
    /// @throw SystemError, also for want of room, and EINTR when HeldSignals::IsAnyPending
    static SharedFile CreateFull(const std::string &path, std::uint64_t size, std::uint8_t byte);

    /// Makes a file with the bytes of another. It takes its room at once.
    /// @throw SystemError as CreateFull
    static void Copy(const SharedFile &from, const std::string &path);

    /// Maps the whole of an existing file.
    /// @throw SystemError
    static SharedFile Open(const std::string &path);

    /// As Open, but what this process writes stays its own; only written pages take memory.
    /// @throw std::system_error with one line
    static SharedFile OpenPrivate(const std::string &path);

    SharedFile(SharedFile &&other) noexcept;
    SharedFile &operator=(SharedFile &&) = delete;
    SharedFile(const SharedFile &) = delete;
    SharedFile &operator=(const SharedFile &) = delete;
    ~SharedFile();

    std::uint8_t *Data() const { return m_data; }
    std::uint64_t Size() const { return m_size; }

    /// @return whether the file still has the mapped length: reading beyond the end of a shortened file ends the
    /// process.
    bool IsWhole() const;

    /// Takes room for the bytes from `first` to `end`.
    /// @return false when there is none.
    bool MakeReady(std::uint64_t first, std::uint64_t end) const;

private:
    SharedFile(std::uint8_t *data, std::size_t size, std::string path)
        : m_data(data), m_size(size), m_sPath(std::move(path)) {}
    static SharedFile OpenAs(const std::string &path, int sharing);
    static SharedFile Map(int fd, std::uint64_t size, const std::string &path, int sharing);

    std::uint8_t *m_data;
    std::size_t m_size;
    std::string m_sPath; ///< no descriptor: in the preload library it would take a number from the program
};
