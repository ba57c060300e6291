#include "base/Bytes.h"
#include "base/Text.h"
#include "ubi/UbiImage.h"
#include "verdict/Checks.h"
#include "verdict/UbiFacts.h"

#include <algorithm>

namespace {

std::string Of(const UbiVolume &volume, const UbiPartition &partition) {
    return "volume \"" + volume.name + "\" of " + partition.name;
}

bool IsUntouched(const RunFacts &facts, const UbiPartition &partition) {
    const std::vector<std::uint32_t> blocks = facts.flash.GoodBlocks(partition.range);
    return std::none_of(blocks.begin(), blocks.end(), [&](std::uint32_t block) { return facts.chip.IsTouched(block); });
}

/// @return LEBs with pages that are programmed and hold nothing but 0xFF: UBIFS takes them for free.
std::int64_t SpoiltLebs(const UbiVolume &volume, const UbiPartition &partition, const UbiGeometry &geometry) {
    std::int64_t spoilt = 0;
    std::vector<std::uint8_t> page(geometry.pageSize);
    for (const auto &[number, leb] : volume.lebs) {
        const std::uint32_t last = geometry.pebSize - geometry.pageSize;
        partition.pebs.Read(leb.peb, last, geometry.pageSize, page.data());
        if (partition.pebs.IsProgrammed(leb.peb, last) && IsErased(page.data(), page.size()))
            ++spoilt;
    }
    return spoilt;
}

void CheckVolume(const RunFacts &facts, const UbiPartition &partition, const UbiVolume &volume,
                 std::vector<Finding> &findings) {
    const UbiGeometry geometry = UbiGeometry::Of(facts.chip);
    const auto add = [&](FindingId id, const std::string &happens) {
        findings.push_back(ForLine(partition.line, id, happens));
    };
    const std::string name = Of(volume, partition);
    const auto damaged = static_cast<std::int64_t>(DamagedLebs(volume, partition.pebs, geometry).size());
    const auto unreadable = static_cast<std::int64_t>(UnreadableLebs(volume, partition.pebs, geometry).size());
    if (volume.hasUpdateMarker)
        add(FindingId::UbiUpdateMarker, name + " has the marker of an interrupted update and can't be read");
    if (volume.isCorrupted || damaged > 0)
        add(FindingId::UbiDamagedVolume,
            name + (volume.isCorrupted ? " lacks LEBs" : " has " + Count(damaged, "LEB") + " with a wrong CRC"));
    if (unreadable > 0)
        add(FindingId::UbiUnreadable, Count(unreadable, "LEB") + " of " + name + " can only be read with ECC errors");
    const auto ubifs = ReadUbifs(volume, partition.pebs, geometry);
    if (!ubifs)
        return;
    const std::int64_t spoilt = ubifs->hasSpaceFixup ? 0 : SpoiltLebs(volume, partition, geometry);
    // Without the chip's own ECC, pages of 0xFF that were programmed raw are as good as erased ones.
    if (spoilt > 0 && facts.chip.EccMode() == Ecc::Chip)
        add(FindingId::UbifsFreeSpace, Count(spoilt, "LEB") + " of " + name +
                                           " end in programmed pages of 0xFF, which UBIFS takes for erased and writes");
}

void CheckPartition(const RunFacts &facts, const UbiPartition &partition, std::vector<Finding> &findings) {
    const UbiAttachment &ubi = partition.attachment;
    const auto add = [&](FindingId id, const std::string &happens) {
        findings.push_back(ForLine(partition.line, id, happens));
    };
    if (IsUntouched(facts, partition)) {
        add(FindingId::UbiUntouched, "no block of " + partition.name + " was erased or written");
        return;
    }
    // An image that isn't UBI's has a finding of its own.
    if (!ubi.IsAttached() && !IsUbiImage(facts, partition.line))
        return;
    if (!ubi.IsAttached()) {
        add(FindingId::UbiRefused,
            "the kernel does not attach " + partition.name + " (" + ErrnoName(ubi.error) + "): " + ubi.reason);
        return;
    }
    if (ubi.volumes.empty())
        add(FindingId::UbiEmpty, partition.name + " has no volume after the line");
    if (ubi.isReadOnly)
        add(FindingId::UbiReadOnly, "the kernel attaches " + partition.name + " read-only");
    if (ubi.pebs.corrupted > 0)
        add(FindingId::UbiCorrupted,
            Count(ubi.pebs.corrupted, "PEB") + " of " + partition.name + " have data under a damaged VID header");
    if (ubi.reservedForBad < ubi.wantedForBad)
        add(FindingId::UbiReserve, "the kernel reserves " + Count(ubi.reservedForBad, "PEB") + " of " + partition.name +
                                       " for bad blocks and wants " + std::to_string(ubi.wantedForBad));
    for (const UbiVolume &volume : ubi.volumes)
        CheckVolume(facts, partition, volume, findings);
}

} // namespace

/// What the kernel makes of each partition that lines gave to UBI.
std::vector<Finding> CheckUbiPartitions(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (const UbiPartition &partition : facts.ubi) {
        // The last line's failure is reported already.
        const auto isLine = [&](const LineVerdict &verdict) { return verdict.line.number == partition.line.number; };
        const auto line = std::find_if(facts.lines.begin(), facts.lines.end(), isLine);
        if (line->result == LineResult::Clean)
            CheckPartition(facts, partition, findings);
    }
    return findings;
}
