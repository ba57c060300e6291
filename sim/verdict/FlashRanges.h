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

/// The flash as a script's offsets count it: the first device whose name holds "all", or device 0 when there is none;
/// the chip when there isn't either.
class WholeFlash {
public:
    WholeFlash(const NandChip &chip, const std::vector<SimDevice> &devices);

    /// @return the part of the flash that a line's command is given, whether it is on the flash or not; nothing for a
    ///         command that is given none and for one whose size isn't above 0.
    std::optional<FlashRange> RangeOf(const UpdateLine &line) const;

    /// @return whether it is a device's.
    bool HasDevice() const { return m_hasDevice; }
    std::int64_t Size() const { return m_size; }
    std::int64_t EraseSize() const { return m_chip.Geometry().eraseSize; }
    /// @return whether offset and size are whole blocks.
    bool IsAligned(const FlashRange &range) const;

    /// @return whether a range is whole blocks of the flash.
    bool IsOnFlash(const FlashRange &range) const;

    /// @return the numbers on the chip of a range's blocks, as far as it is on the flash: all, the good, the bad ones.
    std::vector<std::uint32_t> Blocks(const FlashRange &range) const;
    std::vector<std::uint32_t> GoodBlocks(const FlashRange &range) const;
    std::vector<std::uint32_t> BadBlocks(const FlashRange &range) const;
    /// @return the bytes of a range that is on the flash, as a boot loader reads them, through the ECC.
    std::vector<char> Read(const FlashRange &range) const;

    /// @return an offset in the flash as one on the chip.
    std::uint64_t OnChip(std::int64_t offset) const { return static_cast<std::uint64_t>(m_offset + offset); }
    /// @return an offset on the chip as one in the flash.
    std::int64_t FromChip(std::uint64_t offset) const { return static_cast<std::int64_t>(offset) - m_offset; }

private:
    const NandChip &m_chip;
    const std::vector<SimDevice> &m_devices;
    std::int64_t m_offset;
    std::int64_t m_size;
    bool m_hasDevice;
};

/// @return whether the seal of a boot environment block is that of its bytes.
bool HasValidSeal(const std::vector<char> &environment);
