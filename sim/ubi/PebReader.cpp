#include "ubi/PebReader.h"

#include "ubi/UbiMedia.h"

#include <algorithm>

UbiGeometry UbiGeometry::Of(const NandChip &chip) {
    return {chip.Geometry().eraseSize, chip.Geometry().pageSize, chip.SubPageSize()};
}

std::uint32_t UbiGeometry::VidHeaderOffset() const { return RoundUp(kUbiHeaderSize, subPageSize); }

std::uint32_t UbiGeometry::DataOffset() const { return RoundUp(VidHeaderOffset() + kUbiHeaderSize, pageSize); }

std::uint32_t UbiGeometry::LebSize() const { return pebSize > DataOffset() ? pebSize - DataOffset() : 0; }

ImagePebs::ImagePebs(const std::uint8_t *bytes, std::uint64_t length, std::uint32_t pebSize, std::uint32_t pebs)
    : m_bytes(bytes), m_length(length),
      m_pebs(std::max(pebs, pebSize == 0 ? 0 : static_cast<std::uint32_t>((length + pebSize - 1) / pebSize))),
      m_pebSize(pebSize) {}

std::uint32_t ImagePebs::Pebs() const { return m_pebs; }

bool ImagePebs::IsBad(std::uint32_t /*peb*/) const { return false; }

NandChip::ReadResult ImagePebs::Read(std::uint32_t peb, std::uint32_t offset, std::uint32_t length,
                                     std::uint8_t *data) const {
    const std::uint64_t begin = std::min(std::uint64_t{peb} * m_pebSize + offset, m_length);
    const std::uint64_t held = std::min<std::uint64_t>(length, m_length - begin);
    std::copy_n(m_bytes + begin, held, data);
    std::fill_n(data + held, length - held, std::uint8_t{0xFF});
    return NandChip::ReadResult::Clean;
}

PartitionPebs::PartitionPebs(const NandChip &chip, std::uint64_t offset, std::uint64_t size) : m_chip(&chip) {
    const std::uint32_t blockSize = chip.Geometry().eraseSize;
    const std::uint64_t end = std::min(offset + size, chip.Geometry().size);
    m_firstBlock = static_cast<std::uint32_t>(offset / blockSize);
    m_pebs = offset < end ? static_cast<std::uint32_t>((end - offset) / blockSize) : 0;
}

std::uint32_t PartitionPebs::Pebs() const { return m_pebs; }

bool PartitionPebs::IsBad(std::uint32_t peb) const { return m_chip->IsBad(m_firstBlock + peb); }

NandChip::ReadResult PartitionPebs::Read(std::uint32_t peb, std::uint32_t offset, std::uint32_t length,
                                         std::uint8_t *data) const {
    const std::uint32_t pageSize = m_chip->Geometry().pageSize;
    const std::uint32_t firstPage = (m_firstBlock + peb) * m_chip->Geometry().PagesPerBlock();
    NandChip::ReadResult result = NandChip::ReadResult::Clean;
    for (std::uint32_t done = 0; done < length;) {
        const std::uint32_t place = offset + done;
        const std::uint32_t part = std::min(pageSize - place % pageSize, length - done);
        const EccResult ecc = m_chip->Read(firstPage + place / pageSize, place % pageSize, part, data + done);
        result = std::max(result, ecc.Worst());
        done += part;
    }
    return result;
}

bool PartitionPebs::IsProgrammed(std::uint32_t peb, std::uint32_t offset) const {
    const NandGeometry &geometry = m_chip->Geometry();
    return m_chip->IsProgrammed((m_firstBlock + peb) * geometry.PagesPerBlock() + offset / geometry.pageSize);
}
