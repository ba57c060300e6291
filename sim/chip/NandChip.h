#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// Who keeps the error-correcting code of a page.
enum class Ecc : std::uint32_t {
    Host, ///< the kernel, in OOB bytes that only a normal write fills: raw writes leave none
    Chip, ///< the chip, out of sight: every read gives the data
};

/// Sizes of a chip, in bytes.
struct NandGeometry {
    static constexpr std::uint32_t kMaxPage = 16384; ///< most data bytes that a page can have

    std::uint64_t size;      ///< data bytes of the whole chip, OOB not counted
    std::uint32_t eraseSize; ///< data bytes of an erase block
    std::uint32_t pageSize;  ///< data bytes of a page
    std::uint32_t oobSize;   ///< out-of-band bytes of a page

    std::uint32_t Blocks() const { return static_cast<std::uint32_t>(size / eraseSize); }
    std::uint32_t PagesPerBlock() const { return eraseSize / pageSize; }
    std::uint32_t Pages() const { return static_cast<std::uint32_t>(size / pageSize); }
    /// Bytes of a page with its OOB, as they lie in the cells.
    std::uint32_t RawPageSize() const { return pageSize + oobSize; }
    /// Bytes of all pages with their OOB.
    std::uint64_t RawSize() const { return std::uint64_t{Pages()} * RawPageSize(); }

    /// @return nullptr when a chip can have these sizes, else what is wrong with them, in words without a full stop.
    const char *Problem(Ecc ecc) const;
};

/// Consecutive bytes of a page's OOB.
struct OobRegion {
    std::uint32_t offset;
    std::uint32_t length;
};

/// Use of the OOB bytes, in the order in which the kernel lists the regions.
struct OobLayout {
    /// The kernel's default layout for a chip of these sizes. `ecc` is empty with Ecc::Chip, and when the OOB has no
    /// room for the ECC bytes.
    OobLayout(const NandGeometry &geometry, Ecc ecc);

    std::vector<OobRegion> ecc;  ///< ECC bytes, step by step
    std::vector<OobRegion> free; ///< neither ECC nor bad-block mark; a region may be empty
};

/// The result of a read: the worst of its ECC steps.
enum class ReadResult {
    Clean,
    Corrected,     ///< at least one step had a bit turned to fit its ECC, rightly or not
    Uncorrectable, ///< at least one step fits its ECC in no way; the data is given all the same
};

/// What the ECC did in one read.
struct EccResult {
    std::uint32_t corrected = 0; ///< bits turned to fit the ECC, rightly or not
    std::uint32_t failed = 0;    ///< steps that no turned bit explains; their data is given as it is
    std::uint32_t mostBits = 0;  ///< most bits corrected in one step

    ReadResult Worst() const {
        return failed > 0 ? ReadResult::Uncorrectable : corrected > 0 ? ReadResult::Corrected : ReadResult::Clean;
    }
};

/// What has become of a block since ForgetMarks.
enum class BlockMark : std::uint8_t {
    Untouched,
    Erased,              ///< erased, nothing programmed since
    Written,             ///< erased, then programmed
    WrittenWithoutErase, ///< programmed, and not erased before that
    Bad,                 ///< known to be bad, whatever was done to it
};

/// How far a program or an erase gets. All but Whole are what a power cut can leave; power is lost afterwards.
enum class Extent : std::uint32_t {
    Whole,
    NotStarted,
    FirstHalf,  ///< the first half of the bytes, without OOB when there is data; the first half of a block's pages
    AllButLast, ///< as FirstHalf, but all except the last 16 bytes, or the last page of a block
    WithoutOob, ///< the data only; a block is erased
    Complete,   ///< as Whole, but nothing reports it
    Unstable,   ///< as Whole, but the pages are unstable
};
constexpr std::uint32_t kExtents = 7;

/// @return a hash for comparing bytes.
std::uint64_t HashBytes(const std::uint8_t *bytes, std::size_t length);

enum class AccessKind : std::uint8_t { AskBad, Read, Erase, Program, MarkBad };
/// One access to a chip.
struct ChipAccess;

/// Sees the accesses to a chip before they are carried out.
class ChipListener {
public:
    virtual void Saw(const ChipAccess &access) = 0;

protected:
    ~ChipListener() = default;
};

