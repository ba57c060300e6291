#include "chip/Hamming.h"

#include <cstddef>

namespace Hamming {

namespace {

std::uint32_t Parity(std::uint32_t bits) { return static_cast<std::uint32_t>(__builtin_parity(bits)); }

/// Two parities for each of the address bits in `odd`: of the bits where it is 1, and of those where it is 0.
std::uint32_t ParityPairs(std::uint32_t odd, std::uint32_t total, int addressBits) {
    std::uint32_t pairs = 0;
    for (int bit = 0; bit < addressBits; ++bit) {
        const std::uint32_t one = odd >> bit & 1;
        pairs |= (one << 1 | (one ^ total)) << (2 * bit);
    }
    return pairs;
}

/// The address that the odd bits of `pairs` spell.
std::uint32_t OddBits(std::uint32_t pairs, int addressBits) {
    std::uint32_t address = 0;
    for (int bit = 0; bit < addressBits; ++bit)
        address |= (pairs >> (2 * bit + 1) & 1) << bit;
    return address;
}

} // namespace

Code Compute(const std::uint8_t *data) {
    std::uint32_t column = 0;
    std::uint32_t oddBytes = 0; // XOR of the addresses of all bytes with an odd number of ones
    for (std::uint32_t i = 0; i < kStep; ++i) {
        column ^= data[i];
        oddBytes ^= i & (0U - Parity(data[i]));
    }
    const std::uint32_t total = Parity(column);
    const std::uint32_t bytePairs = ParityPairs(oddBytes, total, 8);
    const std::uint32_t oddBits = Parity(column & 0xAA) | Parity(column & 0xCC) << 1 | Parity(column & 0xF0) << 2;
    const std::uint32_t bitPairs = ParityPairs(oddBits, total, 3);
    // Stored inverted, so that erased data fits erased ECC.
    return {static_cast<std::uint8_t>(~(bytePairs >> 8)), static_cast<std::uint8_t>(~bytePairs),
            static_cast<std::uint8_t>(~(bitPairs << 2))};
}

int Correct(std::uint8_t *data, const Code &stored) {
    const Code computed = Compute(data);
    const auto differing = [&](std::size_t i) { return static_cast<std::uint32_t>(stored[i] ^ computed[i]); };
    const std::uint32_t difference = differing(0) << 16 | differing(1) << 8 | differing(2);
    if (difference == 0)
        return 0;
    constexpr std::uint32_t kOneOfEachPair = 0x555554;
    if (((difference ^ difference >> 1) & kOneOfEachPair) == kOneOfEachPair) {
        data[OddBits(difference >> 8, 8)] ^= static_cast<std::uint8_t>(1U << OddBits(difference >> 2, 3));
        return 1;
    }
    const bool onlyEccBit = (difference & (difference - 1)) == 0;
    return onlyEccBit ? 1 : -1;
}

} // namespace Hamming
