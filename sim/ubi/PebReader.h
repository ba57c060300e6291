#pragma once

#include "chip/NandChip.h"

#include <cstdint>
#include <vector>

/// Sizes that decide where UBI keeps its headers, in bytes.
struct UbiGeometry {
    std::uint32_t pebSize = 0;     ///< physical erase block
    std::uint32_t pageSize = 0;    ///< smallest unit of data
    std::uint32_t subPageSize = 0; ///< smallest unit of a header

    static UbiGeometry Of(const NandChip &chip);

    /// Offsets that the kernel takes when nobody tells it others.
    std::uint32_t VidHeaderOffset() const;
    std::uint32_t DataOffset() const;
    /// @return data bytes of an LEB; 0 when the headers leave no room.
    std::uint32_t LebSize() const;
};

constexpr std::uint32_t RoundUp(std::uint32_t bytes, std::uint32_t unit) {
    return unit == 0 ? bytes : (bytes + unit - 1) / unit * unit;
}

/// What UBI reads its physical erase blocks (PEBs) from.
class PebReader {
public:
    virtual std::uint32_t Pebs() const = 0;
    virtual bool IsBad(std::uint32_t peb) const = 0;
    /// @param offset,length a part of the PEB, in bytes
    virtual NandChip::ReadResult Read(std::uint32_t peb, std::uint32_t offset, std::uint32_t length,
                                      std::uint8_t *data) const = 0;

protected:
    ~PebReader() = default;
};

/// An image file on a partition without bad blocks, where nothing else is.
class ImagePebs final : public PebReader {
public:
    /// @param bytes outlive the reader; a part of a PEB at their end is one whose rest is erased, as a write leaves it
    /// @param pebs size of the partition; one that is smaller than the image has no effect
    ImagePebs(const std::uint8_t *bytes, std::uint64_t length, std::uint32_t pebSize, std::uint32_t pebs = 0);

    std::uint32_t Pebs() const override;
    bool IsBad(std::uint32_t peb) const override;
    NandChip::ReadResult Read(std::uint32_t peb, std::uint32_t offset, std::uint32_t length,
                              std::uint8_t *data) const override;

private:
    const std::uint8_t *m_bytes;
    std::uint64_t m_length;
    std::uint32_t m_pebs;
    std::uint32_t m_pebSize;
};

/// The blocks of a partition, read through the ECC.
class PartitionPebs final : public PebReader {
public:
    /// @param chip outlives the reader
    /// @param offset,size the partition in bytes of the chip; what isn't on the chip is left out
    PartitionPebs(const NandChip &chip, std::uint64_t offset, std::uint64_t size);

    std::uint32_t Pebs() const override;
    bool IsBad(std::uint32_t peb) const override;
    NandChip::ReadResult Read(std::uint32_t peb, std::uint32_t offset, std::uint32_t length,
                              std::uint8_t *data) const override;

    /// @return whether the pages of a part of a PEB were programmed since its last erase, be it with 0xFF.
    bool IsProgrammed(std::uint32_t peb, std::uint32_t offset) const;

private:
    const NandChip *m_chip;
    std::uint32_t m_firstBlock;
    std::uint32_t m_pebs;
};
