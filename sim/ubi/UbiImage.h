#pragma once

#include "ubi/UbiAttach.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// An image file as `ubinize` makes it, looked at by itself.
struct UbiImage {
    bool isUbi = false; ///< it begins with an EC header; without that nothing else is known

    // Offsets of the first EC header, in bytes.
    std::uint32_t vidHeaderOffset = 0;
    std::uint32_t dataOffset = 0;
    /// Erase block size: distance of the first two EC headers; nothing when there is only one.
    std::optional<std::uint32_t> pebSize;

    /// PEBs of the chip's size that don't begin with a valid EC header, by number.
    std::vector<std::uint32_t> damagedPebs;
    std::uint64_t pebs = 0; ///< PEBs of the chip's size
    bool isWhole = false;   ///< its length is a multiple of the chip's erase block size
};

/// Looks at an image file. Takes any bytes.
/// @param geometry of the chip that it is for
UbiImage ReadUbiImage(const std::uint8_t *bytes, std::uint64_t length, const UbiGeometry &geometry);

/// @return whether the image has the header offsets and the erase block size that the kernel expects on a chip.
bool FitsChip(const UbiImage &image, const UbiGeometry &geometry);

/// @return the numbers of LEBs below the volume's highest one that nothing is in.
std::vector<std::uint32_t> MissingLebs(const UbiVolume &volume);

/// @return LEBs of a volume whose data has a CRC in the VID header that it doesn't fit: content of a static volume.
std::vector<std::uint32_t> DamagedLebs(const UbiVolume &volume, const PebReader &pebs, const UbiGeometry &geometry);

/// @return LEBs of a volume that can't be read without uncorrectable ECC errors.
std::vector<std::uint32_t> UnreadableLebs(const UbiVolume &volume, const PebReader &pebs, const UbiGeometry &geometry);

/// Compares a partition with what it has to be, such as the one that an undisturbed run leaves. Erase counters, the
/// image sequence number and the places of LEBs don't count, nor does a volume's growth at attaching.
/// @return what is wrong, without a full stop; empty when both attach with the same volumes and mapped LEBs.
std::string AttachmentLoss(const UbiAttachment &wanted, const UbiAttachment &found);

/// @return how the data of volumes differs between two partitions without an AttachmentLoss; empty when it does not.
std::string DataLoss(const UbiAttachment &wanted, const PebReader &wantedPebs, const UbiAttachment &found,
                     const PebReader &foundPebs, const UbiGeometry &geometry);

/// What the superblock of a UBIFS file system says.
struct UbifsSuperblock {
    std::uint32_t minIoSize = 0;   ///< bytes
    std::uint32_t lebSize = 0;     ///< bytes
    std::uint32_t lebCount = 0;    ///< LEBs that it needs
    std::uint32_t maxLebCount = 0; ///< LEBs that it can grow to
    bool hasSpaceFixup = false;    ///< free space is rewritten at the first mount (mkfs.ubifs -F)

    /// @return why the kernel doesn't mount it from a volume, without a full stop; empty when these numbers fit.
    std::string Problem(const UbiVolume &volume, const UbiGeometry &geometry) const;
};

/// @return the superblock of the file system on a volume; nothing when LEB 0 doesn't begin with one.
std::optional<UbifsSuperblock> ReadUbifs(const UbiVolume &volume, const PebReader &pebs, const UbiGeometry &geometry);
