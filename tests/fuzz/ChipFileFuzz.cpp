// A chip's files. The input is the description, FLASH.chip; the cells repeat its end and have the right length, unless
// the last byte of the input is odd.

#include "Fuzz.h"
#include "chip/ChipFile.h"
#include "report/ChipMap.h"
#include "report/MarkLooks.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::uint64_t kMostCells = 1 << 20;
constexpr std::size_t kGeometryPlace = 16; ///< after the magic number

void UseChip(NandChip &chip) {
    const NandGeometry &geometry = chip.Geometry();
    std::vector<std::uint8_t> data(geometry.pageSize);
    chip.LetReadsAge();
    chip.ScanForBadBlocks();
    for (std::uint32_t page = 0; page < std::min(geometry.Pages(), 64U); ++page) {
        chip.Read(page, 0, geometry.pageSize, data.data());
        chip.HasPlainOob(page);
        NandChip::PageProgram program;
        program.data = data.data();
        program.length = geometry.pageSize;
        program.withEcc = page % 2 == 0;
        program.extent = static_cast<Extent>(page % kExtents);
        chip.Program(page, program);
    }
    static_cast<void>(ChipMap(ChipMarks(chip), geometry.eraseSize).Text(80, true));
    for (std::uint32_t block = 0; block < std::min(geometry.Blocks(), 64U); ++block) {
        chip.Erase(block, static_cast<Extent>(block % kExtents));
        chip.IsUnstable(block);
        chip.IsBlank(block);
    }
    chip.MarkBad(geometry.Blocks() - 1);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const std::vector<std::uint8_t> states(bytes, bytes + size);
    const std::string path = FuzzFolder().File("flash");
    WriteBytes(path + ".chip", states);
    std::uint64_t length = 1000;
    NandGeometry geometry = {};
    if (size >= kGeometryPlace + sizeof geometry)
        std::memcpy(&geometry, bytes + kGeometryPlace, sizeof geometry);
    if (size != 0 && bytes[size - 1] % 2 == 0 && geometry.Problem(Ecc::Chip) == nullptr)
        length = std::min(geometry.RawSize(), kMostCells);
    std::vector<std::uint8_t> cells(static_cast<std::size_t>(length));
    for (std::size_t i = 0; i < cells.size(); ++i)
        cells[i] = size == 0 ? 0xFF : bytes[size - 1 - i % std::min<std::size_t>(size, 61)];
    WriteBytes(path, cells);
    MayRefuse([&] {
        ChipFile::AddSums(path);
        ChipFile file(path);
        UseChip(file.Chip());
        static_cast<void>(file.Chip().MisfitPages());
    });
    MayRefuse([&] { UseChip(ChipFile::OpenPrivate(path).Chip()); });
    MayRefuse([&] { ChipFile::Keep(path, FuzzFolder().File("kept")); });
    MayRefuse([&] { ChipFile::Recover(path); });
    return 0;
}
