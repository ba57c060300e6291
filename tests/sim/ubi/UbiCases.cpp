#include "UbiCases.h"

#include "ubi/UbiMedia.h"

#include <cerrno>

namespace {

constexpr std::uint32_t kPebSize = 128 * 1024;
constexpr std::uint32_t kVidHeaderOffset = 512;
constexpr std::uint32_t kDataOffset = 2048;

constexpr UbiPlace kEc = UbiPlace::EcHeader;
constexpr UbiPlace kVid = UbiPlace::VidHeader;
constexpr UbiPlace kRecord = UbiPlace::Record;
constexpr UbiPlace kData = UbiPlace::Data;
constexpr bool kOpen = false;  ///< the CRC no longer fits
constexpr bool kSealed = true; ///< the CRC fits the damage

/// Both copies of the volume table.
std::vector<UbiPatch> BothRecords(std::uint32_t offset, std::uint8_t flipped, bool isSealed) {
    return {{kRecord, 0, offset, flipped, isSealed}, {kRecord, 1, offset, flipped, isSealed}};
}

/// Damage that costs a PEB, whatever field it is in.
UbiCase Broken(const std::string &name, UbiPlace place, std::uint32_t peb, std::uint32_t offset) {
    return {name, "two", {{place, peb, offset, 0x01, kOpen}}, 0, false, 0, ""};
}

UbiCase Sealed(const std::string &name, UbiPlace place, std::uint32_t peb, std::uint32_t offset, std::uint8_t flipped,
               int error, const std::string &reason) {
    return {name, "two", {{place, peb, offset, flipped, kSealed}}, 0, false, error, reason};
}

} // namespace

const std::vector<PartitionCase> kUbiPartitions = {{128, {}}, {48, {2, 3, 17}}, {16, {}}, {200, {0, 100}}};

