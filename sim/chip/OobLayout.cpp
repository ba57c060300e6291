#include "chip/Hamming.h"
#include "chip/NandChip.h"

#include <algorithm>

namespace {

/// Chips with an OOB of up to this size lay it out in the old way, with the bad-block mark at byte 5.
constexpr std::uint32_t kSmallOob = 16;

/// Where the kernel's layouts for large pages begin with the ECC; 0 for sizes that it has no layout for.
std::uint32_t EccStart(std::uint32_t oobSize) { return oobSize == 64 ? 40 : oobSize == 128 ? 80 : 0; }

} // namespace

OobLayout::OobLayout(const NandGeometry &geometry, Ecc kind) {
    const std::uint32_t size = geometry.oobSize;
    const std::uint32_t total = geometry.pageSize / Hamming::kStep * Hamming::kBytes;
    if (size <= kSmallOob) {
        constexpr std::uint32_t kFirst = 4; // ECC bytes before the mark; later ones follow the mark
        const std::uint32_t end = kind == Ecc::Host ? std::max(total + 2, 8U) : 8U;
        if (end > size)
            return;
        free = {{end, size - end}};
        if (kind == Ecc::Chip)
            return;
        ecc = {{0, std::min(total, kFirst)}};
        if (total > kFirst)
            ecc.push_back({6, total - kFirst});
        else if (size == 8)
            free = {{3, 2}, {6, 2}};
        return;
    }
    if (kind == Ecc::Chip) {
        free = {{2, size - 2}};
        return;
    }
    const bool isKnown = EccStart(size) != 0;
    // In other sizes the ECC takes the end.
    const std::uint32_t start = isKnown ? EccStart(size) : size > total + 2 ? size - total : size;
    free = {{2, start - 2}};
    if (start + total > size)
        return;
    ecc = {{start, total}};
    if (isKnown)
        free.push_back({start + total, size - start - total});
}
