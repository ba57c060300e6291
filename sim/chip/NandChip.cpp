#include "chip/NandChip.h"

#include "base/Bytes.h"
#include "chip/Hamming.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

namespace {

constexpr std::uint8_t kErasedByte = 0xFF;
constexpr std::uint8_t kBadMark = 0x00;

constexpr std::uint32_t kMinOob = 8;
constexpr std::uint32_t kSmallPage = 512; ///< chips with pages up to this size lay out their OOB in the old way
constexpr std::uint64_t kMaxSize = std::uint64_t{1} << 38;

// State of a page. An erased page's cells, OOB included, are all 0xFF.
constexpr std::uint8_t kProgrammed = 0x01;
constexpr std::uint8_t kFitsEcc = 0x02;  ///< data and stored ECC are known to agree
constexpr std::uint8_t kUnstable = 0x04; ///< power was lost at the end of a change; only set on programmed pages
constexpr std::uint8_t kDecayed = 0x08;  ///< an unstable page that was read: its bit errors have come
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

constexpr std::uint32_t kLastBytes = 16; ///< what Extent::AllButLast leaves out of a page
constexpr int kDecayedBits = 8;

/// @return how many of `count` bytes or pages an extent reaches.
std::uint32_t Reached(Extent extent, std::uint32_t count, std::uint32_t last) {
    switch (extent) {
    case Extent::NotStarted:
        return 0;
    case Extent::FirstHalf:
        return count / 2;
    case Extent::AllButLast:
        return count > last ? count - last : 0;
    default:
        return count;
    }
}

/// A fast hash of any bytes, for equality only.
class BytesHash {
public:
    void Add(const std::uint8_t *bytes, std::size_t length) {
        for (; length >= sizeof(std::uint64_t); bytes += sizeof(std::uint64_t), length -= sizeof(std::uint64_t)) {
            std::uint64_t word = 0;
            std::memcpy(&word, bytes, sizeof word);
            Mix(word);
        }
        std::uint64_t rest = length;
        for (std::size_t i = 0; i < length; ++i)
            rest = rest << 8 | bytes[i];
        Mix(rest);
    }
    std::uint64_t Value() const { return m_value; }

private:
    void Mix(std::uint64_t word) {
        m_value = (m_value ^ word) * 0x9E3779B97F4A7C15U;
        m_value ^= m_value >> 29;
    }

    std::uint64_t m_value = 0x2545F4914F6CDD1DU;
};

} // namespace

std::uint64_t HashBytes(const std::uint8_t *bytes, std::size_t length) {
    BytesHash hash;
    hash.Add(bytes, length);
    return hash.Value();
}

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
    SumAll();
}

/// A checksum that notices changes and is fast; whoever wants to fit it can.
std::uint64_t NandChip::PageSum(std::uint32_t page) const {
    // Several sums at a time, since each waits for its own last step only, and two words to a multiplication, which is
    // what takes the time. Written out: gcc leaves a loop of four a loop.
    constexpr std::size_t kLanes = 4;
    constexpr std::size_t kStep = kLanes * 2 * sizeof(std::uint64_t);
    const std::uint8_t *cells = CellsOf(page);
    std::uint64_t lanes[kLanes] = {1, 2, 3, 4};
    std::size_t done = 0;
    const auto mix = [&](std::size_t lane) {
        std::uint64_t words[2];
        std::memcpy(words, cells + done + lane * sizeof words, sizeof words);
        std::uint64_t &sum = lanes[lane];
        sum = ((sum + words[0]) ^ (words[1] << 29 | words[1] >> 35)) * 0x9E3779B97F4A7C15U;
        sum ^= sum >> 31;
    };
    for (; done + kStep <= m_geometry.RawPageSize(); done += kStep) {
        mix(0);
        mix(1);
        mix(2);
        mix(3);
    }
    BytesHash hash;
    hash.Add(reinterpret_cast<const std::uint8_t *>(lanes), sizeof lanes);
    hash.Add(cells + done, m_geometry.RawPageSize() - done);
    hash.Add(&m_memory.pageStates[page], 1);
    return hash.Value();
}

std::uint64_t NandChip::BlockSum(std::uint32_t block) const { return HashBytes(&m_memory.blockStates[block], 1); }

bool NandChip::FitsSum(std::uint32_t page) const {
    return m_memory.sums == nullptr || m_memory.sums[page] == PageSum(page);
}

bool NandChip::FitsBlockSum(std::uint32_t block) const {
    return m_memory.sums == nullptr || m_memory.sums[m_geometry.Pages() + block] == BlockSum(block);
}

