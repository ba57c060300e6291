#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What UBI stores on flash. All numbers are big-endian there; CRCs are those of the Linux kernel's crc32 with an
// initial value of 0xFFFFFFFF and no final inversion.

constexpr std::uint8_t kUbiVersion = 1;
constexpr std::uint64_t kUbiMaxEraseCounter = 0x7FFFFFFF;
constexpr std::uint32_t kUbiMaxVolumes = 128;
constexpr std::uint32_t kUbiInternalVolumes = 0x7FFFFFFF - 4096; ///< IDs from here on are internal volumes
constexpr std::uint32_t kUbiLayoutVolume = kUbiInternalVolumes;  ///< the volume whose LEBs hold the volume table
constexpr std::uint32_t kUbiLayoutLebs = 2;                      ///< copies of the volume table

constexpr std::uint32_t kUbiHeaderSize = 64;        ///< bytes of an EC header and of a VID header
constexpr std::uint32_t kUbiVolumeRecordSize = 172; ///< bytes of a volume table record
constexpr std::size_t kUbiMaxVolumeName = 127;

enum UbiVolumeType : std::uint8_t { kUbiDynamic = 1, kUbiStatic = 2 };
enum UbiCompat : std::uint8_t { kUbiDelete = 1, kUbiReadOnly = 2, kUbiPreserve = 4, kUbiReject = 5 };
constexpr std::uint8_t kUbiAutoresizeFlag = 0x01;

/// What the bytes in the place of a header are.
enum class UbiHeaderState {
    Valid,   ///< magic number and CRC fit
    Erased,  ///< all 0xFF
    NoMagic, ///< something else
    BadCrc,  ///< the magic number alone fits
};

/// Erase counter header, at the start of each physical erase block (PEB).
struct EcHeader {
    std::uint8_t version = 0;
    std::uint64_t eraseCounter = 0;
    std::uint32_t vidHeaderOffset = 0; ///< bytes from the PEB's start
    std::uint32_t dataOffset = 0;      ///< bytes from the PEB's start
    std::uint32_t imageSequence = 0;

    /// @param bytes kUbiHeaderSize of them
    UbiHeaderState Parse(const std::uint8_t *bytes);
};

/// Volume identifier header: which logical erase block (LEB) of which volume a PEB holds.
struct VidHeader {
    std::uint8_t volumeType = 0;
    std::uint8_t copyFlag = 0;
    std::uint8_t compat = 0;
    std::uint32_t volume = 0;
    std::uint32_t leb = 0;
    std::uint32_t dataSize = 0;
    std::uint32_t usedLebs = 0; ///< of a static volume
    std::uint32_t dataPad = 0;  ///< bytes at the LEB's end that the volume's alignment leaves unused
    std::uint32_t dataCrc = 0;
    std::uint64_t sequence = 0;

    /// @param bytes kUbiHeaderSize of them
    UbiHeaderState Parse(const std::uint8_t *bytes);

    /// @return nullptr when the fields agree with each other, else the name of the first that doesn't.
    const char *Problem(std::uint32_t lebSize) const;
};

/// Record of the volume table.
struct VolumeRecord {
    std::uint32_t reservedPebs = 0; ///< 0 in an empty record
    std::uint32_t alignment = 0;
    std::uint32_t dataPad = 0;
    std::uint8_t type = 0;
    std::uint8_t updateMarker = 0; ///< 1 when an update of the volume began and didn't end
    std::uint16_t nameLength = 0;
    std::string name; ///< up to the first zero byte; 128 bytes when there is none
    std::uint8_t flags = 0;
    bool hasValidCrc = false;
    bool isEmpty = false; ///< all fields are zero

    /// @param bytes kUbiVolumeRecordSize of them
    explicit VolumeRecord(const std::uint8_t *bytes);
};

/// CRC over `length` bytes.
std::uint32_t UbiCrc(const std::uint8_t *bytes, std::size_t length);
