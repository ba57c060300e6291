#include "ubi/UbiAttach.h"

#include "base/Bytes.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>

namespace {

using ReadResult = NandChip::ReadResult;

constexpr std::uint32_t kWearLevelingPebs = 1; ///< PEBs that the kernel keeps to move LEBs to
constexpr std::uint32_t kLebChangePebs = 1;    ///< PEBs that the kernel keeps for atomic LEB changes

/// Ends an attempt: what the kernel gives, and why.
struct Refusal {
    int error;
    std::string reason;
};

std::string AtPeb(std::uint32_t peb, const std::string &what) { return "PEB " + std::to_string(peb) + ": " + what; }

/// A volume as its VID headers tell it.
struct ScannedVolume {
    bool isStatic = false;
    std::uint32_t usedLebs = 0;
    std::uint32_t dataPad = 0;
    std::map<std::uint32_t, UbiLeb> lebs;

    explicit ScannedVolume(const VidHeader &first)
        : isStatic(first.volumeType == kUbiStatic), usedLebs(first.usedLebs), dataPad(first.dataPad) {}
};

/// One header as it was read.
struct Reading {
    UbiHeaderState state;
    ReadResult result;

    bool IsDamaged() const { return state == UbiHeaderState::BadCrc || state == UbiHeaderState::NoMagic; }
    /// @return whether the flash itself is a likely cause of the damage.
    bool IsDamagedByFlash() const {
        return result == ReadResult::Uncorrectable ||
               (state == UbiHeaderState::BadCrc && result == ReadResult::Corrected);
    }
};

/// One attempt. Steps come in the kernel's order, since only the first refusal is reported.
class Attempt {
public:
    Attempt(const PebReader &reader, const UbiGeometry &geometry, const UbiSettings &settings)
        : m_reader(reader), m_geometry(geometry), m_settings(settings) {
        m_out.pebs.total = reader.Pebs();
    }

    UbiAttachment Run() {
        if (const auto refusal = Refused()) {
            m_out.error = refusal->error;
            m_out.reason = refusal->reason;
            m_out.volumes.clear();
        }
        return std::move(m_out);
    }

private:
    using Step = std::optional<Refusal>;

    Step Refused() {
        if (m_geometry.LebSize() < kUbiVolumeRecordSize)
            return Refusal{EINVAL, "the erase block is too small for the headers"};
        for (std::uint32_t peb = 0; peb < m_out.pebs.total; ++peb) {
            if (auto refusal = ScanPeb(peb))
                return refusal;
        }
        if (auto refusal = CheckPebs())
            return refusal;
        std::vector<VolumeRecord> table;
        if (auto refusal = ReadTable(table))
            return refusal;
        if (auto refusal = MakeVolumes(table))
            return refusal;
        CountUsed();
        return Reserve();
    }

    template <class Header> Reading ReadHeader(std::uint32_t peb, std::uint32_t offset, Header &header) const {
        std::uint8_t bytes[kUbiHeaderSize];
        const ReadResult result = m_reader.Read(peb, offset, kUbiHeaderSize, bytes);
        return {header.Parse(bytes), result};
    }

    Step ScanPeb(std::uint32_t peb) {
        if (m_reader.IsBad(peb)) {
            ++m_out.pebs.bad;
            return {};
        }
        EcHeader ec;
        const Reading ecReading = ReadHeader(peb, 0, ec);
        if (ecReading.state == UbiHeaderState::Erased && ecReading.result != ReadResult::Uncorrectable) {
            ++m_out.pebs.empty;
            ++m_out.pebs.erase;
            return {};
        }
        const bool hasCounter = ecReading.state == UbiHeaderState::Valid;
        if (hasCounter) {
            if (auto refusal = CheckEcHeader(peb, ec))
                return refusal;
        }
        VidHeader vid;
        const Reading vidReading = ReadHeader(peb, m_geometry.VidHeaderOffset(), vid);
        if (ecReading.result == ReadResult::Uncorrectable || vidReading.result == ReadResult::Uncorrectable)
            ++m_out.pebs.unsound;
        if (vidReading.state == UbiHeaderState::Erased && vidReading.result != ReadResult::Uncorrectable) {
            const bool isClean = vidReading.result == ReadResult::Clean && ecReading.result == ReadResult::Clean;
            ++(hasCounter && isClean ? m_out.pebs.free : m_out.pebs.erase);
        } else if (vidReading.state != UbiHeaderState::Valid) {
            if (!hasCounter && ecReading.IsDamagedByFlash() && vidReading.IsDamagedByFlash())
                ++m_maybeBad;
            // With an intact EC header it matters whether data would be lost.
            ++(hasCounter && HasData(peb) ? m_out.pebs.corrupted : m_out.pebs.erase);
        } else {
            if (auto refusal = AddLeb(peb, vid))
                return refusal;
            // Blocks of volumes that aren't this kernel's don't enter into the counters.
            if (IsForeign(vid) && vid.compat != kUbiReadOnly)
                return {};
        }
        if (hasCounter)
            m_out.maxEraseCounter = std::max(m_out.maxEraseCounter, ec.eraseCounter);
        return {};
    }

