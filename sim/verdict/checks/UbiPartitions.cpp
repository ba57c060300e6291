#include "base/Bytes.h"
#include "base/Text.h"
#include "ubi/UbiImage.h"
#include "ubi/UbiMedia.h"
#include "verdict/Checks.h"
#include "verdict/UbiFacts.h"

#include <algorithm>
#include <set>

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

/// @return the programs beside the updater that changed a partition: "ubiformat, bootvars".
std::string ChangersOf(const RunFacts &facts, const UbiPartition &partition) {
    std::set<std::string> names;
    for (const std::uint32_t block : facts.flash.Blocks(partition.range)) {
        const auto found = facts.changers.find(block);
        if (found != facts.changers.end())
            names.insert(found->second.begin(), found->second.end());
    }
    return JoinWords({names.begin(), names.end()}, ", ");
}

/// @return how what the kernel reads from a partition differs from the image of its line; empty when it does not.
std::string LossOf(const RunFacts &facts, const UbiPartition &partition) {
    const UbiGeometry geometry = UbiGeometry::Of(facts.chip);
    const std::vector<std::uint8_t> bytes = UbiImageBytes(facts, partition.line);
    if (!FitsChip(ReadUbiImage(bytes.data(), bytes.size(), geometry), geometry))
        return {};
    const ImagePebs image(bytes.data(), bytes.size(), geometry.pebSize, partition.pebs.Pebs());
    const UbiAttachment wanted = AttachUbi(image, geometry, {facts.chip.Geometry().Blocks(), 0});
    const std::string loss = AttachmentLoss(wanted, partition.attachment);
    return !loss.empty() || !wanted.IsAttached()
               ? loss
               : DataLoss(wanted, image, partition.attachment, partition.pebs, geometry);
}

/// @return the PEBs that this run wrote with something else than UBI's: UBI erases them.
std::int64_t ForeignPebs(const RunFacts &facts, const UbiPartition &partition) {
    std::int64_t foreign = 0;
    const std::vector<std::uint32_t> blocks = facts.flash.Blocks(partition.range);
    for (std::uint32_t peb = 0; peb < blocks.size(); ++peb) {
        std::uint8_t start[kUbiHeaderSize];
        const std::int64_t offset = facts.flash.FromChip(std::uint64_t{blocks[peb]} * facts.chip.Geometry().eraseSize);
        const UpdateLine *writer = facts.WriterOf(offset); // a later line's own work is an overlap
        if (partition.pebs.IsBad(peb) || !facts.chip.IsTouched(blocks[peb]) || writer == nullptr ||
            writer->number != partition.line.number)
            continue;
        partition.pebs.Read(peb, 0, kUbiHeaderSize, start);
        foreign += EcHeader().Parse(start) == UbiHeaderState::NoMagic ? 1 : 0;
    }
    return foreign;
}

/// What a ubiformat line and all that ran later left of its image. Images of other lines are compared page by page.
void CheckContents(const RunFacts &facts, const UbiPartition &partition, std::vector<Finding> &findings) {
    const std::int64_t foreign = ForeignPebs(facts, partition);
    const std::string loss = LossOf(facts, partition);
    const std::string changers = ChangersOf(facts, partition);
    const std::string culprits = changers.empty() ? "" : "; changed by " + changers;
    if (!loss.empty())
        findings.push_back(
            ForLine(partition.line, FindingId::Spoiled,
                    "UBI on " + partition.name + " does not hold the image: " + loss + culprits,
                    "keep other programs off the partition, and use a ubiformat that writes this image"));
    if (foreign > 0)
        findings.push_back(ForLine(
            partition.line, FindingId::Spoiled,
            Count(foreign, "block") + " of " + partition.name + (foreign == 1 ? " holds" : " hold") + " data that " +
                (foreign == 1 ? "is" : "are") + " not UBI's, and UBI erases such blocks" + culprits,
            "keep that data outside the partition, or in a UBI volume"));
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
    const std::size_t known = findings.size();
    for (const UbiVolume &volume : ubi.volumes)
        CheckVolume(facts, partition, volume, findings);
    const bool isOtherwiseSound = findings.size() == known && !ubi.volumes.empty();
    if (partition.line.kind == LineKind::Ubiformat && IsUbiImage(facts, partition.line) && isOtherwiseSound)
        CheckContents(facts, partition, findings);
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