/// Sets the checksums of pages of one block, and the block's.
/// @param hasFit whether all of them fitted before the change; else they do not fit afterwards either
void NandChip::Sum(std::uint32_t firstPage, std::uint32_t count, bool hasFit) const {
    if (m_memory.sums == nullptr)
        return;
    const std::uint64_t misfit = hasFit ? 0 : 1;
    for (std::uint32_t page = firstPage; page < firstPage + count; ++page)
        m_memory.sums[page] = PageSum(page) ^ misfit;
    const std::uint32_t block = firstPage / m_geometry.PagesPerBlock();
    m_memory.sums[m_geometry.Pages() + block] = BlockSum(block) ^ misfit;
}

void NandChip::SumAll() {
    for (std::uint32_t block = 0; block < m_geometry.Blocks(); ++block)
        Sum(block * m_geometry.PagesPerBlock(), m_geometry.PagesPerBlock());
}

std::vector<std::uint32_t> NandChip::MisfitPages() const {
    std::vector<std::uint32_t> misfits;
    for (std::uint32_t page = 0; m_memory.sums != nullptr && page < m_geometry.Pages(); ++page) {
        if (!FitsSum(page) || !FitsBlockSum(page / m_geometry.PagesPerBlock()))
            misfits.push_back(page);
    }
    return misfits;
}

bool NandChip::HasMisfits(std::uint32_t block) const {
    const std::uint32_t first = block * m_geometry.PagesPerBlock();
    bool fits = FitsBlockSum(block);
    for (std::uint32_t page = first; fits && page < first + m_geometry.PagesPerBlock(); ++page)
        fits = FitsSum(page);
    return !fits;
}

/// Reports an access to the listener.
void NandChip::See(AccessKind kind, std::uint32_t place) const {
    if (m_listener != nullptr)
        m_listener->Saw({kind, place});
}

bool NandChip::IsBad(std::uint32_t block) const {
    See(AccessKind::AskBad, block);
    return (m_memory.blockStates[block] & kBadBlock) != 0;
}

void NandChip::MarkBad(std::uint32_t block) {
    const std::uint32_t page = block * m_geometry.PagesPerBlock();
    m_memory.pageStates[page] |= kProgrammed;
    CellsOf(page)[MarkerPlace()] = kBadMark;
    Sum(page, 1);
    SetBad(block);
}

void NandChip::SetBad(std::uint32_t block) {
    See(AccessKind::MarkBad, block);
    m_memory.blockStates[block] |= kBadBlock;
    Sum(block * m_geometry.PagesPerBlock(), 0);
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
            SetBad(block);
    }
}

void NandChip::MakeWeakBlock(std::uint32_t block) {
    m_memory.blockStates[block] |= kWeakBlock;
    Sum(block * m_geometry.PagesPerBlock(), 0);
}

void NandChip::MakeWeakPage(std::uint32_t page) {
    m_memory.pageStates[page] |= kWeakPage;
    Sum(page, 1);
}

void NandChip::MakeWeakPages(std::uint32_t block) {
    for (std::uint32_t i = 0; i < m_geometry.PagesPerBlock(); ++i)
        MakeWeakPage(block * m_geometry.PagesPerBlock() + i);
}

bool NandChip::IsWeakBlock(std::uint32_t block) const { return (m_memory.blockStates[block] & kWeakBlock) != 0; }

bool NandChip::IsWeakPage(std::uint32_t page) const { return (m_memory.pageStates[page] & kWeakPage) != 0; }

BlockMark NandChip::Mark(std::uint32_t block) const {
    // A damaged state may hold any number.
    const std::uint8_t mark = m_memory.blockStates[block] & kMarkBits;
    return IsBad(block) ? BlockMark::Bad : std::min(static_cast<BlockMark>(mark), BlockMark::WrittenWithoutErase);
}

bool NandChip::IsTouched(std::uint32_t block) const { return (m_memory.blockStates[block] & kMarkBits) != 0; }

void NandChip::SetMark(std::uint32_t block, BlockMark mark) {
    std::uint8_t &state = m_memory.blockStates[block];
    state = static_cast<std::uint8_t>((state & ~kMarkBits) | static_cast<std::uint8_t>(mark));
}

bool NandChip::IsProgrammed(std::uint32_t page) const { return (m_memory.pageStates[page] & kProgrammed) != 0; }

void NandChip::ForgetMarks() {
    for (std::uint32_t block = 0; block < m_geometry.Blocks(); ++block) {
        SetMark(block, BlockMark::Untouched);
        Sum(block * m_geometry.PagesPerBlock(), 0);
    }
}