    Step CheckEcHeader(std::uint32_t peb, const EcHeader &ec) {
        const auto mismatch = [&](const char *field, std::uint64_t found, std::uint64_t wanted) {
            return Refusal{EINVAL, AtPeb(peb, std::string(field) + " of the EC header is " + std::to_string(found) +
                                                  " and has to be " + std::to_string(wanted))};
        };
        if (ec.version != kUbiVersion)
            return mismatch("version", ec.version, kUbiVersion);
        if (ec.vidHeaderOffset != m_geometry.VidHeaderOffset())
            return mismatch("vid_hdr_offset", ec.vidHeaderOffset, m_geometry.VidHeaderOffset());
        if (ec.dataOffset != m_geometry.DataOffset())
            return mismatch("data_offset", ec.dataOffset, m_geometry.DataOffset());
        if (ec.eraseCounter > kUbiMaxEraseCounter)
            return Refusal{EINVAL, AtPeb(peb, "the erase counter is above the limit")};
        // 0 is that of tools which know no image sequence number.
        if (m_out.imageSequence == 0)
            m_out.imageSequence = ec.imageSequence;
        if (ec.imageSequence != 0 && ec.imageSequence != m_out.imageSequence)
            return mismatch("image_seq", ec.imageSequence, m_out.imageSequence);
        return {};
    }

    /// @return whether the data area is readable without any help from the ECC and not erased.
    bool HasData(std::uint32_t peb) {
        m_buffer.resize(m_geometry.LebSize());
        const ReadResult result = m_reader.Read(peb, m_geometry.DataOffset(), m_geometry.LebSize(), m_buffer.data());
        return result == ReadResult::Clean && !IsErased(m_buffer.data(), m_buffer.size());
    }

    static bool IsForeign(const VidHeader &vid) {
        return vid.volume >= kUbiInternalVolumes && vid.volume != kUbiLayoutVolume;
    }

    Step AddLeb(std::uint32_t peb, const VidHeader &vid) {
        if (const char *field = vid.Problem(m_geometry.LebSize()))
            return Refusal{EINVAL, AtPeb(peb, "the VID header is inconsistent at " + std::string(field))};
        if (IsForeign(vid)) {
            switch (vid.compat) {
            case kUbiDelete:
                ++m_out.pebs.erase;
                return {};
            case kUbiPreserve:
                ++m_out.pebs.alien;
                return {};
            case kUbiReject:
                return Refusal{EINVAL, AtPeb(peb, "it holds an internal volume that the kernel doesn't know")};
            default:
                m_out.isReadOnly = true;
            }
        }
        ScannedVolume &volume = m_scanned.try_emplace(vid.volume, vid).first->second;
        const UbiLeb leb{peb, vid.sequence, vid.copyFlag != 0, vid.dataSize, vid.dataCrc};
        const auto known = volume.lebs.find(vid.leb);
        if (known != volume.lebs.end()) {
            if (known->second.sequence == leb.sequence)
                return Refusal{EINVAL, AtPeb(peb, "LEB " + std::to_string(vid.leb) + " of volume " +
                                                      std::to_string(vid.volume) + " is in PEB " +
                                                      std::to_string(known->second.peb) +
                                                      " too, with the same sequence number")};
            ++m_out.pebs.erase;
            if (!IsNewer(leb, known->second))
                return {};
        }
        const bool agrees = (vid.volumeType == kUbiStatic) == volume.isStatic && vid.usedLebs == volume.usedLebs &&
                            vid.dataPad == volume.dataPad;
        if (!agrees && !volume.lebs.empty())
            return Refusal{EINVAL,
                           AtPeb(peb, "the VID header disagrees with others of volume " + std::to_string(vid.volume))};
        volume.lebs[vid.leb] = leb;
        return {};
    }

