#include "chip/NandChip.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr std::uint8_t kErasedByte = 0xFF;
constexpr std::uint8_t kBadMark = 0x00;

constexpr std::uint32_t kMinOob = 8;
constexpr std::uint32_t kMaxPage = 16384;
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

// The kernel's software Hamming ECC: three bytes for every 256 bytes of data, which mend one bit.
constexpr std::uint32_t kEccStep = 256;
constexpr std::uint32_t kEccBytes = 3;
using EccCode = std::array<std::uint8_t, kEccBytes>;

constexpr bool IsPowerOfTwo(std::uint32_t number) { return number != 0 && (number & (number - 1)) == 0; }

std::uint32_t Parity(std::uint32_t bits) { return static_cast<std::uint32_t>(__builtin_parity(bits)); }

/// Two parities for each of the address bits in `odd`: of the bits where it is 1, and of those where it is 0.
std::uint32_t ParityPairs(std::uint32_t odd, std::uint32_t total, int addressBits) {
    std::uint32_t pairs = 0;
    for (int bit = 0; bit < addressBits; ++bit) {
        const std::uint32_t one = odd >> bit & 1;
        pairs |= (one << 1 | (one ^ total)) << (2 * bit);
    }
    return pairs;
}

EccCode ComputeEcc(const std::uint8_t *data) {
    std::uint32_t column = 0;
    std::uint32_t oddBytes = 0; // the addresses of all bytes with an odd number of ones, added up bit by bit
    for (std::uint32_t i = 0; i < kEccStep; ++i) {
        column ^= data[i];
        oddBytes ^= i & (0U - Parity(data[i]));
    }
    const std::uint32_t total = Parity(column);
    const std::uint32_t bytePairs = ParityPairs(oddBytes, total, 8);
    const std::uint32_t oddBits = Parity(column & 0xAA) | Parity(column & 0xCC) << 1 | Parity(column & 0xF0) << 2;
    const std::uint32_t bitPairs = ParityPairs(oddBits, total, 3);
    // Stored inverted, so that erased data fits erased ECC.
    return {static_cast<std::uint8_t>(~(bytePairs >> 8)), static_cast<std::uint8_t>(~bytePairs),
            static_cast<std::uint8_t>(~(bitPairs << 2))};
}

/// The address that the odd bits of `pairs` spell.
std::uint32_t OddBits(std::uint32_t pairs, int addressBits) {
    std::uint32_t address = 0;
    for (int bit = 0; bit < addressBits; ++bit)
        address |= (pairs >> (2 * bit + 1) & 1) << bit;
    return address;
}

/// Mends one step as the kernel does, which takes any difference that looks like one turned bit for one.
NandChip::ReadResult CorrectStep(std::uint8_t *data, const EccCode &stored) {
    const EccCode computed = ComputeEcc(data);
    const auto differing = [&](std::size_t i) { return static_cast<std::uint32_t>(stored[i] ^ computed[i]); };
    const std::uint32_t difference = differing(0) << 16 | differing(1) << 8 | differing(2);
    if (difference == 0)
        return NandChip::ReadResult::Clean;
    constexpr std::uint32_t kOneOfEachPair = 0x555554;
    if (((difference ^ difference >> 1) & kOneOfEachPair) == kOneOfEachPair) {
        data[OddBits(difference >> 8, 8)] ^= static_cast<std::uint8_t>(1U << OddBits(difference >> 2, 3));
        return NandChip::ReadResult::Corrected;
    }
    const bool onlyEccBit = (difference & (difference - 1)) == 0;
    return onlyEccBit ? NandChip::ReadResult::Corrected : NandChip::ReadResult::Uncorrectable;
}

