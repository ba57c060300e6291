#pragma once

#include "ubi/PebReader.h"
#include "ubi/UbiMedia.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Settings of the kernel besides the flash itself.
struct UbiSettings {
    /// Erase blocks of the whole chip, of which the partition is a part. The kernel counts with these when it reserves
    /// PEBs for future bad blocks, since all of them could lie in the partition.
    std::uint64_t chipBlocks = 0;
    std::uint32_t badPer1024 = 20; ///< bad blocks to expect in 1024, CONFIG_MTD_UBI_BEB_LIMIT; 0: reserve none

    /// @return PEBs that the kernel wants to have for bad blocks, those already bad included.
    std::uint32_t BadPebLimit() const;
};

/// Where a LEB is.
struct UbiLeb {
    std::uint32_t peb = 0;
    std::uint64_t sequence = 0;
    bool isCopy = false; ///< wear-leveling moved it here: `dataCrc` is that of its first `dataSize` bytes
    std::uint32_t dataSize = 0;
    std::uint32_t dataCrc = 0;
};

struct UbiVolume {
    std::uint32_t id = 0;
    std::string name;
    bool isStatic = false;
    std::uint32_t reservedPebs = 0; ///< size in LEBs once attached, after the volume was resized
    std::uint32_t tablePebs = 0;    ///< size in LEBs as the volume table has it
    std::uint32_t alignment = 1;
    std::uint32_t lebSize = 0; ///< usable bytes of each of its LEBs
    bool isAutoresized = false;
    bool hasUpdateMarker = false; ///< an update of its contents began and didn't end: it can't be opened for reading
    bool isCorrupted = false;     ///< static, and LEBs are missing
    std::uint64_t dataBytes = 0;  ///< as the kernel gives them: the whole size of a dynamic volume
    std::map<std::uint32_t, UbiLeb> lebs; ///< mapped ones by number
};

/// What the kernel finds in the PEBs. `used` + `free` + `erase` + `corrupted` + `alien` + `bad` are all of them.
struct UbiPebs {
    std::uint32_t total = 0;
    std::uint32_t bad = 0;
    std::uint32_t used = 0;      ///< hold a LEB, those of the volume table included
    std::uint32_t free = 0;      ///< erased, with an EC header
    std::uint32_t erase = 0;     ///< to be erased: without EC header, outdated, of an unknown volume, or half written
    std::uint32_t empty = 0;     ///< of those, blocks that have no header at all
    std::uint32_t corrupted = 0; ///< kept, and never used: there is data under a damaged VID header
    std::uint32_t alien = 0;     ///< kept for a version of UBI that knows their volume
    std::uint32_t unsound = 0;   ///< PEBs whose headers can be read with ECC errors only; counted above as well
};

/// Result of an attempt to attach UBI to a partition.
struct UbiAttachment {
    int error = 0;      ///< 0, or the errno value that the kernel gives
    std::string reason; ///< why not, without a full stop; empty when attached

    UbiPebs pebs;
    // Only when attached:
    std::vector<UbiVolume> volumes; ///< by ID, the volume table's own left out
    bool wasEmpty = false;          ///< neither headers nor data: the kernel makes an empty UBI device of it
    bool isReadOnly = false;
    bool isTableRepaired = false;     ///< one copy of the volume table is damaged or missing
    std::uint32_t wantedForBad = 0;   ///< PEBs that the kernel wants to reserve for future bad blocks
    std::uint32_t reservedForBad = 0; ///< those that it could
    std::uint32_t available = 0;      ///< PEBs that belong to no volume and no reserve
    std::uint32_t resized = 0;        ///< PEBs that a volume was given at attaching
    std::uint32_t imageSequence = 0;  ///< 0 when no EC header has one
    std::uint64_t maxEraseCounter = 0;

    bool IsAttached() const { return error == 0; }
    /// @return how many blocks may become bad before the kernel makes the device read-only.
    std::uint32_t SpareBlocks() const { return reservedForBad + available; }
};

/// Tells what Linux (6.1, without fastmap) would do if it attached UBI with default header offsets. Changes nothing,
/// and takes any bytes.
UbiAttachment AttachUbi(const PebReader &pebs, const UbiGeometry &geometry, const UbiSettings &settings);
