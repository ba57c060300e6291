#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Where on a PEB of an image a patch goes.
enum class UbiPlace {
    EcHeader,
    VidHeader,
    Record, ///< record 0 of the volume table
    Data,
};

/// One byte that becomes another.
struct UbiPatch {
    UbiPlace place;
    std::uint32_t peb;
    std::uint32_t offset; ///< in the header, the record or the data
    std::uint8_t flipped; ///< bits of the byte
    bool isSealed;        ///< the CRC over header or record is made right again
};

/// An image on a partition, and what the kernel does with it.
struct UbiCase {
    std::string name;
    std::string image; ///< "<image>.ubi" of make-images
    std::vector<UbiPatch> patches;
    int partition;      ///< in kUbiPartitions
    bool isRaw;         ///< written without ECC
    int error;          ///< 0, or the errno value of the attempt to attach
    std::string reason; ///< what the reader's reason has in it
};

/// A partition of a chip with 2048 blocks.
struct PartitionCase {
    std::uint32_t pebs;
    std::vector<std::uint32_t> badPebs;
};
extern const std::vector<PartitionCase> kUbiPartitions;

extern const std::vector<UbiCase> kUbiCases;

/// @return the bytes of an image with the patches of a case: header offsets 512 and 2048, blocks of 128 KiB.
std::vector<std::uint8_t> Patched(std::vector<std::uint8_t> image, const UbiCase &ubiCase);