void NandChip::CopyBlock(const NandChip &other, std::uint32_t block) {
    const std::uint32_t pages = m_geometry.PagesPerBlock();
    const std::uint32_t first = block * pages;
    std::memcpy(CellsOf(first), other.Cells(first), RawBlockSize());
    std::copy_n(other.m_memory.pageStates + first, pages, m_memory.pageStates + first);
    m_memory.blockStates[block] = other.m_memory.blockStates[block];
    if (m_memory.sums == nullptr || other.m_memory.sums == nullptr) {
        Sum(first, pages);
        return;
    }
    std::copy_n(other.m_memory.sums + first, pages, m_memory.sums + first);
    m_memory.sums[m_geometry.Pages() + block] = other.m_memory.sums[m_geometry.Pages() + block];
}

void NandChip::SaveBlock(std::uint32_t block, BlockImage &image) const {
    const std::uint32_t pages = m_geometry.PagesPerBlock();
    const std::uint32_t first = block * pages;
    image.cells.assign(CellsOf(first), CellsOf(first) + RawBlockSize());
    image.pageStates.assign(m_memory.pageStates + first, m_memory.pageStates + first + pages);
    image.state = m_memory.blockStates[block];
}

void NandChip::RestoreBlock(std::uint32_t block, const BlockImage &image) {
    const std::uint32_t first = block * m_geometry.PagesPerBlock();
    std::copy(image.cells.begin(), image.cells.end(), CellsOf(first));
    std::copy(image.pageStates.begin(), image.pageStates.end(), m_memory.pageStates + first);
    m_memory.blockStates[block] = image.state;
    Sum(first, m_geometry.PagesPerBlock());
}

std::uint64_t NandChip::PageHash(std::uint32_t page) const {
    BytesHash hash;
    hash.Add(CellsOf(page), m_geometry.RawPageSize());
    hash.Add(m_memory.pageStates + page, 1);
    return hash.Value();
}

std::uint8_t NandChip::BlockTraits(std::uint32_t block) const {
    return static_cast<std::uint8_t>(m_memory.blockStates[block] & ~kMarkBits);
}

bool NandChip::IsUnstable(std::uint32_t block) const {
    const std::uint8_t *states = m_memory.pageStates + std::size_t{block} * m_geometry.PagesPerBlock();
    return std::any_of(states, states + m_geometry.PagesPerBlock(),
                       [](std::uint8_t state) { return (state & kUnstable) != 0; });
}

bool NandChip::HasCellsOf(const NandChip &other, std::uint32_t otherBlock, std::uint32_t block) const {
    const std::uint32_t pages = m_geometry.PagesPerBlock();
    return std::memcmp(Cells(block * pages), other.Cells(otherBlock * pages), RawBlockSize()) == 0;
}

bool NandChip::HasPlainOob(std::uint32_t page) const {
    std::vector<std::uint8_t> raw(Cells(page), Cells(page) + m_geometry.RawPageSize());
    std::uint8_t *oob = raw.data() + m_geometry.pageSize;
    if (IsErased(oob, m_geometry.oobSize))
        return true;
    for (const std::uint32_t place : m_eccOob)
        oob[place] = kErasedByte;
    if (m_ecc == Ecc::Chip || !IsErased(oob, m_geometry.oobSize))
        return false;
    const EccResult read = Read(page, 0, m_geometry.pageSize, raw.data());
    return read.failed == 0 && read.corrected == 0;
}

bool NandChip::HasDataOf(const NandChip &other, std::uint32_t block) const {
    const std::uint32_t first = block * m_geometry.PagesPerBlock();
    for (std::uint32_t page = first; page < first + m_geometry.PagesPerBlock(); ++page) {
        const std::uint8_t *cells = Cells(page);
        const std::uint8_t *wanted = other.Cells(page);
        const bool isEqual = std::memcmp(cells, wanted, m_geometry.RawPageSize()) == 0;
        const bool hasData = std::memcmp(cells, wanted, m_geometry.pageSize) == 0;
        const bool wantsNoEcc = IsErased(wanted + m_geometry.pageSize, m_geometry.oobSize);
        if (!isEqual && !(hasData && wantsNoEcc && HasPlainOob(page)))
            return false;
    }
    return true;
}

bool NandChip::IsBlank(std::uint32_t block) const {
    return IsErased(Cells(block * m_geometry.PagesPerBlock()), RawBlockSize());
}

bool NandChip::Erase(std::uint32_t block, Extent extent) {
    See(AccessKind::Erase, block);
    if (extent == Extent::NotStarted)
        return true;
    const std::uint32_t pages = m_geometry.PagesPerBlock();
    const std::uint32_t first = block * pages;
    const std::uint32_t count = Reached(extent, pages, 1);
    const bool hasFit = !HasMisfits(block);
    std::optional<std::uint32_t> erased; // a page that was erased and is like all such pages
    for (std::uint32_t page = first; page < first + count; ++page) {
        std::uint8_t &state = m_memory.pageStates[page];
        if ((state & kProgrammed) == 0)
            continue;
        std::memset(CellsOf(page), kErasedByte, m_geometry.RawPageSize());
        state &= kWeakPage;
        if (m_memory.sums == nullptr)
            continue;
        m_memory.sums[page] = state == 0 && erased ? m_memory.sums[*erased] : PageSum(page);
        if (state == 0)
            erased = page;
    }
    for (std::uint32_t page = first; extent == Extent::Unstable && page < first + pages; ++page)
        m_memory.pageStates[page] |= kProgrammed | kUnstable;
    SetMark(block, BlockMark::Erased);
    // The other pages are as before, with their sums.
    Sum(first, extent == Extent::Unstable || !hasFit ? pages : 0, hasFit);
    return (m_memory.blockStates[block] & kWeakBlock) == 0;
}

