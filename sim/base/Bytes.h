#pragma once

#include <cstddef>
#include <cstdint>

/// The CRC before the first byte.
constexpr std::uint32_t kCrcStart = 0xFFFFFFFF;

/// Continues the CRC-32 of Ethernet and zlib. UBI stores the result, boot environments its complement.
std::uint32_t AddToCrc(std::uint32_t crc, const std::uint8_t *bytes, std::size_t length);

/// @return whether all bytes are 0xFF, as on erased flash.
bool IsErased(const std::uint8_t *bytes, std::size_t length);