/// One NAND chip on memory that its owner provides.
///
/// Erased cells hold 0xFF; programming turns bits from 1 to 0 and never back. Blocks and pages are absolute numbers
/// and have to be on the chip; nothing here checks a range. All state is in the given memory, so processes that share
/// it share the chip. An object isn't used by two threads at once.
class NandChip {
public:
    using ReadResult = ::ReadResult;
    static constexpr std::uint32_t kMaxOob = 2048; ///< most OOB bytes that a page can have

    /// The chip's memory; it outlives the chip.
    struct Memory {
        std::uint8_t *cells;       ///< RawSize() bytes: page 0, its OOB, page 1, its OOB, ...
        std::uint8_t *pageStates;  ///< a byte a page; 0 is an erased page
        std::uint8_t *blockStates; ///< a byte a block; 0 is a good, untouched block
        /// Checksums of all pages and then of all blocks' states, kept with every change; null for none.
        std::uint64_t *sums = nullptr;
    };

    /// Bytes for one page. A null pointer leaves its area alone.
    struct PageProgram {
        const std::uint8_t *data = nullptr;
        std::uint32_t column = 0; ///< where in the page the data goes
        std::uint32_t length = 0; ///< data bytes, up to the page's end
        const std::uint8_t *oob = nullptr;
        std::uint32_t oobLength = 0; ///< OOB bytes, from the first one on
        bool withEcc = false;        ///< a normal write: with Ecc::Host its ECC bytes replace those of `oob`
        Extent extent = Extent::Whole;
    };

    struct Programmed {
        bool done;         ///< false when the chip says that the program failed
        bool overUnerased; ///< a bit that should have become 1 was 0 already and stayed so
    };

    /// @param geometry one without a Problem
    NandChip(const NandGeometry &geometry, Ecc ecc, const Memory &memory);

    /// Reports each question for a bad block, read, erase, program and bad-block mark from now on; nullptr ends that.
    void Listen(ChipListener *listener) { m_listener = listener; }

    /// Lets reads through this object age unstable pages: the first read of one is good, later ones have bit errors.
    void LetReadsAge() { m_bReadsAge = true; }

    const NandGeometry &Geometry() const { return m_geometry; }
    Ecc EccMode() const { return m_ecc; }
    /// Smallest part of a page that a normal or raw write may address, in bytes.
    std::uint32_t SubPageSize() const;
    const OobLayout &Layout() const { return m_layout; }
    /// ECC steps of a page in bytes, and the bits of a step that the ECC corrects.
    std::uint32_t EccStepSize() const;
    std::uint32_t EccStrength() const;
    /// The bytes of Layout().free.
    const std::vector<std::uint32_t> &FreeOob() const { return m_freeOob; }

    /// Sets all checksums to what pages and blocks are now.
    void SumAll();
    /// @return the pages that don't fit their checksums, and all pages of blocks whose state doesn't, ascending: they
    ///         were changed other than through a chip, or a process was killed while it changed them. Later changes
    ///         through a chip leave them misfits. None without checksums.
    std::vector<std::uint32_t> MisfitPages() const;
    /// The same for one block.
    bool HasMisfits(std::uint32_t block) const;

    /// Makes the memory that of a chip fresh from the factory: all erased, no bad blocks.
    void Format();

    bool IsBad(std::uint32_t block) const;
    /// Marks a block bad, in its state and in the OOB of its first page.
    void MarkBad(std::uint32_t block);
    /// Has a block known as bad, whatever its OOB says: the kernel's table of bad blocks.
    void SetBad(std::uint32_t block);
    /// @return whether the OOB of its first or second page has a bad-block marker, as a kernel that scans the chip sees
    ///         it; data that was put there looks the same.
    bool HasBadBlockMarker(std::uint32_t block) const;
    /// Makes bad every block with a marker, as the kernel does when it starts.
    void ScanForBadBlocks();
    /// Wears a block out: its erases are carried out from now on, but reported as failed.
    void MakeWeakBlock(std::uint32_t block);
    /// Wears a page out: its programs are carried out from now on, but reported as failed.
    void MakeWeakPage(std::uint32_t page);
    /// The same for all pages of a block.
    void MakeWeakPages(std::uint32_t block);

