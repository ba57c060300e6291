#pragma once

// What the programs of the board share: test data, digests and the end of a request's line.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

using Bytes = std::vector<unsigned char>;

/// Bytes without a pattern that depend on the seed alone.
inline Bytes Noise(std::uint64_t length, std::uint32_t seed) {
    Bytes bytes(static_cast<std::size_t>(length));
    for (unsigned char &byte : bytes) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<unsigned char>(seed >> 24);
    }
    return bytes;
}

/// FNV-1a with 32 bits.
inline std::uint32_t Digest(const unsigned char *bytes, std::size_t length) {
    std::uint32_t digest = 2166136261;
    for (std::size_t i = 0; i < length; ++i)
        digest = (digest ^ bytes[i]) * 16777619;
    return digest;
}

/// The address of the bytes as a request carries it; it is valid as long as they keep their place.
inline std::uint64_t Address(Bytes &bytes) { return reinterpret_cast<std::uintptr_t>(bytes.data()); }

/// Ends the line of a request that returned `result`; errno is printed with a negative result.
inline void PrintResult(long long result) {
    if (result < 0)
        std::printf(" = %lld errno %d\n", result, errno);
    else
        std::printf(" = %lld\n", result);
}
