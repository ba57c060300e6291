#include "verdict/FlashRanges.h"

#include "verdict/BlockContent.h"

#include <algorithm>
#include <string>

WholeFlash::WholeFlash(const NandChip &chip, const std::vector<SimDevice> &devices)
    : m_chip(chip), m_devices(devices), m_offset(0), m_size(static_cast<std::int64_t>(chip.Geometry().size)) {
    auto whole = std::find_if(devices.begin(), devices.end(),
                              [](const SimDevice &device) { return device.name.find("all") != std::string::npos; });
    if (whole == devices.end())
        whole =
            std::find_if(devices.begin(), devices.end(), [](const SimDevice &device) { return device.number == 0; });
    if (whole != devices.end()) {
        m_device = &*whole;
        m_offset = static_cast<std::int64_t>(whole->offset);
        m_size = static_cast<std::int64_t>(whole->size);
    }
}

std::optional<FlashRange> WholeFlash::RangeOf(const UpdateLine &line) const {
    if (line.hasRange) {
        // The updater divides a negative size of blocks as a large one, and erases up to the end of the flash.
        const std::int64_t size = line.kind == LineKind::SetEnv
                                      ? std::int64_t{line.size.value}
                                      : std::int64_t{static_cast<std::uint32_t>(line.size.value)};
        const FlashRange range = {line.offset.value, line.offset.value + size};
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

bool WholeFlash::IsOnFlash(const FlashRange &range) const {
    return IsAligned(range) && range.begin >= 0 && range.end <= m_size;
}

std::vector<std::uint32_t> WholeFlash::Blocks(const FlashRange &range) const {
    std::vector<std::uint32_t> blocks;
    const std::int64_t end = std::min(range.end, m_size);
    for (std::int64_t offset = std::max<std::int64_t>(range.begin, 0); offset < end; offset += EraseSize())
        blocks.push_back(static_cast<std::uint32_t>(OnChip(offset) / m_chip.Geometry().eraseSize));
    return blocks;
}

std::vector<std::uint32_t> WholeFlash::GoodBlocks(const FlashRange &range) const {
    std::vector<std::uint32_t> blocks = Blocks(range);
    const auto isBad = [this](std::uint32_t block) { return m_chip.IsBad(block); };
    blocks.erase(std::remove_if(blocks.begin(), blocks.end(), isBad), blocks.end());
    return blocks;
}

std::vector<std::uint32_t> WholeFlash::BadBlocks(const FlashRange &range) const {
    std::vector<std::uint32_t> blocks = Blocks(range);
    const auto isGood = [this](std::uint32_t block) { return !m_chip.IsBad(block); };
    blocks.erase(std::remove_if(blocks.begin(), blocks.end(), isGood), blocks.end());
    return blocks;
}

std::vector<char> WholeFlash::Read(const FlashRange &range) const {
    const std::uint32_t pageSize = m_chip.Geometry().pageSize;
    std::vector<char> bytes(static_cast<std::size_t>(range.end - range.begin));
    for (std::size_t done = 0; done < bytes.size(); done += pageSize) {
        const auto page = static_cast<std::uint32_t>((OnChip(range.begin) + done) / pageSize);
        m_chip.Read(page, 0, pageSize, reinterpret_cast<std::uint8_t *>(bytes.data() + done));
    }
    return bytes;
}

bool HasValidCrc(const std::vector<char> &environment) {
    return LookAtBlock({environment.data(), environment.size()}).kind == BlockContent::Kind::Environment;
}
