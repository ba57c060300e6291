#include "ubi/UbiMedia.h"

#include "base/Bytes.h"

#include <algorithm>

namespace {

constexpr std::uint32_t kEcMagic = 0x55424923;  // "UBI#"
constexpr std::uint32_t kVidMagic = 0x55424921; // "UBI!"
constexpr std::size_t kCrcSize = 4;

/// Reads big-endian numbers one after the other.
class Fields {
public:
    explicit Fields(const std::uint8_t *bytes) : m_next(bytes) {}

    template <class Number> void operator>>(Number &number) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < sizeof number; ++i)
            value = value << 8 | *m_next++;
        number = static_cast<Number>(value);
    }
    void Skip(std::size_t bytes) { m_next += bytes; }
    const std::uint8_t *Rest() const { return m_next; }

private:
    const std::uint8_t *m_next;
};

template <class Number> Number At(const std::uint8_t *bytes) {
    Number number = 0;
    Fields(bytes) >> number;
    return number;
}

UbiHeaderState HeaderState(const std::uint8_t *bytes, std::uint32_t magic) {
    if (At<std::uint32_t>(bytes) != magic)
        return IsErased(bytes, kUbiHeaderSize) ? UbiHeaderState::Erased : UbiHeaderState::NoMagic;
    constexpr std::size_t kCovered = kUbiHeaderSize - kCrcSize;
    const bool fits = UbiCrc(bytes, kCovered) == At<std::uint32_t>(bytes + kCovered);
    return fits ? UbiHeaderState::Valid : UbiHeaderState::BadCrc;
}

} // namespace

std::uint32_t UbiCrc(const std::uint8_t *bytes, std::size_t length) { return AddToCrc(kCrcStart, bytes, length); }

UbiHeaderState EcHeader::Parse(const std::uint8_t *bytes) {
    Fields fields(bytes);
    fields.Skip(4);
    fields >> version;
    fields.Skip(3);
    fields >> eraseCounter;
    fields >> vidHeaderOffset;
    fields >> dataOffset;
    fields >> imageSequence;
    return HeaderState(bytes, kEcMagic);
}

UbiHeaderState VidHeader::Parse(const std::uint8_t *bytes) {
    Fields fields(bytes);
    fields.Skip(5); // the kernel doesn't look at the version here
    fields >> volumeType;
    fields >> copyFlag;
    fields >> compat;
    fields >> volume;
    fields >> leb;
    fields.Skip(4);
    fields >> dataSize;
    fields >> usedLebs;
    fields >> dataPad;
    fields >> dataCrc;
    fields.Skip(4);
    fields >> sequence;
    return HeaderState(bytes, kVidMagic);
}

const char *VidHeader::Problem(std::uint32_t lebSize) const {
    // The kernel's numbers are signed.
    constexpr std::uint32_t kMost = 0x7FFFFFFF;
    const bool isInternal = volume >= kUbiInternalVolumes;
    const bool isStatic = volumeType == kUbiStatic;
    const bool isKnownCompat =
        compat == kUbiDelete || compat == kUbiReadOnly || compat == kUbiPreserve || compat == kUbiReject;
    if (copyFlag > 1)
        return "copy_flag";
    if (volume > kMost || (volume >= kUbiMaxVolumes && !isInternal))
        return "vol_id";
    if (isInternal ? !isKnownCompat : compat != 0)
        return "compat";
    if (volumeType != kUbiDynamic && !isStatic)
        return "vol_type";
    if (dataPad >= lebSize / 2)
        return "data_pad";
    if (dataSize > lebSize || (isStatic && dataSize == 0))
        return "data_size";
    if (usedLebs > kMost || (usedLebs != 0) != isStatic)
        return "used_ebs";
    if (leb > kMost || (isStatic && leb >= usedLebs))
        return "lnum";
    if (isStatic && leb + 1 < usedLebs && dataSize != lebSize - dataPad)
        return "data_size";
    if (!isStatic && (dataSize != 0) != (copyFlag == 1))
        return "data_size";
    if (!isStatic && copyFlag == 0 && dataCrc != 0)
        return "data_crc";
    return nullptr;
}

VolumeRecord::VolumeRecord(const std::uint8_t *bytes) {
    constexpr std::size_t kCovered = kUbiVolumeRecordSize - kCrcSize;
    Fields fields(bytes);
    fields >> reservedPebs;
    fields >> alignment;
    fields >> dataPad;
    fields >> type;
    fields >> updateMarker;
    fields >> nameLength;
    const auto *start = fields.Rest();
    name.assign(start, std::find(start, start + kUbiMaxVolumeName + 1, 0));
    fields.Skip(kUbiMaxVolumeName + 1);
    fields >> flags;
    hasValidCrc = UbiCrc(bytes, kCovered) == At<std::uint32_t>(bytes + kCovered);
    isEmpty = std::all_of(bytes, bytes + kCovered, [](std::uint8_t byte) { return byte == 0; });
}