    /// @return whether a block, or a page, is worn out.
    bool IsWeakBlock(std::uint32_t block) const;
    bool IsWeakPage(std::uint32_t page) const;

    BlockMark Mark(std::uint32_t block) const;
    /// @return whether a block, good or bad, was erased or programmed since ForgetMarks.
    bool IsTouched(std::uint32_t block) const;
    /// Begins a new account: every block is untouched or bad.
    void ForgetMarks();

    /// Makes a block what it is on another chip of the same geometry, its mark and its badness included.
    void CopyBlock(const NandChip &other, std::uint32_t block);
    /// The cells and states of a block, taken out of a chip.
    struct BlockImage {
        std::vector<std::uint8_t> cells;
        std::vector<std::uint8_t> pageStates;
        std::uint8_t state = 0;
    };
    void SaveBlock(std::uint32_t block, BlockImage &image) const;
    void RestoreBlock(std::uint32_t block, const BlockImage &image);
    /// @return a hash of all that the answers to a page's reads and programs depend on: cells and state.
    std::uint64_t PageHash(std::uint32_t page) const;
    /// @return the properties of a block that answers depend on besides its pages: bad, worn out.
    std::uint8_t BlockTraits(std::uint32_t block) const;
    /// @return whether a block has an unstable page: one that reads well once and has bit errors later. Only an erase
    ///         makes the page stable.
    bool IsUnstable(std::uint32_t block) const;

    /// @return whether the cells of two blocks are equal, data and OOB of all pages.
    bool HasCellsOf(const NandChip &other, std::uint32_t otherBlock, std::uint32_t block) const;
    /// @return whether the OOB of a page is 0xFF but for the kernel's ECC, which is absent or valid: what a write of
    /// the data alone leaves, raw or not.
    bool HasPlainOob(std::uint32_t page) const;
    /// @return whether all pages of a block hold what they hold on another chip, data and OOB, or that with valid ECC
    /// where the other chip's OOB is blank. Lost ECC is a difference.
    bool HasDataOf(const NandChip &other, std::uint32_t block) const;
    /// @return whether a page was programmed since its block was erased, be it with 0xFF.
    bool IsProgrammed(std::uint32_t page) const;
    /// @return whether the cells of a block are all 0xFF.
    bool IsBlank(std::uint32_t block) const;

    /// @return false when the chip says that the erase failed.
    bool Erase(std::uint32_t block, Extent extent = Extent::Whole);

    Programmed Program(std::uint32_t page, const PageProgram &program);

    /// Reads page data through the ECC.
    /// @param column,length the part of the page that is wanted, in bytes
    EccResult Read(std::uint32_t page, std::uint32_t column, std::uint32_t length, std::uint8_t *data) const;

    /// The cells of a page as they are: pageSize bytes of data, then oobSize of OOB.
    const std::uint8_t *Cells(std::uint32_t page) const;

private:
    std::uint32_t MarkerPlace() const;
    std::uint8_t *CellsOf(std::uint32_t page) const;
    void Decay(std::uint32_t page) const;
    std::size_t RawBlockSize() const;
    void FillEcc(const PageProgram &program, std::uint8_t *oob) const;
    void SetMark(std::uint32_t block, BlockMark mark);
    std::uint64_t PageSum(std::uint32_t page) const;
    std::uint64_t BlockSum(std::uint32_t block) const;
    void Sum(std::uint32_t firstPage, std::uint32_t count, bool hasFit = true) const;
    bool FitsSum(std::uint32_t page) const;
    bool FitsBlockSum(std::uint32_t block) const;
    void See(AccessKind kind, std::uint32_t place) const;

    NandGeometry m_geometry;
    Ecc m_ecc;
    Memory m_memory;
    OobLayout m_layout;
    ChipListener *m_listener = nullptr;
    bool m_bReadsAge = false;
    std::vector<std::uint32_t> m_eccOob; ///< places of the ECC bytes in the OOB, step by step
    std::vector<std::uint32_t> m_freeOob;
};

struct ChipAccess {
    AccessKind kind;
    std::uint32_t place;                            ///< the page of Read and Program, else the block
    const NandChip::PageProgram *program = nullptr; ///< of Program
};
