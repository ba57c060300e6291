// Damaged UBI images, and what sim/ubi makes of them.
//   ubi-cases patches IMAGES   a line for each case: name, image, partition, "raw" or "ecc", and OFFSET:BYTE for each
//                              changed byte, in octal digits
//   ubi-cases results IMAGES   what the board's kernel has to print of each case
// IMAGES is the folder of tests/sim/ubi/make-images.
#include "MemoryChip.h"
#include "UbiCases.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace {

std::vector<std::uint8_t> ReadImage(const std::string &folder, const UbiCase &ubiCase) {
    std::ifstream file(folder + "/" + ubiCase.image + ".ubi", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void PrintPatches(const std::vector<std::uint8_t> &image, const UbiCase &ubiCase) {
    printf("%s %s %d %s", ubiCase.name.c_str(), ubiCase.image.c_str(), ubiCase.partition,
           ubiCase.isRaw ? "raw" : "ecc");
    const std::vector<std::uint8_t> patched = Patched(image, ubiCase);
    for (std::size_t i = 0; i < image.size(); ++i) {
        if (patched[i] != image[i])
            printf(" %zu:%03o", i, patched[i]);
    }
    printf("\n");
}

void PrintResult(const std::vector<std::uint8_t> &image, const UbiCase &ubiCase) {
    const PartitionCase &partition = kUbiPartitions.at(static_cast<std::size_t>(ubiCase.partition));
    MemoryChip memory(partition.pebs, ubiCase.isRaw ? Ecc::Host : Ecc::Chip);
    for (const std::uint32_t peb : partition.badPebs)
        memory.chip.MarkBad(peb);
    memory.Write(Patched(image, ubiCase), !ubiCase.isRaw);
    const UbiAttachment ubi = memory.Attach();
    printf("image %s\n", ubiCase.name.c_str());
    if (!ubi.IsAttached()) {
        printf("refused %d\n", ubi.error);
        return;
    }
    printf("attached total=%u bad=%u reserved=%u available=%u volumes=%zu\n", ubi.pebs.total - ubi.pebs.bad,
           ubi.pebs.bad, ubi.reservedForBad, ubi.available, ubi.volumes.size());
    for (const UbiVolume &volume : ubi.volumes)
        printf("volume %u %s %s reserved=%u alignment=%u leb=%u bytes=%llu marker=%d corrupted=%d\n", volume.id,
               volume.name.c_str(), volume.isStatic ? "static" : "dynamic", volume.reservedPebs, volume.alignment,
               volume.lebSize, static_cast<unsigned long long>(volume.dataBytes), volume.hasUpdateMarker ? 1 : 0,
               volume.isCorrupted ? 1 : 0);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3)
        return 2;
    const bool isPatches = strcmp(argv[1], "patches") == 0;
    for (const UbiCase &ubiCase : kUbiCases)
        (isPatches ? PrintPatches : PrintResult)(ReadImage(argv[2], ubiCase), ubiCase);
}
