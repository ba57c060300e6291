#include "chip/NandChip.h"

#include "chip/Hamming.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr std::uint8_t kErasedByte = 0xFF;
constexpr std::uint8_t kBadMark = 0x00;

constexpr std::uint32_t kMinOob = 8;
constexpr std::uint32_t kSmallPage = 512; ///< chips with pages up to this size lay out their OOB in the old way
constexpr std::uint64_t kMaxSize = std::uint64_t{1} << 38;

// State of a page. An erased page's cells, OOB included, are all 0xFF.
constexpr std::uint8_t kProgrammed = 0x01;
constexpr std::uint8_t kFitsEcc = 0x02; ///< data and stored ECC are known to agree
constexpr std::uint8_t kWeakPage = 0x80;

// State of a block: its mark and two flags.
constexpr std::uint8_t kMarkBits = 0x0F;
constexpr std::uint8_t kWeakBlock = 0x40;
constexpr std::uint8_t kBadBlock = 0x80;

// An ECC of the chip's own, as such chips commonly have it.
constexpr std::uint32_t kChipEccStep = 512;
constexpr std::uint32_t kChipEccStrength = 4;

std::vector<std::uint32_t> BytesOf(const std::vector<OobRegion> &regions) {
    std::vector<std::uint32_t> bytes;
    for (const OobRegion &region : regions) {
        for (std::uint32_t i = 0; i < region.length; ++i)
            bytes.push_back(region.offset + i);
    }
    return bytes;
}

constexpr bool IsPowerOfTwo(std::uint32_t number) { return number != 0 && (number & (number - 1)) == 0; }

/// Reads both ends of what is about to be written. In a mapped file a read brings in the neighbours as well, a write
/// costs a fault for each 4 KiB.
void Touch(const volatile std::uint8_t *cells, std::size_t length) {
    static_cast<void>(cells[0]);
    static_cast<void>(cells[length == 0 ? 0 : length - 1]);
}

/// Programs bytes into cells that may not be erased.
/// @return true when a bit stayed 0 that should have become 1.
bool ProgramOver(std::uint8_t *cells, const std::uint8_t *bytes, std::size_t length) {
    std::uint8_t lost = 0;
    for (std::size_t i = 0; i < length; ++i) {
        lost |= static_cast<std::uint8_t>(bytes[i] & ~cells[i]);
        cells[i] &= bytes[i];
    }
    return lost != 0;
}

} // namespace

const char *NandGeometry::Problem(Ecc ecc) const {
    if (!IsPowerOfTwo(pageSize) || pageSize < Hamming::kStep || pageSize > kMaxPage)
        return "the page size has to be a power of two from 256 bytes to 16 KiB";
    if (!IsPowerOfTwo(eraseSize) || eraseSize < 2 * pageSize)
        return "the erase block size has to be a power of two and hold at least two pages";
    if (size == 0 || size % eraseSize != 0 || size > kMaxSize)
        return "the chip size has to be a multiple of the erase block size, up to 256 GiB";
    if (oobSize < kMinOob || oobSize > NandChip::kMaxOob)
        return "the OOB size has to be from 8 to 2048 bytes";
    if (ecc == Ecc::Host && OobLayout(*this, ecc).ecc.empty())
        return "the OOB has no room for the kernel's ECC, 3 bytes for every 256 bytes of a page";
    return nullptr;
}

NandChip::NandChip(const NandGeometry &geometry, Ecc ecc, const Memory &memory)
    : m_geometry(geometry), m_ecc(ecc), m_memory(memory), m_layout(geometry, ecc), m_eccOob(BytesOf(m_layout.ecc)),
      m_freeOob(BytesOf(m_layout.free)) {}

std::uint32_t NandChip::EccStepSize() const { return m_ecc == Ecc::Host ? Hamming::kStep : kChipEccStep; }
std::uint32_t NandChip::EccStrength() const { return m_ecc == Ecc::Host ? 1 : kChipEccStrength; }

std::uint32_t NandChip::SubPageSize() const {
    // Chips that compute their own ECC take whole pages only; the kernel's allows 2 or 4 parts for these step counts.
    if (m_ecc == Ecc::Chip)
        return m_geometry.pageSize;
    switch (m_geometry.pageSize / Hamming::kStep) {
    case 2:
        return m_geometry.pageSize / 2;
    case 4:
    case 8:
    case 16:
        return m_geometry.pageSize / 4;
    default:
        return m_geometry.pageSize;
    }
}

