#include "base/Text.h"
#include "ubi/UbiImage.h"
#include "verdict/Checks.h"
#include "verdict/UbiFacts.h"

#include <cstdint>

namespace {

/// The device that the updater releases before it runs ubiformat, whatever device the line names.
constexpr const char *kReleasedDevice = "/dev/mtd9";

std::string Offsets(std::uint32_t vidHeaderOffset, std::uint32_t dataOffset) {
    return "VID header offset " + std::to_string(vidHeaderOffset) + " and data offset " + std::to_string(dataOffset);
}

std::string UbinizeOptions(const UbiGeometry &geometry) {
    return "ubinize -m " + std::to_string(geometry.pageSize) + " -s " + std::to_string(geometry.subPageSize) + " -p " +
           std::to_string(geometry.pebSize);
}

/// What the kernel would do with an image on a partition where all other blocks are good and erased; on one as large as
/// the chip when the line names none.
void CheckContents(const UpdateLine &line, const std::vector<std::uint8_t> &bytes, const RunFacts &facts,
                   std::vector<Finding> &findings) {
    const UbiGeometry geometry = UbiGeometry::Of(facts.chip);
    const std::optional<FlashRange> range = facts.flash.RangeOf(line);
    const std::uint32_t pebs =
        range ? static_cast<std::uint32_t>(facts.flash.Blocks(*range).size()) : facts.chip.Geometry().Blocks();
    const ImagePebs reader(bytes.data(), bytes.size(), geometry.pebSize, pebs);
    const UbiAttachment ubi = AttachUbi(reader, geometry, {facts.chip.Geometry().Blocks(), 0});
    if (!ubi.IsAttached()) {
        findings.push_back(ForLine(line, FindingId::UbiDamagedImage, "the kernel refuses the image: " + ubi.reason));
        return;
    }
    for (const UbiVolume &volume : ubi.volumes) {
        const auto missing = static_cast<std::int64_t>(MissingLebs(volume).size());
        if (missing > 0 || volume.isCorrupted)
            findings.push_back(ForLine(line, FindingId::UbiMissingLebs,
                                       "volume \"" + volume.name + "\" lacks " +
                                           (missing > 0 ? Count(missing, "LEB") : "LEBs at its end") +
                                           " in the image"));
        const auto ubifs = ReadUbifs(volume, reader, geometry);
        const std::string problem = ubifs ? ubifs->Problem(volume, geometry) : "";
        if (!problem.empty())
            findings.push_back(ForLine(line, FindingId::UbifsMismatch,
                                       "the UBIFS in volume \"" + volume.name + "\" can't be mounted: " + problem));
    }
}

void CheckImage(const RunFacts &facts, const UpdateLine &line, std::vector<Finding> &findings) {
    const std::vector<std::uint8_t> bytes = UbiImageBytes(facts, line);
    const UbiGeometry geometry = UbiGeometry::Of(facts.chip);
    const UbiImage image = ReadUbiImage(bytes.data(), bytes.size(), geometry);
    if (!FitsChip(image, geometry)) {
        findings.push_back(ForLine(line, FindingId::UbiGeometry,
                                   "the image has erase blocks of " +
                                       std::to_string(image.pebSize.value_or(geometry.pebSize)) + " bytes, " +
                                       Offsets(image.vidHeaderOffset, image.dataOffset) + "; this chip has " +
                                       std::to_string(geometry.pebSize) + " bytes, " +
                                       Offsets(geometry.VidHeaderOffset(), geometry.DataOffset()),
                                   "make the image with " + UbinizeOptions(geometry)));
        return;
    }
    if (!image.isWhole)
        findings.push_back(ForLine(line, FindingId::UbiLength, "the image ends within an erase block"));
    CheckContents(line, bytes, facts, findings);
}

void CheckDevice(const RunFacts &facts, const LineVerdict &verdict, std::vector<Finding> &findings) {
    const UpdateLine &line = verdict.line;
    const std::optional<FlashRange> range = facts.RangeOf(verdict);
    // A failed line has a finding that names the device already.
    if (!range && verdict.result == LineResult::Failed)
        return;
    if (!range) {
        findings.push_back(ForLine(line, FindingId::NotMtd, line.tokens[1] + " is no MTD device of this chip"));
        return;
    }
    if (line.tokens[1] != kReleasedDevice)
        findings.push_back(
            ForLine(line, FindingId::OtherDevice,
                    std::string("the updater releases ") + kReleasedDevice + " and not " + line.tokens[1]));
    const auto blocks = static_cast<std::int64_t>(facts.flash.GoodBlocks(*range).size());
    const std::int64_t eraseSize = facts.flash.EraseSize();
    const std::int64_t wanted = (facts.ImageSize(line).value_or(0) + eraseSize - 1) / eraseSize;
    if (wanted > blocks)
        findings.push_back(
            ForLine(line, FindingId::UbiTooLarge,
                    "the image has " + Count(wanted, "block") + ", the partition " + Count(blocks, "good block")));
}

} // namespace

/// Images that are UBI's or have to be: those of `ubiformat`, and others that begin with a header of UBI.
std::vector<Finding> CheckUbiImages(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (const LineVerdict &verdict : facts.lines) {
        const UpdateLine &line = verdict.line;
        const bool isFormat = line.kind == LineKind::Ubiformat;
        if (!line.isComplete || !facts.ImageSize(line) || !(isFormat || line.WritesImage()))
            continue;
        if (isFormat)
            CheckDevice(facts, verdict, findings);
        if (IsUbiImage(facts, line))
            CheckImage(facts, line, findings);
        else if (isFormat)
            findings.push_back(ForLine(line, FindingId::NotUbi, "the image doesn't begin with a header of UBI"));
    }
    return findings;
}
