#include "UbiCases.h"

#include "ubi/UbiMedia.h"

#include <cerrno>
#include <utility>

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

/// Patches of the image "two".
UbiCase Damaged(const std::string &name, std::vector<UbiPatch> patches, int error = 0, const std::string &reason = "",
                int partition = 0) {
    return {name, "two", std::move(patches), partition, false, error, reason};
}

/// Damage that costs a PEB, whatever field it is in.
UbiCase Broken(const std::string &name, UbiPlace place, std::uint32_t peb, std::uint32_t offset) {
    return Damaged(name, {{place, peb, offset, 0x01, kOpen}});
}

UbiCase Sealed(const std::string &name, UbiPlace place, std::uint32_t peb, std::uint32_t offset, std::uint8_t flipped,
               int error = 0, const std::string &reason = "") {
    return Damaged(name, {{place, peb, offset, flipped, kSealed}}, error, reason);
}

/// A field of the first record in both copies of the volume table.
UbiCase Record(const std::string &name, std::uint32_t offset, std::uint8_t flipped, int error = 0,
               const std::string &reason = "") {
    return Damaged(name, BothRecords(offset, flipped, kSealed), error, reason);
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

    // A byte that the CRC covers or is, and the CRC doesn't fit.
    Broken("ec-magic", kEc, 3, 0),
    Broken("ec-ec", kEc, 3, 15),
    Broken("ec-padding2", kEc, 3, 28),
    Broken("ec-crc", kEc, 3, 63),
    Broken("vid-magic", kVid, 3, 0),
    Broken("vid-compat", kVid, 3, 7),
    Broken("vid-lnum", kVid, 3, 15),
    Broken("vid-padding3", kVid, 3, 48),
    Broken("vid-crc", kVid, 3, 63),
    Broken("record-reserved-pebs", kRecord, 0, 3),
    Broken("record-crc", kRecord, 1, 171),
    Broken("layout-ec", kEc, 0, 63),
    Broken("layout-vid", kVid, 1, 63),
    Broken("data", kData, 5, 100),
    Damaged("both-headers", {{kEc, 5, 63, 0x01, kOpen}, {kVid, 5, 63, 0x01, kOpen}}),
    Damaged("both-records", BothRecords(20, 0x01, kOpen), EINVAL, "both copies of the volume table"),
    Damaged("both-layout-vids", {{kVid, 0, 63, 0x01, kOpen}, {kVid, 1, 63, 0x01, kOpen}}, EINVAL,
            "there is no volume table"),
    Damaged("corrupted-limit", {{kVid, 2, 63, 0x01, kOpen}, {kVid, 3, 63, 0x01, kOpen}}, EINVAL,
            "2 PEBs have data under a damaged VID header", 1),
    Damaged("corrupted-below-limit", {{kVid, 2, 63, 0x01, kOpen}, {kVid, 3, 63, 0x01, kOpen}}),

    // A byte of each field, and the CRC fits again.
    Sealed("sealed-ec-version", kEc, 3, 4, 0x03, EINVAL, "PEB 3: version of the EC header is 2"),
    Sealed("sealed-ec-padding1", kEc, 3, 5, 0x01),
    Sealed("sealed-ec-ec", kEc, 3, 15, 0xFF),
    Sealed("sealed-ec-ec-above-limit", kEc, 3, 12, 0x80, EINVAL, "the erase counter is above the limit"),
    Sealed("sealed-ec-vid-hdr-offset", kEc, 3, 18, 0x04, EINVAL, "vid_hdr_offset of the EC header is 1536"),
    Sealed("sealed-ec-data-offset", kEc, 3, 22, 0x10, EINVAL, "data_offset of the EC header is 6144"),
    Sealed("sealed-ec-image-seq", kEc, 3, 24, 0x01, EINVAL, "image_seq"),
    Damaged("sealed-ec-image-seq-0", {{kEc, 3, 24, 0x12, kSealed},
                                      {kEc, 3, 25, 0x34, kSealed},
                                      {kEc, 3, 26, 0x56, kSealed},
                                      {kEc, 3, 27, 0x78, kSealed}}),
    Sealed("sealed-vid-version", kVid, 3, 4, 0x03),
    Sealed("sealed-vid-type", kVid, 3, 5, 0x03, EINVAL, "inconsistent at"),
    Sealed("sealed-vid-type-unknown", kVid, 3, 5, 0x05, EINVAL, "inconsistent at vol_type"),
    Sealed("sealed-vid-copy-flag", kVid, 3, 6, 0x01, EINVAL, "inconsistent at data_size"),
    Sealed("sealed-vid-copy-flag-unknown", kVid, 3, 6, 0x02, EINVAL, "inconsistent at copy_flag"),
    Sealed("sealed-vid-compat", kVid, 3, 7, 0x01, EINVAL, "inconsistent at compat"),
    Sealed("sealed-vid-vol-id-gone", kVid, 3, 11, 0x40),
    Sealed("sealed-vid-vol-id-unknown", kVid, 3, 10, 0x01, EINVAL, "inconsistent at vol_id"),
    Sealed("sealed-vid-vol-id-other", kVid, 3, 11, 0x01, EINVAL, ""),
    Sealed("sealed-vid-lnum-twice", kVid, 3, 15, 0x01, EINVAL, "with the same sequence number"),
    Sealed("sealed-vid-lnum-beyond", kVid, 4, 15, 0x0A, EINVAL, "disagree with the volume table"),
    Sealed("sealed-vid-lnum-negative", kVid, 4, 12, 0x80, EINVAL, "inconsistent at lnum"),
    Sealed("sealed-vid-lnum-static", kVid, 6, 15, 0x04, EINVAL, "inconsistent at lnum"),
    Sealed("sealed-vid-padding1", kVid, 3, 16, 0x01),
    Sealed("sealed-vid-data-size", kVid, 5, 23, 0x01, EINVAL, "inconsistent at data_size"),
    Sealed("sealed-vid-data-size-last", kVid, 6, 23, 0x01),
    Sealed("sealed-vid-data-size-dynamic", kVid, 3, 23, 0x01, EINVAL, "inconsistent at data_size"),
    Sealed("sealed-vid-used-ebs", kVid, 6, 27, 0x01, EINVAL, ""),
    Sealed("sealed-vid-used-ebs-dynamic", kVid, 3, 27, 0x01, EINVAL, "inconsistent at used_ebs"),
    Sealed("sealed-vid-data-pad", kVid, 3, 31, 0x01, EINVAL, "disagrees with others of volume 0"),
    Sealed("sealed-vid-data-pad-half", kVid, 3, 29, 0x01, EINVAL, "inconsistent at data_pad"),
    Sealed("sealed-vid-data-crc", kVid, 6, 35, 0x01),
    Sealed("sealed-vid-data-crc-dynamic", kVid, 3, 35, 0x01, EINVAL, "inconsistent at data_crc"),
    Sealed("sealed-vid-padding2", kVid, 3, 36, 0x01),
    Sealed("sealed-vid-sqnum", kVid, 3, 47, 0x01),
    Sealed("sealed-vid-padding3", kVid, 3, 48, 0x01),
    Damaged("newer-twin", {{kVid, 3, 15, 0x01, kSealed}, {kVid, 3, 47, 0x10, kSealed}}),
    Damaged("newer-layout", {{kVid, 0, 15, 0x01, kSealed}, {kVid, 0, 47, 0x10, kSealed}}),
    Damaged("copied-badly", {{kVid, 3, 6, 0x01, kSealed},
                             {kVid, 3, 22, 0x01, kSealed},
                             {kVid, 3, 15, 0x01, kSealed},
                             {kVid, 3, 47, 0x10, kSealed}}),
    Damaged("static-lacks-leb", {{kEc, 6, 0, 0x01, kOpen}, {kVid, 6, 0, 0x01, kOpen}}),
    // Volume IDs of internal volumes begin at 0x7FFFEFFF, that of the volume table.
    Damaged("foreign-delete", {{kVid, 1, 10, 0x10, kSealed}, {kVid, 1, 7, 0x04, kSealed}}),
    Damaged("foreign-preserve", {{kVid, 1, 10, 0x10, kSealed}, {kVid, 1, 7, 0x01, kSealed}}),
    Damaged("foreign-reject", {{kVid, 1, 10, 0x10, kSealed}}, EINVAL, "that the kernel doesn't know"),
    Damaged("foreign-read-only", {{kVid, 1, 10, 0x10, kSealed}, {kVid, 1, 7, 0x07, kSealed}}, ENOSPC,
            "no PEB is free for a copy"),

    // A byte of each field of the volume table's first record, in both copies.
    Record("sealed-reserved-pebs", 3, 0x02),
    Record("sealed-reserved-pebs-few", 3, 0x09, EINVAL, "disagree with the volume table"),
    Record("sealed-reserved-pebs-0", 3, 0x08, EINVAL, "reserved_pebs of volume 0"),
    Record("sealed-reserved-pebs-many", 2, 0x01, EINVAL, "more than the partition has"),
    Record("sealed-alignment", 7, 0x02, EINVAL, "alignment of volume 0"),
    Record("sealed-alignment-0", 7, 0x01, EINVAL, "alignment of volume 0"),
    Record("sealed-data-pad", 11, 0x01, EINVAL, "data_pad of volume 0"),
    Record("sealed-type", 12, 0x03, EINVAL, "disagree with the volume table"),
    Record("sealed-type-unknown", 12, 0x04, EINVAL, "vol_type of volume 0"),
    Record("sealed-upd-marker", 13, 0x01),
    Record("sealed-upd-marker-unknown", 13, 0x02, EINVAL, "upd_marker of volume 0"),
    Record("sealed-name-len", 15, 0x01, EINVAL, "name of volume 0"),
    Record("sealed-name", 16, 0x20),
    Record("sealed-name-empty", 16, 'r', EINVAL, "name of volume 0"),
    Record("sealed-flags", 144, 0x01),
    Record("sealed-padding", 145, 0x01),
    Damaged("copies-differ", {{kRecord, 1, 16, 0x20, kSealed}}),
    Damaged("first-copy-inconsistent", {{kRecord, 0, 13, 0x02, kSealed}}, EINVAL, "upd_marker of volume 0"),
    Damaged("table-tail", {{kData, 1, 22020, 0xFF, kOpen}}),
};

std::vector<std::uint8_t> Patched(std::vector<std::uint8_t> image, const UbiCase &ubiCase) {
    struct Part {
        std::uint32_t offset, length;
    };
    // In the order of UbiPlace; data has no CRC.
    constexpr Part kParts[] = {
        {0, kUbiHeaderSize}, {kVidHeaderOffset, kUbiHeaderSize}, {kDataOffset, kUbiVolumeRecordSize}, {kDataOffset, 0}};
    for (const UbiPatch &patch : ubiCase.patches) {
        const Part &part = kParts[static_cast<std::size_t>(patch.place)];
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