// Volume 0 of "two" is dynamic and has LEBs in PEBs 2 to 4, volume 1 is static and has them in PEBs 5 and 6.
const std::vector<UbiCase> kUbiCases = {
    // Whole images on partitions of all sizes.
    {"intact", "two", {}, 0, false, 0, ""},
    {"few-spare", "two", {}, 1, false, 0, ""},
    {"no-spare", "two", {}, 2, false, 0, ""},
    {"large", "two", {}, 3, false, 0, ""},
    {"aligned", "aligned", {}, 0, false, 0, ""},
    {"files", "files", {}, 0, false, 0, ""},
    {"files-tight", "files", {}, 1, false, 0, ""},
    {"huge", "huge", {}, 0, false, ENOSPC, "the volumes leave none"},
    {"huge-bad", "huge", {}, 1, false, EINVAL, "reserved_pebs, which is more than the partition has"},
    {"big", "big", {}, 0, false, 0, ""},
    {"tight", "tight", {}, 1, false, ENOSPC, "the volumes need 46 PEBs, and 45 can be used"},
    {"tight-fits", "tight", {}, 0, false, 0, ""},
    {"page-headers", "page-headers", {}, 0, false, EINVAL, "vid_hdr_offset of the EC header is 2048 and has to be 512"},
    {"large-pages", "large-pages", {}, 0, false, EINVAL, "vid_hdr_offset of the EC header is 1024"},
    {"small-blocks", "small-blocks", {}, 0, false, 0, ""},
    {"noise", "noise", {}, 0, false, EINVAL, "there is no volume table"},
    {"erased", "erased", {}, 0, false, 0, ""},
    {"erased-bad", "erased", {}, 1, false, 0, ""},
    {"raw", "two", {}, 0, true, EINVAL, "both copies"},
    {"raw-files", "files", {}, 1, true, EINVAL, "both copies"},

    // A byte of each field, and the CRC doesn't fit.
    Broken("ec-magic", kEc, 3, 0),
    Broken("ec-version", kEc, 3, 4),
    Broken("ec-padding1", kEc, 3, 5),
    Broken("ec-ec", kEc, 3, 15),
    Broken("ec-vid-hdr-offset", kEc, 3, 19),
    Broken("ec-data-offset", kEc, 3, 23),
    Broken("ec-image-seq", kEc, 3, 27),
    Broken("ec-padding2", kEc, 3, 28),
    Broken("ec-crc", kEc, 3, 63),
    Broken("vid-magic", kVid, 3, 0),
    Broken("vid-version", kVid, 3, 4),
    Broken("vid-type", kVid, 3, 5),
    Broken("vid-copy-flag", kVid, 3, 6),
    Broken("vid-compat", kVid, 3, 7),
    Broken("vid-vol-id", kVid, 3, 11),
    Broken("vid-lnum", kVid, 3, 15),
    Broken("vid-padding1", kVid, 3, 16),
    Broken("vid-data-size", kVid, 5, 23),
    Broken("vid-used-ebs", kVid, 5, 27),
    Broken("vid-data-pad", kVid, 5, 31),
    Broken("vid-data-crc", kVid, 6, 35),
    Broken("vid-padding2", kVid, 3, 36),
    Broken("vid-sqnum", kVid, 3, 47),
    Broken("vid-padding3", kVid, 3, 48),
    Broken("vid-crc", kVid, 3, 63),
    Broken("record-reserved-pebs", kRecord, 0, 3),
    Broken("record-crc", kRecord, 1, 171),
    Broken("layout-ec", kEc, 0, 63),
    Broken("layout-vid", kVid, 1, 63),
    Broken("data", kData, 5, 100),
    {"both-headers", "two", {{kEc, 5, 63, 0x01, kOpen}, {kVid, 5, 63, 0x01, kOpen}}, 0, false, 0, ""},
    {"both-records", "two", BothRecords(20, 0x01, kOpen), 0, false, EINVAL, "both copies of the volume table"},
    {"both-layout-vids",
     "two",
     {{kVid, 0, 63, 0x01, kOpen}, {kVid, 1, 63, 0x01, kOpen}},
     0,
     false,
     EINVAL,
     "there is no volume table"},
    {"corrupted-limit",
     "two",
     {{kVid, 2, 63, 0x01, kOpen}, {kVid, 3, 63, 0x01, kOpen}},
     1,
     false,
     EINVAL,
     "2 PEBs have data under a damaged VID header"},
    {"corrupted-below-limit", "two", {{kVid, 2, 63, 0x01, kOpen}, {kVid, 3, 63, 0x01, kOpen}}, 0, false, 0, ""},

    // A byte of each field, and the CRC fits again.
    Sealed("sealed-ec-version", kEc, 3, 4, 0x03, EINVAL, "PEB 3: version of the EC header is 2"),
    Sealed("sealed-ec-padding1", kEc, 3, 5, 0x01, 0, ""),
    Sealed("sealed-ec-ec", kEc, 3, 15, 0xFF, 0, ""),
    Sealed("sealed-ec-ec-above-limit", kEc, 3, 12, 0x80, EINVAL, "the erase counter is above the limit"),
    Sealed("sealed-ec-vid-hdr-offset", kEc, 3, 18, 0x04, EINVAL, "vid_hdr_offset of the EC header is 1536"),
    Sealed("sealed-ec-data-offset", kEc, 3, 22, 0x10, EINVAL, "data_offset of the EC header is 6144"),
    Sealed("sealed-ec-image-seq", kEc, 3, 24, 0x01, EINVAL, "image_seq"),
    {"sealed-ec-image-seq-0",
     "two",
     {{kEc, 3, 24, 0x12, kSealed},
      {kEc, 3, 25, 0x34, kSealed},
      {kEc, 3, 26, 0x56, kSealed},
      {kEc, 3, 27, 0x78, kSealed}},
     0,
     false,
     0,
     ""},
    Sealed("sealed-vid-version", kVid, 3, 4, 0x03, 0, ""),
    Sealed("sealed-vid-type", kVid, 3, 5, 0x03, EINVAL, "inconsistent at"),
    Sealed("sealed-vid-type-unknown", kVid, 3, 5, 0x05, EINVAL, "inconsistent at vol_type"),
    Sealed("sealed-vid-copy-flag", kVid, 3, 6, 0x01, EINVAL, "inconsistent at data_size"),
    Sealed("sealed-vid-copy-flag-unknown", kVid, 3, 6, 0x02, EINVAL, "inconsistent at copy_flag"),
    Sealed("sealed-vid-compat", kVid, 3, 7, 0x01, EINVAL, "inconsistent at compat"),
    Sealed("sealed-vid-vol-id-gone", kVid, 3, 11, 0x40, 0, ""),
    Sealed("sealed-vid-vol-id-unknown", kVid, 3, 10, 0x01, EINVAL, "inconsistent at vol_id"),
    Sealed("sealed-vid-vol-id-other", kVid, 3, 11, 0x01, EINVAL, ""),
    Sealed("sealed-vid-lnum-twice", kVid, 3, 15, 0x01, EINVAL, "with the same sequence number"),
    Sealed("sealed-vid-lnum-beyond", kVid, 4, 15, 0x0A, EINVAL, "disagree with the volume table"),
    Sealed("sealed-vid-lnum-negative", kVid, 4, 12, 0x80, EINVAL, "inconsistent at lnum"),
    Sealed("sealed-vid-lnum-static", kVid, 6, 15, 0x04, EINVAL, "inconsistent at lnum"),
    Sealed("sealed-vid-padding1", kVid, 3, 16, 0x01, 0, ""),
    Sealed("sealed-vid-data-size", kVid, 5, 23, 0x01, EINVAL, "inconsistent at data_size"),
    Sealed("sealed-vid-data-size-last", kVid, 6, 23, 0x01, 0, ""),
    Sealed("sealed-vid-data-size-dynamic", kVid, 3, 23, 0x01, EINVAL, "inconsistent at data_size"),
    Sealed("sealed-vid-used-ebs", kVid, 6, 27, 0x01, EINVAL, ""),
    Sealed("sealed-vid-used-ebs-dynamic", kVid, 3, 27, 0x01, EINVAL, "inconsistent at used_ebs"),
    Sealed("sealed-vid-data-pad", kVid, 3, 31, 0x01, EINVAL, "disagrees with others of volume 0"),
    Sealed("sealed-vid-data-pad-half", kVid, 3, 29, 0x01, EINVAL, "inconsistent at data_pad"),
    Sealed("sealed-vid-data-crc", kVid, 6, 35, 0x01, 0, ""),
    Sealed("sealed-vid-data-crc-dynamic", kVid, 3, 35, 0x01, EINVAL, "inconsistent at data_crc"),
    Sealed("sealed-vid-padding2", kVid, 3, 36, 0x01, 0, ""),
    Sealed("sealed-vid-sqnum", kVid, 3, 47, 0x01, 0, ""),
    Sealed("sealed-vid-padding3", kVid, 3, 48, 0x01, 0, ""),
    {"newer-twin", "two", {{kVid, 3, 15, 0x01, kSealed}, {kVid, 3, 47, 0x10, kSealed}}, 0, false, 0, ""},
    {"newer-layout", "two", {{kVid, 0, 15, 0x01, kSealed}, {kVid, 0, 47, 0x10, kSealed}}, 0, false, 0, ""},
    {"copied-badly",
     "two",
     {{kVid, 3, 6, 0x01, kSealed},
      {kVid, 3, 22, 0x01, kSealed},
      {kVid, 3, 15, 0x01, kSealed},
      {kVid, 3, 47, 0x10, kSealed}},
     0,
     false,
     0,
     ""},
    {"static-lacks-leb", "two", {{kEc, 6, 0, 0x01, kOpen}, {kVid, 6, 0, 0x01, kOpen}}, 0, false, 0, ""},
    // Volume IDs of internal volumes begin at 0x7FFFEFFF, that of the volume table.
    {"foreign-delete", "two", {{kVid, 1, 10, 0x10, kSealed}, {kVid, 1, 7, 0x04, kSealed}}, 0, false, 0, ""},
    {"foreign-preserve", "two", {{kVid, 1, 10, 0x10, kSealed}, {kVid, 1, 7, 0x01, kSealed}}, 0, false, 0, ""},
    {"foreign-reject", "two", {{kVid, 1, 10, 0x10, kSealed}}, 0, false, EINVAL, "that the kernel doesn't know"},
    {"foreign-read-only",
     "two",
     {{kVid, 1, 10, 0x10, kSealed}, {kVid, 1, 7, 0x07, kSealed}},
     0,
     false,
     ENOSPC,
     "no PEB is free for a copy"},

    // A byte of each field of the volume table's first record, in both copies.
    {"sealed-reserved-pebs", "two", BothRecords(3, 0x02, kSealed), 0, false, 0, ""},
    {"sealed-reserved-pebs-few", "two", BothRecords(3, 0x09, kSealed), 0, false, EINVAL,
     "disagree with the volume table"},
    {"sealed-reserved-pebs-0", "two", BothRecords(3, 0x08, kSealed), 0, false, EINVAL, "reserved_pebs of volume 0"},
    {"sealed-reserved-pebs-many", "two", BothRecords(2, 0x01, kSealed), 0, false, EINVAL,
     "more than the partition has"},
    {"sealed-alignment", "two", BothRecords(7, 0x02, kSealed), 0, false, EINVAL, "alignment of volume 0"},
    {"sealed-alignment-0", "two", BothRecords(7, 0x01, kSealed), 0, false, EINVAL, "alignment of volume 0"},
    {"sealed-data-pad", "two", BothRecords(11, 0x01, kSealed), 0, false, EINVAL, "data_pad of volume 0"},
    {"sealed-type", "two", BothRecords(12, 0x03, kSealed), 0, false, EINVAL, "disagree with the volume table"},
    {"sealed-type-unknown", "two", BothRecords(12, 0x04, kSealed), 0, false, EINVAL, "vol_type of volume 0"},
    {"sealed-upd-marker", "two", BothRecords(13, 0x01, kSealed), 0, false, 0, ""},
    {"sealed-upd-marker-unknown", "two", BothRecords(13, 0x02, kSealed), 0, false, EINVAL, "upd_marker of volume 0"},
    {"sealed-name-len", "two", BothRecords(15, 0x01, kSealed), 0, false, EINVAL, "name of volume 0"},
    {"sealed-name", "two", BothRecords(16, 0x20, kSealed), 0, false, 0, ""},
    {"sealed-name-empty", "two", BothRecords(16, 'r', kSealed), 0, false, EINVAL, "name of volume 0"},
    {"sealed-flags", "two", BothRecords(144, 0x01, kSealed), 0, false, 0, ""},
    {"sealed-padding", "two", BothRecords(145, 0x01, kSealed), 0, false, 0, ""},
    {"copies-differ", "two", {{kRecord, 1, 16, 0x20, kSealed}}, 0, false, 0, ""},
    {"first-copy-inconsistent", "two", {{kRecord, 0, 13, 0x02, kSealed}}, 0, false, EINVAL, "upd_marker of volume 0"},
    {"table-tail", "two", {{kData, 1, 22020, 0xFF, kOpen}}, 0, false, 0, ""},
};

std::vector<std::uint8_t> Patched(std::vector<std::uint8_t> image, const UbiCase &ubiCase) {
    struct Covered {
        std::uint32_t offset;
        std::uint32_t length;
    };
    const auto covered = [](UbiPlace place) -> Covered {
        switch (place) {
        case UbiPlace::EcHeader:
            return {0, kUbiHeaderSize};
        case UbiPlace::VidHeader:
            return {kVidHeaderOffset, kUbiHeaderSize};
        case UbiPlace::Record:
            return {kDataOffset, kUbiVolumeRecordSize};
        case UbiPlace::Data:
            break;
        }
        return {kDataOffset, 0};
    };
    for (const UbiPatch &patch : ubiCase.patches) {
        const Covered part = covered(patch.place);
        std::uint8_t *bytes = &image.at(std::size_t{patch.peb} * kPebSize + part.offset);
        bytes[patch.offset] ^= patch.flipped;
        if (!patch.isSealed)
            continue;
        const std::uint32_t crc = UbiCrc(bytes, part.length - 4);
        for (std::uint32_t i = 0; i < 4; ++i)
            bytes[part.length - 4 + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
    }
    return image;
}