    /// Decides which of two PEBs holds a LEB: the one with the higher sequence number, unless it is a copy that was
    /// interrupted.
    bool IsNewer(const UbiLeb &second, const UbiLeb &first) {
        const bool isSecond = second.sequence > first.sequence;
        const UbiLeb &newer = isSecond ? second : first;
        if (!newer.isCopy)
            return isSecond;
        m_buffer.resize(newer.dataSize);
        m_reader.Read(newer.peb, m_geometry.DataOffset(), newer.dataSize, m_buffer.data());
        const bool isWhole = UbiCrc(m_buffer.data(), m_buffer.size()) == newer.dataCrc;
        return isWhole == isSecond;
    }

    /// Looks at all PEBs together: are they UBI's at all?
    Step CheckPebs() {
        const std::uint32_t pebs = m_out.pebs.total - m_out.pebs.bad - m_out.pebs.alien;
        const std::uint32_t tolerated = pebs / 20 != 0 ? pebs / 20 : 8;
        if (m_out.pebs.corrupted >= tolerated)
            return Refusal{EINVAL, std::to_string(m_out.pebs.corrupted) +
                                       " PEBs have data under a damaged VID header, too many for UBI"};
        if (m_out.pebs.empty + m_maybeBad == pebs) {
            if (m_maybeBad > 2)
                return Refusal{EINVAL, "there is no UBI and probably other data"};
            m_out.wasEmpty = true;
        }
        return {};
    }

    std::uint32_t TableSlots() const { return std::min(kUbiMaxVolumes, m_geometry.LebSize() / kUbiVolumeRecordSize); }

    /// Takes the free PEB that a new copy of the volume table needs.
    Step WriteTableCopy() {
        m_out.isTableRepaired = !m_out.wasEmpty;
        // A read-only device erases nothing.
        if (m_out.pebs.free + (m_out.isReadOnly ? 0 : m_out.pebs.erase) == 0)
            return Refusal{ENOSPC, "no PEB is free for a copy of the volume table"};
        if (m_out.isReadOnly)
            return Refusal{EROFS, "the volume table needs repair, and an internal volume forbids to write"};
        --(m_out.pebs.free != 0 ? m_out.pebs.free : m_out.pebs.erase);
        return {};
    }

    Step ReadTable(std::vector<VolumeRecord> &table) {
        const auto found = m_scanned.find(kUbiLayoutVolume);
        if (found == m_scanned.end()) {
            if (!m_out.wasEmpty)
                return Refusal{EINVAL, "there is no volume table"};
            for (std::uint32_t copy = 0; copy < kUbiLayoutLebs; ++copy) {
                if (auto refusal = WriteTableCopy())
                    return refusal;
                ++m_newTableCopies;
            }
            return {};
        }
        const auto &lebs = found->second.lebs;
        // With another number the kernel writes past its two buffers and panics.
        if (lebs.size() > kUbiLayoutLebs || lebs.rbegin()->first >= kUbiLayoutLebs)
            return Refusal{EINVAL, "the volume table has a LEB that isn't 0 or 1"};

        std::vector<std::uint8_t> copies[kUbiLayoutLebs];
        // The kernel compares whole pages.
        const std::uint32_t size = RoundUp(TableSlots() * kUbiVolumeRecordSize, m_geometry.pageSize);
        for (const auto &[number, leb] : lebs) {
            copies[number].resize(size);
            m_reader.Read(leb.peb, m_geometry.DataOffset(), size, copies[number].data());
        }
        // The first copy is written first, so it is the newer one. A record that makes no sense despite its CRC ends
        // the attempt; the other copy isn't asked then.
        for (const auto &copy : copies) {
            if (copy.empty())
                continue;
            std::vector<VolumeRecord> records;
            for (std::uint32_t slot = 0; slot < TableSlots(); ++slot)
                records.emplace_back(copy.data() + std::size_t{slot} * kUbiVolumeRecordSize);
            bool hasCrcs = true;
            if (auto refusal = CheckTable(records, hasCrcs))
                return refusal;
            if (!hasCrcs)
                continue;
            table = std::move(records);
            if (copies[0] != copies[1]) {
                const std::uint32_t other = &copy == copies ? 1 : 0;
                if (auto refusal = WriteTableCopy())
                    return refusal;
                if (lebs.count(other) != 0)
                    ++m_out.pebs.erase;
                else
                    ++m_newTableCopies;
            }
            return {};
        }
        return Refusal{EINVAL, "both copies of the volume table are damaged"};
    }