void NandChip::Format() {
    std::memset(m_memory.cells, kErasedByte, static_cast<std::size_t>(m_geometry.RawSize()));
    std::memset(m_memory.pageStates, 0, m_geometry.Pages());
    std::memset(m_memory.blockStates, 0, m_geometry.Blocks());
}

bool NandChip::IsBad(std::uint32_t block) const { return (m_memory.blockStates[block] & kBadBlock) != 0; }

void NandChip::MarkBad(std::uint32_t block) {
    const std::uint32_t page = block * m_geometry.PagesPerBlock();
    m_memory.pageStates[page] |= kProgrammed;
    CellsOf(page)[MarkerPlace()] = kBadMark;
    SetBad(block);
}

void NandChip::SetBad(std::uint32_t block) { m_memory.blockStates[block] |= kBadBlock; }

/// @return the place of the marker among the cells of a page.
std::uint32_t NandChip::MarkerPlace() const {
    return m_geometry.pageSize + (m_geometry.pageSize <= kSmallPage ? 5 : 0);
}

bool NandChip::HasBadBlockMarker(std::uint32_t block) const {
    constexpr std::uint32_t kScannedPages = 2;
    const std::uint32_t first = block * m_geometry.PagesPerBlock();
    for (std::uint32_t page = first; page < first + std::min(kScannedPages, m_geometry.PagesPerBlock()); ++page) {
        if (Cells(page)[MarkerPlace()] != kErasedByte)
            return true;
    }
    return false;
}

void NandChip::ScanForBadBlocks() {
    for (std::uint32_t block = 0; block < m_geometry.Blocks(); ++block) {
        if (HasBadBlockMarker(block))
            SetBad(block);
    }
}

void NandChip::MakeWeakBlock(std::uint32_t block) { m_memory.blockStates[block] |= kWeakBlock; }

void NandChip::MakeWeakPage(std::uint32_t page) { m_memory.pageStates[page] |= kWeakPage; }

BlockMark NandChip::Mark(std::uint32_t block) const {
    return IsBad(block) ? BlockMark::Bad : static_cast<BlockMark>(m_memory.blockStates[block] & kMarkBits);
}

bool NandChip::IsTouched(std::uint32_t block) const { return (m_memory.blockStates[block] & kMarkBits) != 0; }

void NandChip::SetMark(std::uint32_t block, BlockMark mark) {
    std::uint8_t &state = m_memory.blockStates[block];
    state = static_cast<std::uint8_t>((state & ~kMarkBits) | static_cast<std::uint8_t>(mark));
}

bool NandChip::IsProgrammed(std::uint32_t page) const { return (m_memory.pageStates[page] & kProgrammed) != 0; }

void NandChip::ForgetMarks() {
    for (std::uint32_t block = 0; block < m_geometry.Blocks(); ++block)
        SetMark(block, BlockMark::Untouched);
}

void NandChip::CopyBlock(const NandChip &other, std::uint32_t block) {
    const std::uint32_t pages = m_geometry.PagesPerBlock();
    const std::uint32_t first = block * pages;
    std::memcpy(CellsOf(first), other.Cells(first), RawBlockSize());
    std::copy_n(other.m_memory.pageStates + first, pages, m_memory.pageStates + first);
    m_memory.blockStates[block] = other.m_memory.blockStates[block];
}

bool NandChip::HasCellsOf(const NandChip &other, std::uint32_t otherBlock, std::uint32_t block) const {
    const std::uint32_t pages = m_geometry.PagesPerBlock();
    return std::memcmp(Cells(block * pages), other.Cells(otherBlock * pages), RawBlockSize()) == 0;
}

bool NandChip::IsBlank(std::uint32_t block) const {
    const std::uint8_t *cells = Cells(block * m_geometry.PagesPerBlock());
    return std::all_of(cells, cells + RawBlockSize(), [](std::uint8_t byte) { return byte == kErasedByte; });
}

bool NandChip::Erase(std::uint32_t block, Extent extent) {
    const std::uint32_t pages = m_geometry.PagesPerBlock();
    const std::uint32_t first = block * pages;
    const std::uint32_t count = extent == Extent::Whole ? pages : pages / 2;
    for (std::uint32_t page = first; page < first + count; ++page) {
        std::uint8_t &state = m_memory.pageStates[page];
        if ((state & kProgrammed) == 0)
            continue;
        std::memset(CellsOf(page), kErasedByte, m_geometry.RawPageSize());
        state &= kWeakPage;
    }
    SetMark(block, BlockMark::Erased);
    return (m_memory.blockStates[block] & kWeakBlock) == 0;
}

