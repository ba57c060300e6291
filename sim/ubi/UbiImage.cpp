#include "ubi/UbiImage.h"

#include <algorithm>

namespace {

constexpr std::uint32_t kSmallestPeb = 2 * 256; ///< the smallest erase block that a chip has

bool IsEcHeader(const std::uint8_t *bytes) { return EcHeader().Parse(bytes) == UbiHeaderState::Valid; }

/// UBIFS has little-endian numbers.
std::uint32_t Little32(const std::uint8_t *bytes) {
    return bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 | std::uint32_t{bytes[3]} << 24;
}

} // namespace

UbiImage ReadUbiImage(const std::uint8_t *bytes, std::uint64_t length, const UbiGeometry &geometry) {
    UbiImage image;
    image.isWhole = length % geometry.pebSize == 0;
    image.pebs = length / geometry.pebSize;
    EcHeader first;
    if (length < kUbiHeaderSize || first.Parse(bytes) != UbiHeaderState::Valid)
        return image;
    image.isUbi = true;
    image.vidHeaderOffset = first.vidHeaderOffset;
    image.dataOffset = first.dataOffset;
    for (std::uint64_t place = kSmallestPeb; place + kUbiHeaderSize <= length && place <= UINT32_MAX; place *= 2) {
        if (IsEcHeader(bytes + place)) {
            image.pebSize = static_cast<std::uint32_t>(place);
            break;
        }
    }
    for (std::uint64_t peb = 0; peb < image.pebs; ++peb) {
        if (!IsEcHeader(bytes + peb * geometry.pebSize))
            image.damagedPebs.push_back(static_cast<std::uint32_t>(peb));
    }
    return image;
}

bool FitsChip(const UbiImage &image, const UbiGeometry &geometry) {
    return image.vidHeaderOffset == geometry.VidHeaderOffset() && image.dataOffset == geometry.DataOffset() &&
           image.pebSize.value_or(geometry.pebSize) == geometry.pebSize;
}

std::vector<std::uint32_t> MissingLebs(const UbiVolume &volume) {
    std::vector<std::uint32_t> missing;
    std::uint32_t next = 0;
    for (const auto &[number, leb] : volume.lebs) {
        for (; next < number; ++next)
            missing.push_back(next);
        next = number + 1;
    }
    return missing;
}

std::vector<std::uint32_t> DamagedLebs(const UbiVolume &volume, const PebReader &pebs, const UbiGeometry &geometry) {
    std::vector<std::uint32_t> damaged;
    std::vector<std::uint8_t> data;
    // The data of a dynamic volume changes without its VID header.
    for (const auto &[number, leb] : volume.isStatic ? volume.lebs : std::map<std::uint32_t, UbiLeb>()) {
        data.resize(leb.dataSize);
        pebs.Read(leb.peb, geometry.DataOffset(), leb.dataSize, data.data());
        if (UbiCrc(data.data(), data.size()) != leb.dataCrc)
            damaged.push_back(number);
    }
    return damaged;
}

std::vector<std::uint32_t> UnreadableLebs(const UbiVolume &volume, const PebReader &pebs, const UbiGeometry &geometry) {
    std::vector<std::uint32_t> unreadable;
    std::vector<std::uint8_t> data(volume.lebSize);
    for (const auto &[number, leb] : volume.lebs) {
        const auto result = pebs.Read(leb.peb, geometry.DataOffset(), volume.lebSize, data.data());
        if (result == NandChip::ReadResult::Uncorrectable)
            unreadable.push_back(number);
    }
    return unreadable;
}