    Step CheckTable(const std::vector<VolumeRecord> &records, bool &hasCrcs) const {
        for (std::size_t id = 0; id < records.size(); ++id) {
            const VolumeRecord &record = records[id];
            if (!record.hasValidCrc) {
                hasCrcs = false;
                return {};
            }
            if (const char *field = RecordProblem(record))
                return Refusal{EINVAL, "the volume table is inconsistent at " + std::string(field) + " of volume " +
                                           std::to_string(id)};
        }
        std::set<std::string> names;
        for (const VolumeRecord &record : records) {
            if (record.nameLength > 0 && !names.insert(record.name).second)
                return Refusal{EINVAL, "two volumes have the name \"" + record.name + "\""};
        }
        return {};
    }

    /// @return nullptr, or the name of the field that doesn't fit.
    const char *RecordProblem(const VolumeRecord &record) const {
        constexpr std::uint32_t kMost = 0x7FFFFFFF;
        if (record.reservedPebs == 0)
            return record.isEmpty ? nullptr : "reserved_pebs";
        if (record.reservedPebs > kMost)
            return "reserved_pebs";
        if (record.alignment > m_geometry.LebSize() || record.alignment == 0)
            return "alignment";
        if (record.alignment != 1 && record.alignment % m_geometry.pageSize != 0)
            return "alignment";
        if (record.dataPad != m_geometry.LebSize() % record.alignment)
            return "data_pad";
        if (record.type != kUbiDynamic && record.type != kUbiStatic)
            return "vol_type";
        if (record.updateMarker > 1)
            return "upd_marker";
        if (record.reservedPebs > GoodPebs())
            return "reserved_pebs, which is more than the partition has";
        if (record.nameLength > kUbiMaxVolumeName || record.name.empty() || record.nameLength != record.name.size())
            return "name";
        return nullptr;
    }

    std::uint32_t GoodPebs() const { return m_out.pebs.total - m_out.pebs.bad; }

    Step MakeVolumes(const std::vector<VolumeRecord> &table) {
        std::uint64_t reserved = kUbiLayoutLebs;
        int autoresized = 0;
        for (std::size_t id = 0; id < table.size(); ++id) {
            const VolumeRecord &record = table[id];
            if (record.reservedPebs == 0)
                continue;
            UbiVolume volume;
            volume.id = static_cast<std::uint32_t>(id);
            volume.name = record.name;
            volume.isStatic = record.type == kUbiStatic;
            volume.reservedPebs = volume.tablePebs = record.reservedPebs;
            volume.alignment = record.alignment;
            volume.lebSize = m_geometry.LebSize() - record.dataPad;
            volume.isAutoresized = (record.flags & kUbiAutoresizeFlag) != 0;
            volume.hasUpdateMarker = record.updateMarker != 0;
            if (volume.isAutoresized && ++autoresized > 1)
                return Refusal{EINVAL, "more than one volume has the autoresize flag"};
            TakeLebs(volume);
            reserved += record.reservedPebs;
            m_out.volumes.push_back(std::move(volume));
        }
        const std::uint32_t usable = GoodPebs() - m_out.pebs.corrupted;
        if (reserved > usable)
            return Refusal{ENOSPC, "the volumes need " + std::to_string(reserved) + " PEBs, and " +
                                       std::to_string(usable) + " can be used"};
        m_out.available = static_cast<std::uint32_t>(usable - reserved);
        for (const UbiVolume &volume : m_out.volumes) {
            if (auto refusal = CheckVolume(volume, table[volume.id].dataPad))
                return refusal;
        }
        return {};
    }

