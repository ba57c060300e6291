#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>

/// Access to the memory of the program that makes a request.

/// The kernel casts its 64-bit user addresses just so.
inline std::uint8_t *UserPointer(std::uint64_t address) {
    return reinterpret_cast<std::uint8_t *>(static_cast<std::uintptr_t>(address)); // NOLINT(performance-no-int-to-ptr)
}

inline std::uint64_t UserAddress(const void *pointer) { return reinterpret_cast<std::uintptr_t>(pointer); }

/// Takes a request's structure from the caller.
/// @return false when there is none.
template <typename Structure> bool CopyIn(Structure &to, const void *from) {
    if (from == nullptr)
        return false;
    std::memcpy(&to, from, sizeof to);
    return true;
}

/// Gives the caller a structure.
/// @return 0, or -EFAULT when there is no room for it.
template <typename Structure> int CopyOut(void *to, const Structure &from) {
    if (to == nullptr)
        return -EFAULT;
    std::memcpy(to, &from, sizeof from);
    return 0;
}