std::string AttachmentLoss(const UbiAttachment &wanted, const UbiAttachment &found) {
    if (!wanted.IsAttached())
        return {};
    if (!found.IsAttached())
        return "the kernel does not attach it: " + found.reason;
    if (found.isReadOnly && !wanted.isReadOnly)
        return "the kernel attaches it read-only";
    for (const UbiVolume &volume : wanted.volumes) {
        const auto isSame = [&](const UbiVolume &other) {
            return other.id == volume.id && other.name == volume.name && other.isStatic == volume.isStatic &&
                   other.tablePebs == volume.tablePebs && other.alignment == volume.alignment;
        };
        const auto other = std::find_if(found.volumes.begin(), found.volumes.end(), isSame);
        if (other == found.volumes.end())
            return "volume \"" + volume.name + "\" is lost";
        const auto isSameLeb = [](const auto &a, const auto &b) { return a.first == b.first; };
        if (!std::equal(volume.lebs.begin(), volume.lebs.end(), other->lebs.begin(), other->lebs.end(), isSameLeb))
            return "volume \"" + volume.name + "\" has other LEBs";
        if (other->hasUpdateMarker && !volume.hasUpdateMarker)
            return "an update of volume \"" + volume.name + "\" was interrupted";
    }
    return found.volumes.size() == wanted.volumes.size() ? "" : "there are other volumes";
}

std::string DataLoss(const UbiAttachment &wanted, const PebReader &wantedPebs, const UbiAttachment &found,
                     const PebReader &foundPebs, const UbiGeometry &geometry) {
    for (std::size_t i = 0; i < wanted.volumes.size(); ++i) {
        const UbiVolume &volume = wanted.volumes[i];
        std::vector<std::uint8_t> data(volume.lebSize);
        std::vector<std::uint8_t> other(volume.lebSize);
        for (const auto &[number, leb] : volume.lebs) {
            const UbiLeb &now = found.volumes[i].lebs.at(number);
            const auto before = wantedPebs.Read(leb.peb, geometry.DataOffset(), volume.lebSize, data.data());
            const auto after = foundPebs.Read(now.peb, geometry.DataOffset(), volume.lebSize, other.data());
            if (data != other || (after == NandChip::ReadResult::Uncorrectable && before != after))
                return "volume \"" + volume.name + "\" has other data in LEB " + std::to_string(number);
        }
    }
    return {};
}

std::string UbifsSuperblock::Problem(const UbiVolume &volume, const UbiGeometry &geometry) const {
    const auto differs = [](const char *option, std::uint32_t found, std::uint32_t wanted) {
        return "it is made with " + std::string(option) + " " + std::to_string(found) + " and needs " +
               std::to_string(wanted);
    };
    if (minIoSize != geometry.pageSize)
        return differs("-m", minIoSize, geometry.pageSize);
    if (lebSize != volume.lebSize)
        return differs("-e", lebSize, volume.lebSize);
    if (lebCount > volume.reservedPebs)
        return "it needs " + std::to_string(lebCount) + " LEBs and the volume has " +
               std::to_string(volume.reservedPebs);
    return {};
}

std::optional<UbifsSuperblock> ReadUbifs(const UbiVolume &volume, const PebReader &pebs, const UbiGeometry &geometry) {
    constexpr std::uint32_t kNodeMagic = 0x06101831;
    constexpr std::uint8_t kSuperblockNode = 6;
    constexpr std::uint32_t kNodeSize = 4096;
    // Places in the superblock node.
    constexpr std::size_t kType = 20;
    constexpr std::size_t kFlags = 28;
    constexpr std::size_t kMinIoSize = 32;
    constexpr std::uint32_t kSpaceFixup = 0x04;

    const auto first = volume.lebs.find(0);
    if (first == volume.lebs.end() || volume.lebSize < kNodeSize)
        return {};
    std::uint8_t node[kMinIoSize + 16];
    pebs.Read(first->second.peb, geometry.DataOffset(), sizeof node, node);
    if (Little32(node) != kNodeMagic || node[kType] != kSuperblockNode)
        return {};
    UbifsSuperblock super;
    super.hasSpaceFixup = (Little32(node + kFlags) & kSpaceFixup) != 0;
    super.minIoSize = Little32(node + kMinIoSize);
    super.lebSize = Little32(node + kMinIoSize + 4);
    super.lebCount = Little32(node + kMinIoSize + 8);
    super.maxLebCount = Little32(node + kMinIoSize + 12);
    return super;
}
