#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// A file in memory, read and written by every process that maps it.
class SharedFile {
public:
    /// Makes a file of `size` zero bytes in place of any that stands there. The first `ready` of them take their room
    /// at once, the others by MakeReady: where there is none left, touching them ends the process.
    /// @throw std::system_error with one line, for want of room too
    static SharedFile Create(const std::string &path, std::uint64_t size, std::uint64_t ready);

    /// Makes one that holds the same byte all over. It takes its room at once.
    /// @throw std::system_error with one line, for want of room too
    static SharedFile CreateFull(const std::string &path, std::uint64_t size, std::uint8_t byte);

    /// Makes one that holds what another does. It takes its room at once.
    /// @throw std::system_error with one line, for want of room too
    static void Copy(const SharedFile &from, const std::string &path);

    /// Maps the whole of a file that is there.
    /// @throw std::system_error with one line
    static SharedFile Open(const std::string &path);

    SharedFile(SharedFile &&other) noexcept;
    SharedFile &operator=(SharedFile &&) = delete;
    SharedFile(const SharedFile &) = delete;
    SharedFile &operator=(const SharedFile &) = delete;
    ~SharedFile();

    std::uint8_t *Data() const { return m_data; }
    std::uint64_t Size() const { return m_size; }

    /// Takes room for the bytes from `first` to `end`.
    /// @return false when there is none.
    bool MakeReady(std::uint64_t first, std::uint64_t end) const;

private:
    SharedFile(std::uint8_t *data, std::size_t size) : m_data(data), m_size(size) {}
    static SharedFile Map(int fd, std::uint64_t size, const std::string &path);

    std::uint8_t *m_data;
    std::size_t m_size;
};
