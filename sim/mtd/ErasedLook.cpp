#include "mtd/ErasedLook.h"

#include "mtd/UpdaterRecord.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace {

/// @return whether a page begins like a boot environment: a CRC, perhaps a flag, and the text of a variable.
bool LooksLikeEnvironment(const std::vector<std::uint8_t> &page) {
    for (const std::ptrdiff_t start : {4, 5}) {
        const auto isText = [](std::uint8_t byte) { return byte > ' ' && byte <= '~'; };
        const auto end = std::find_if_not(page.begin() + start, page.end(), isText);
        const auto equals = std::find(page.begin() + start, end, '=');
        if (equals != end && equals != page.begin() + start)
            return true;
    }
    return false;
}

} // namespace

std::string ErasedLine(const NandChip &chip, std::uint32_t block) {
    const NandGeometry &geometry = chip.Geometry();
    if (chip.IsTouched(block))
        return "";
    const std::uint32_t first = block * geometry.PagesPerBlock();
    std::vector<std::uint8_t> bytes(geometry.pageSize);
    chip.Read(first, 0, geometry.pageSize, bytes.data());
    if (!LooksLikeEnvironment(bytes))
        return "";
    bytes.resize(geometry.eraseSize);
    for (std::uint32_t page = 1; page < geometry.PagesPerBlock(); ++page)
        chip.Read(first + page, 0, geometry.pageSize, bytes.data() + std::size_t{page} * geometry.pageSize);
    return RecordLine(RecordKind::Erased, bytes.data(), bytes.size(), std::uint64_t{block} * geometry.eraseSize);
}
