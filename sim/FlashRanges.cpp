#include "FlashRanges.h"

#include <algorithm>
#include <string>

WholeFlash::WholeFlash(const NandChip &chip, const std::vector<SimDevice> &devices)
    : m_chip(chip), m_devices(devices), m_offset(0), m_size(static_cast<std::int64_t>(chip.Geometry().size)) {
    const auto whole = std::find_if(devices.begin(), devices.end(), [](const SimDevice &device) {
        return device.name.find("all") != std::string::npos;
    });
    if (whole != devices.end()) {
        m_offset = static_cast<std::int64_t>(whole->offset);
        m_size = static_cast<std::int64_t>(whole->size);
    }
}

std::optional<FlashRange> WholeFlash::RangeOf(const UpdateLine &line) const {
    if (line.hasRange) {
        const FlashRange range = {line.offset.value, std::int64_t{line.offset.value} + line.size.value};
        return range.begin < range.end ? std::optional(range) : std::nullopt;
    }
    if (line.kind != LineKind::Ubiformat || !line.isComplete)
        return std::nullopt;
    for (const SimDevice &device : m_devices) {
        if (line.tokens[1] == "/dev/mtd" + std::to_string(device.number)) {
            const std::int64_t begin = FromChip(device.offset);
            return FlashRange{begin, begin + static_cast<std::int64_t>(device.size)};
        }
    }
    return std::nullopt;
}

bool WholeFlash::IsAligned(const FlashRange &range) const {
    return range.begin % EraseSize() == 0 && range.end % EraseSize() == 0;
}

std::vector<std::uint32_t> WholeFlash::BadBlocks(const FlashRange &range) const {
    std::vector<std::uint32_t> bad;
    const std::int64_t end = std::min(range.end, m_size);
    for (std::int64_t offset = std::max<std::int64_t>(range.begin, 0); offset < end; offset += EraseSize()) {
        const auto block = static_cast<std::uint32_t>(OnChip(offset) / m_chip.Geometry().eraseSize);
        if (m_chip.IsBad(block))
            bad.push_back(block);
    }
    return bad;
}