    void TakeLebs(UbiVolume &volume) const {
        volume.dataBytes = std::uint64_t{volume.reservedPebs} * volume.lebSize;
        const auto scanned = m_scanned.find(volume.id);
        if (scanned != m_scanned.end())
            volume.lebs = scanned->second.lebs;
        if (!volume.isStatic)
            return;
        volume.dataBytes = 0;
        if (volume.lebs.empty())
            return;
        volume.isCorrupted = volume.lebs.size() != scanned->second.usedLebs;
        if (!volume.isCorrupted)
            volume.dataBytes =
                std::uint64_t{scanned->second.usedLebs - 1} * volume.lebSize + volume.lebs.rbegin()->second.dataSize;
    }

    /// Holds what the volume table says of a volume against what its VID headers say.
    Step CheckVolume(const UbiVolume &volume, std::uint32_t dataPad) const {
        const auto found = m_scanned.find(volume.id);
        if (found == m_scanned.end())
            return {};
        const ScannedVolume &scanned = found->second;
        const bool fits = scanned.lebs.rbegin()->first < volume.tablePebs && scanned.isStatic == volume.isStatic &&
                          scanned.usedLebs <= volume.tablePebs && scanned.dataPad == dataPad;
        if (fits)
            return {};
        return Refusal{EINVAL,
                       "the VID headers of volume " + std::to_string(volume.id) + " disagree with the volume table"};
    }

    void CountUsed() {
        m_out.pebs.used = m_newTableCopies;
        for (const auto &[id, scanned] : m_scanned) {
            const auto isVolume = [id = id](const UbiVolume &volume) { return volume.id == id; };
            const bool isKept = id >= TableSlots() || std::any_of(m_out.volumes.begin(), m_out.volumes.end(), isVolume);
            (isKept ? m_out.pebs.used : m_out.pebs.erase) += static_cast<std::uint32_t>(scanned.lebs.size());
        }
    }

    /// Gives the PEBs that no volume has to UBI itself, to the reserve for bad blocks and to the volume that grows.
    Step Reserve() {
        for (const std::uint32_t pebs : {kWearLevelingPebs, kLebChangePebs}) {
            if (m_out.available < pebs)
                return Refusal{ENOSPC, "UBI needs a PEB for itself, and the volumes leave none"};
            m_out.available -= pebs;
        }
        const std::uint32_t limit = m_settings.BadPebLimit();
        m_out.wantedForBad = limit > m_out.pebs.bad ? limit - m_out.pebs.bad : 0;
        m_out.reservedForBad = std::min(m_out.wantedForBad, m_out.available);
        m_out.available -= m_out.reservedForBad;
        for (UbiVolume &volume : m_out.volumes) {
            if (!volume.isAutoresized || m_out.isReadOnly)
                continue;
            m_out.resized = m_out.available;
            m_out.available = 0;
            volume.reservedPebs += m_out.resized;
            if (!volume.isStatic)
                volume.dataBytes = std::uint64_t{volume.reservedPebs} * volume.lebSize;
        }
        return {};
    }

    const PebReader &m_reader;
    const UbiGeometry m_geometry;
    const UbiSettings m_settings;
    UbiAttachment m_out;
    std::map<std::uint32_t, ScannedVolume> m_scanned; ///< by volume ID
    std::uint32_t m_maybeBad = 0;                     ///< PEBs with both headers damaged by the flash itself
    std::uint32_t m_newTableCopies = 0;
    std::vector<std::uint8_t> m_buffer;
};

} // namespace

std::uint32_t UbiSettings::BadPebLimit() const {
    return static_cast<std::uint32_t>((chipBlocks * badPer1024 + 1023) / 1024);
}

UbiAttachment AttachUbi(const PebReader &pebs, const UbiGeometry &geometry, const UbiSettings &settings) {
    return Attempt(pebs, geometry, settings).Run();
}
