#pragma once

#include <unistd.h>
#include <utility>

/// Owner of one file descriptor, or of none (-1); closes it in the end.
class ScopedFd {
public:
    explicit ScopedFd(int fd = -1) : m_nFd(fd) {}
    ~ScopedFd() { Close(); }
    ScopedFd(ScopedFd &&other) noexcept : m_nFd(std::exchange(other.m_nFd, -1)) {}
    ScopedFd &operator=(ScopedFd &&other) noexcept {
        std::swap(m_nFd, other.m_nFd);
        return *this;
    }
    ScopedFd(const ScopedFd &) = delete;
    ScopedFd &operator=(const ScopedFd &) = delete;

    int Get() const { return m_nFd; }

    /// Closes it before its time.
    void Close() {
        if (m_nFd >= 0)
            close(std::exchange(m_nFd, -1));
    }

private:
    int m_nFd;
};
