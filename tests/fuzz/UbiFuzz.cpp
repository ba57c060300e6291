// The reader of UBI. The input is a byte with flags and an image for small erase blocks: with 1 the CRCs of all headers
// and volume records are made valid.

#include "Fuzz.h"
#include "base/Bytes.h"
#include "ubi/UbiImage.h"

#include <cstring>

namespace {

constexpr UbiGeometry kGeometry = {4096, 512, 512};

/// Makes valid the CRC at the end of a header or record.
void Seal(std::vector<std::uint8_t> &bytes, std::size_t begin, std::size_t length) {
    if (begin + length > bytes.size())
        return;
    const std::uint32_t crc = UbiCrc(bytes.data() + begin, length - 4);
    for (std::size_t i = 0; i < 4; ++i)
        bytes[begin + length - 4 + i] = static_cast<std::uint8_t>(crc >> 8 * (3 - i));
}

void Read(const std::vector<std::uint8_t> &image, const UbiGeometry &geometry) {
    const UbiImage found = ReadUbiImage(image.data(), image.size(), geometry);
    FitsChip(found, geometry);
    const ImagePebs pebs(image.data(), image.size(), geometry.pebSize, 40);
    const UbiAttachment attachment = AttachUbi(pebs, geometry, {64, 20});
    const UbiPebs &sorts = attachment.pebs;
    const std::uint32_t sorted = sorts.bad + sorts.used + sorts.free + sorts.erase + sorts.corrupted + sorts.alien;
    if (attachment.IsAttached() != attachment.reason.empty() || (attachment.IsAttached() && sorted != pebs.Pebs()))
        __builtin_trap();
    for (const UbiVolume &volume : attachment.volumes) {
        MissingLebs(volume);
        DamagedLebs(volume, pebs, geometry);
        UnreadableLebs(volume, pebs, geometry);
        if (const auto super = ReadUbifs(volume, pebs, geometry))
            super->Problem(volume, geometry);
    }
    AttachmentLoss(attachment, attachment);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Input input(bytes, size);
    const std::uint8_t flags = input.Byte();
    std::vector<std::uint8_t> image = input.Rest();
    for (std::size_t peb = 0; (flags & 1) != 0 && peb < image.size(); peb += kGeometry.pebSize) {
        Seal(image, peb, kUbiHeaderSize);
        Seal(image, peb + kGeometry.VidHeaderOffset(), kUbiHeaderSize);
        const std::size_t data = peb + kGeometry.DataOffset();
        for (std::size_t at = 0; (flags & 2) != 0 && at + kUbiVolumeRecordSize <= kGeometry.LebSize();
             at += kUbiVolumeRecordSize)
            Seal(image, data + at, kUbiVolumeRecordSize);
    }
    Read(image, kGeometry);
    Read(image, {16384, 2048, 512});
    return 0;
}
