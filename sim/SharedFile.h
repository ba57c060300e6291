#pragma once

#include <cstdint>
#include <string>

/// A file in memory, read and written by every process that maps it.
class SharedFile {
public:
    /// Makes a file of `size` zero bytes in place of any that stands there. It takes room only where it is written.
    /// @throw std::runtime_error with one line
    static SharedFile Create(const std::string &path, std::uint64_t size);

    /// Maps the whole of a file that is there.
    /// @throw std::runtime_error with one line
    static SharedFile Open(const std::string &path);

    SharedFile(SharedFile &&other) noexcept;
    SharedFile &operator=(SharedFile &&) = delete;
    SharedFile(const SharedFile &) = delete;
    SharedFile &operator=(const SharedFile &) = delete;
    ~SharedFile();

    std::uint8_t *Data() const { return m_data; }
    std::uint64_t Size() const { return m_size; }

private:
    SharedFile(const std::string &path, int flags, std::uint64_t size);

    std::uint8_t *m_data = nullptr;
    std::uint64_t m_size = 0;
};
