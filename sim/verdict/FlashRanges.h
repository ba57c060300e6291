#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "verdict/UpdateLines.h"

#include <cstdint>
#include <optional>
#include <vector>

/// A part of the whole flash, in bytes: from `begin` up to, not including, `end`.
struct FlashRange {
    std::int64_t begin;
    std::int64_t end;

    bool Holds(std::int64_t offset) const { return begin <= offset && offset < end; }
    bool Holds(const FlashRange &other) const { return begin <= other.begin && other.end <= end; }
    bool Overlaps(const FlashRange &other) const { return begin < other.end && other.begin < end; }
    bool operator==(const FlashRange &other) const { return begin == other.begin && end == other.end; }
};

/// The flash that a script's offsets count in: the first device whose name contains "all", else device 0, else the
/// chip.
class WholeFlash {
public:
    WholeFlash(const NandChip &chip, const std::vector<SimDevice> &devices);

    /// @return the range that a line names, on the flash or not; for `ubiformat` that of its device. Nothing for a line
    ///         without a range, for a size that isn't above 0 and for a missing device.
    std::optional<FlashRange> RangeOf(const UpdateLine &line) const;

    /// @return whether the whole flash is a device.
    bool HasDevice() const { return m_device != nullptr; }
    /// @return the device that the updater takes for the whole flash; nullptr when there is none.
    const SimDevice *Device() const { return m_device; }
    std::int64_t Size() const { return m_size; }
    std::int64_t EraseSize() const { return m_chip.Geometry().eraseSize; }
    /// @return whether offset and size are whole blocks.
    bool IsAligned(const FlashRange &range) const;

    /// @return whether a range is whole blocks of the flash.
    bool IsOnFlash(const FlashRange &range) const;

    /// @return the chip's numbers of the blocks in a range, as far as the range is on the flash: all, the good, the
    /// bad.
    std::vector<std::uint32_t> Blocks(const FlashRange &range) const;
    std::vector<std::uint32_t> GoodBlocks(const FlashRange &range) const;
    std::vector<std::uint32_t> BadBlocks(const FlashRange &range) const;
    /// @return the bytes of a range that is on the flash, as a boot loader reads them, through the ECC.
    std::vector<char> Read(const FlashRange &range) const;

    /// @return the chip offset of an offset in the flash.
    std::uint64_t OnChip(std::int64_t offset) const { return static_cast<std::uint64_t>(m_offset + offset); }
    /// @return the offset in the flash of a chip offset.
    std::int64_t FromChip(std::uint64_t offset) const { return static_cast<std::int64_t>(offset) - m_offset; }

private:
    const NandChip &m_chip;
    const std::vector<SimDevice> &m_devices;
    std::int64_t m_offset;
    std::int64_t m_size;
    const SimDevice *m_device = nullptr;
};

/// @return whether the CRC of a boot environment block matches its bytes.
bool HasValidCrc(const std::vector<char> &environment);