/// Where the kernel's default layouts put the ECC bytes; empty when the OOB has no room for them.
std::vector<std::uint32_t> EccPlaces(const NandGeometry &geometry) {
    const std::uint32_t total = geometry.pageSize / kEccStep * kEccBytes;
    const bool old = geometry.oobSize <= 16;
    std::uint32_t place = 0;
    if (geometry.oobSize == 64)
        place = 40;
    else if (geometry.oobSize == 128)
        place = 80;
    else if (!old) // the kernel has no layout of its own for these
        place = geometry.oobSize > total + 2 ? geometry.oobSize - total : geometry.oobSize;
    std::vector<std::uint32_t> places;
    for (; places.size() < total && place < geometry.oobSize; ++place) {
        const bool reserved = old && (place == 4 || place == 5);
        if (!reserved)
            places.push_back(place);
    }
    if (places.size() < total)
        places.clear();
    return places;
}

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
    if (!IsPowerOfTwo(pageSize) || pageSize < kEccStep || pageSize > kMaxPage)
        return "the page size has to be a power of two from 256 bytes to 16 KiB";
    if (!IsPowerOfTwo(eraseSize) || eraseSize < 2 * pageSize)
        return "the erase block size has to be a power of two and hold at least two pages";
    if (size == 0 || size % eraseSize != 0 || size > kMaxSize)
        return "the chip size has to be a multiple of the erase block size, up to 256 GiB";
    if (oobSize < kMinOob || oobSize > NandChip::kMaxOob)
        return "the OOB size has to be from 8 to 2048 bytes";
    if (ecc == Ecc::Host && EccPlaces(*this).empty())
        return "the OOB has no room for the kernel's ECC, 3 bytes for every 256 bytes of a page";
    return nullptr;
}

NandChip::NandChip(const NandGeometry &geometry, Ecc ecc, const Memory &memory)
    : m_geometry(geometry), m_ecc(ecc), m_memory(memory) {
    if (ecc == Ecc::Host)
        m_eccOob = EccPlaces(geometry);
    const bool old = geometry.oobSize <= 16;
    for (std::uint32_t place = old ? 8 : 2; place < geometry.oobSize; ++place) {
        if (std::find(m_eccOob.begin(), m_eccOob.end(), place) == m_eccOob.end())
            m_freeOob.push_back(place);
    }
}

std::uint32_t NandChip::SubPageSize() const {
    // Chips that compute their own ECC take whole pages only; the kernel's allows 2 or 4 parts for these step counts.
    if (m_ecc == Ecc::Chip)
        return m_geometry.pageSize;
    switch (m_geometry.pageSize / kEccStep) {
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
    m_memory.blockStates[block] |= kBadBlock;
}

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
            m_memory.blockStates[block] |= kBadBlock;
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
    const std::uint32_t *place = &m_eccOob[std::size_t{program.column / kEccStep} * kEccBytes];
    for (std::uint32_t done = 0; done < program.length; done += kEccStep) {
        for (const std::uint8_t code : ComputeEcc(program.data + done))
            oob[*place++] = code;
    }
}

NandChip::ReadResult NandChip::Read(std::uint32_t page, std::uint32_t column, std::uint32_t length,
                                    std::uint8_t *data) const {
    const std::uint8_t *cells = Cells(page);
    const std::uint8_t state = m_memory.pageStates[page];
    std::memcpy(data, cells + column, length);
    if (m_ecc == Ecc::Chip || (state & kProgrammed) == 0 || (state & kFitsEcc) != 0)
        return ReadResult::Clean;

    ReadResult result = ReadResult::Clean;
    const std::uint8_t *oob = cells + m_geometry.pageSize;
    for (std::uint32_t step = column / kEccStep; step * kEccStep < column + length; ++step) {
        const std::uint32_t start = step * kEccStep;
        std::uint8_t whole[kEccStep];
        std::memcpy(whole, cells + start, kEccStep);
        const std::uint32_t *places = &m_eccOob[std::size_t{step} * kEccBytes];
        const ReadResult mended = CorrectStep(whole, {oob[places[0]], oob[places[1]], oob[places[2]]});
        result = std::max(result, mended);
        const std::uint32_t from = std::max(start, column);
        const std::uint32_t to = std::min(start + kEccStep, column + length);
        std::memcpy(data + (from - column), whole + (from - start), to - from);
    }
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