NandChip::Programmed NandChip::Program(std::uint32_t page, const PageProgram &program) {
    if (m_listener != nullptr)
        m_listener->Saw({AccessKind::Program, page, &program});
    if (program.extent == Extent::NotStarted)
        return {true, false};
    const std::uint32_t block = page / m_geometry.PagesPerBlock();
    const bool hasFit = FitsSum(page) && FitsBlockSum(block);
    std::uint8_t &state = m_memory.pageStates[page];
    const bool erased = (state & kProgrammed) == 0;
    // Recorded first: a process that is killed half-way leaves a page that isn't taken for erased.
    state = static_cast<std::uint8_t>((state & (kWeakPage | kUnstable)) | kProgrammed);
    if (program.extent == Extent::Unstable)
        state |= kUnstable;

    std::uint8_t *cells = CellsOf(page);
    const bool isTorn =
        program.extent != Extent::Whole && program.extent != Extent::Complete && program.extent != Extent::Unstable;
    bool lost = false;
    if (program.data != nullptr) {
        const std::uint32_t length = Reached(program.extent, program.length, kLastBytes);
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
    if (isTorn) {
        const bool hasNone = program.data != nullptr || program.extent == Extent::WithoutOob;
        oobLength = hasNone ? 0 : Reached(program.extent, oobLength, 1);
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

    const auto mark = static_cast<BlockMark>(m_memory.blockStates[block] & kMarkBits);
    if (mark == BlockMark::Untouched)
        SetMark(block, BlockMark::WrittenWithoutErase);
    else if (mark == BlockMark::Erased)
        SetMark(block, BlockMark::Written);
    Sum(page, 1, hasFit);
    return {(state & kWeakPage) == 0, lost};
}

/// Puts the ECC of a program's data into the page's OOB bytes. The kernel fills the page up with 0xFF, whose ECC is
/// 0xFF as well: that of the other steps changes no cell, whatever OOB bytes the request has there.
void NandChip::FillEcc(const PageProgram &program, std::uint8_t *oob) const {
    for (const std::uint32_t other : m_eccOob)
        oob[other] = kErasedByte;
    const std::uint32_t *place = &m_eccOob[std::size_t{program.column / Hamming::kStep} * Hamming::kBytes];
    for (std::uint32_t done = 0; done < program.length; done += Hamming::kStep) {
        for (const std::uint8_t code : Hamming::Compute(program.data + done))
            oob[*place++] = code;
    }
}

/// The bit errors of an unstable page: all in the same 256 bytes, so that no ECC corrects them.
void NandChip::Decay(std::uint32_t page) const {
    std::uint8_t *cells = CellsOf(page);
    for (int i = 0; i < kDecayedBits; ++i) {
        const std::uint32_t number[] = {page, static_cast<std::uint32_t>(i)};
        const std::uint64_t hash = HashBytes(reinterpret_cast<const std::uint8_t *>(number), sizeof number);
        cells[hash % Hamming::kStep] ^= static_cast<std::uint8_t>(1U << (hash >> 32) % 8);
    }
    std::uint8_t &state = m_memory.pageStates[page];
    state = static_cast<std::uint8_t>((state & ~kFitsEcc) | kDecayed);
    Sum(page, 1);
}

EccResult NandChip::Read(std::uint32_t page, std::uint32_t column, std::uint32_t length, std::uint8_t *data) const {
    See(AccessKind::Read, page);
    const std::uint8_t *cells = CellsOf(page);
    const std::uint8_t state = m_memory.pageStates[page];
    std::memcpy(data, cells + column, length);
    if (m_bReadsAge && (state & kUnstable) != 0 && (state & kDecayed) == 0) {
        Decay(page);
        return {};
    }
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
    See(AccessKind::Read, page);
    return CellsOf(page);
}

std::size_t NandChip::RawBlockSize() const {
    return std::size_t{m_geometry.PagesPerBlock()} * m_geometry.RawPageSize();
}

std::uint8_t *NandChip::CellsOf(std::uint32_t page) const {
    return m_memory.cells + std::size_t{page} * m_geometry.RawPageSize();
}