NandChip::Programmed NandChip::Program(std::uint32_t page, const PageProgram &program) {
    std::uint8_t &state = m_memory.pageStates[page];
    const bool erased = (state & kProgrammed) == 0;
    // Told first: a process that is killed half-way leaves a page that isn't taken for erased.
    state = static_cast<std::uint8_t>((state & kWeakPage) | kProgrammed);

    std::uint8_t *cells = CellsOf(page);
    const bool half = program.extent == Extent::FirstHalf;
    bool lost = false;
    if (program.data != nullptr) {
        const std::uint32_t length = half ? program.length / 2 : program.length;
        if (erased) {
            Touch(cells + program.column, length);
            std::memcpy(cells + program.column, program.data, length);
        } else {
            lost = ProgramOver(cells + program.column, program.data, length);
        }
    }

    const std::uint8_t *oob = program.oob;
    std::uint32_t oobLength = program.oobLength;
    std::array<std::uint8_t, kMaxOob> merged;
    if (half) {
        oobLength = program.data != nullptr ? 0 : oobLength / 2;
    } else if (program.withEcc && program.data != nullptr && m_ecc == Ecc::Host) {
        std::fill_n(merged.begin(), m_geometry.oobSize, kErasedByte);
        if (oob != nullptr)
            std::copy_n(oob, oobLength, merged.begin());
        FillEcc(program, merged.data());
        oob = merged.data();
        oobLength = m_geometry.oobSize;
        if (erased)
            state |= kFitsEcc;
    }
    // 0xFF leaves an OOB byte alone, whatever it holds: a request can't leave out single bytes.
    std::uint8_t *oobCells = cells + m_geometry.pageSize;
    for (std::uint32_t i = 0; oob != nullptr && i < oobLength; ++i) {
        if (oob[i] != kErasedByte)
            lost = ProgramOver(oobCells + i, oob + i, 1) || lost;
    }

    const std::uint32_t block = page / m_geometry.PagesPerBlock();
    const auto mark = static_cast<BlockMark>(m_memory.blockStates[block] & kMarkBits);
    if (mark == BlockMark::Untouched)
        SetMark(block, BlockMark::WrittenWithoutErase);
    else if (mark == BlockMark::Erased)
        SetMark(block, BlockMark::Written);
    return {(state & kWeakPage) == 0, lost};
}

/// Puts the ECC of a program's data into the page's OOB bytes.
void NandChip::FillEcc(const PageProgram &program, std::uint8_t *oob) const {
    const std::uint32_t *place = &m_eccOob[std::size_t{program.column / Hamming::kStep} * Hamming::kBytes];
    for (std::uint32_t done = 0; done < program.length; done += Hamming::kStep) {
        for (const std::uint8_t code : Hamming::Compute(program.data + done))
            oob[*place++] = code;
    }
}

EccResult NandChip::Read(std::uint32_t page, std::uint32_t column, std::uint32_t length, std::uint8_t *data) const {
    const std::uint8_t *cells = Cells(page);
    const std::uint8_t state = m_memory.pageStates[page];
    std::memcpy(data, cells + column, length);
    EccResult result;
    if (m_ecc == Ecc::Chip || (state & kProgrammed) == 0 || (state & kFitsEcc) != 0)
        return result;

    constexpr std::uint32_t kStep = Hamming::kStep;
    const std::uint8_t *oob = cells + m_geometry.pageSize;
    for (std::uint32_t step = column / kStep; step * kStep < column + length; ++step) {
        const std::uint32_t start = step * kStep;
        std::uint8_t whole[kStep];
        std::memcpy(whole, cells + start, kStep);
        const std::uint32_t *places = &m_eccOob[std::size_t{step} * Hamming::kBytes];
        const int bits = Hamming::Correct(whole, {oob[places[0]], oob[places[1]], oob[places[2]]});
        if (bits < 0)
            ++result.failed;
        else
            result.corrected += static_cast<std::uint32_t>(bits);
        const std::uint32_t from = std::max(start, column);
        const std::uint32_t to = std::min(start + kStep, column + length);
        std::memcpy(data + (from - column), whole + (from - start), to - from);
    }
    result.mostBits = std::min(result.corrected, 1U);
    return result;
}

const std::uint8_t *NandChip::Cells(std::uint32_t page) const {
    return m_memory.cells + std::size_t{page} * m_geometry.RawPageSize();
}

std::size_t NandChip::RawBlockSize() const {
    return std::size_t{m_geometry.PagesPerBlock()} * m_geometry.RawPageSize();
}

std::uint8_t *NandChip::CellsOf(std::uint32_t page) {
    return m_memory.cells + std::size_t{page} * m_geometry.RawPageSize();
}
