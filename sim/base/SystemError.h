#pragma once

#include <cerrno>
#include <string>
#include <system_error>

/// An operation that the system refused. Its text is one line: "can't make a pipe: Too many open files".
class SystemError : public std::system_error {
public:
    /// @param error an errno value
    explicit SystemError(const std::string &what, int error = errno)
        : std::system_error(error, std::generic_category(), what) {}
};

/// Throws a SystemError with errno when a system call gave a negative result.
/// @return the result
template <typename Number> Number Check(Number result, const std::string &what) {
    if (result < 0)
        throw SystemError(what);
    return result;
}
