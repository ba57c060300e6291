#pragma once

#include <array>
#include <cstdint>

/// The kernel's software ECC: a Hamming code of 3 bytes for every 256 bytes of data, which corrects one bit.
namespace Hamming {

constexpr std::uint32_t kStep = 256; ///< data bytes with a code of their own
constexpr std::uint32_t kBytes = 3;  ///< bytes of a code
using Code = std::array<std::uint8_t, kBytes>;

/// @param data kStep bytes
/// @return their code; that of erased data is erased bytes.
Code Compute(const std::uint8_t *data);

/// Corrects one step as the kernel does: any difference between stored and computed code that one turned bit could
/// cause is taken for one turned bit.
/// @return corrected bits, 0 or 1, a turned bit of the code included; -1 when the data is beyond correction.
int Correct(std::uint8_t *data, const Code &stored);

} // namespace Hamming
