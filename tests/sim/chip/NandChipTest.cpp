#include "chip/NandChip.h"

#include <algorithm>
#include <gtest/gtest.h>

using Bytes = std::vector<std::uint8_t>;
using ReadResult = NandChip::ReadResult;

namespace {

constexpr NandGeometry kGeometry = {0x80000, 0x20000, 2048, 64};

/// A chip in plain memory.
struct Bench {
    explicit Bench(Ecc ecc = Ecc::Host, const NandGeometry &geometry = kGeometry)
        : cells(geometry.RawSize()), pages(geometry.Pages()), blocks(geometry.Blocks()),
          chip(geometry, ecc, {cells.data(), pages.data(), blocks.data()}) {
        chip.Format();
    }

    NandChip::Programmed Program(std::uint32_t page, const Bytes &data, bool withEcc, Extent extent = Extent::Whole) {
        NandChip::PageProgram program;
        program.data = data.data();
        program.length = static_cast<std::uint32_t>(data.size());
        program.withEcc = withEcc;
        program.extent = extent;
        return chip.Program(page, program);
    }

    std::pair<ReadResult, Bytes> Read(std::uint32_t page) const {
        Bytes data(chip.Geometry().pageSize);
        const ReadResult result = chip.Read(page, 0, chip.Geometry().pageSize, data.data());
        return {result, data};
    }

    Bytes cells, pages, blocks;
    NandChip chip;
};

/// An erased page but for some bytes.
Bytes Page(const std::vector<std::pair<std::size_t, std::uint8_t>> &bytes, std::size_t size = kGeometry.pageSize) {
    Bytes page(size, 0xFF);
    for (const auto &[place, value] : bytes)
        page[place] = value;
    return page;
}

} // namespace

TEST(NandChip, ProgrammingOnlyClearsBitsAndTellsWhatThatLost) {
    Bench bench(Ecc::Chip);
    EXPECT_FALSE(bench.Program(1, Page({{0, 0xF0}}), false).overUnerased);
    EXPECT_FALSE(bench.Program(1, Page({{0, 0x30}, {1, 0x55}}), false).overUnerased);
    EXPECT_TRUE(bench.Program(1, Page({{0, 0xCC}}), false).overUnerased);
    EXPECT_EQ(bench.Read(1).second, Page({{0, 0x00}, {1, 0x55}}));
}

TEST(NandChip, EccBytesAreTheKernelsOwn) {
    const struct {
        std::size_t place;
        std::uint8_t value;
        Bytes code;
    } rows[] = {
        {0, 0xFE, {0xAA, 0xAA, 0xAB}}, {255, 0x7F, {0x55, 0x55, 0x57}}, {15, 0xFE, {0xAA, 0x55, 0xAB}},
        {1, 0xFC, {0xFF, 0xFF, 0xF3}}, {2, 0xFF, {0xFF, 0xFF, 0xFF}},
    };
    for (const auto &row : rows) {
        Bench bench;
        bench.Program(5, Page({{512 + row.place, row.value}}), true);
        const std::uint8_t *oob = bench.chip.Cells(5) + kGeometry.pageSize;
        EXPECT_EQ(Bytes(oob + 46, oob + 49), row.code) << row.place;
    }
}

TEST(NandChip, NormalReadMendsOneBitOfANormalPageAndHarmsARawOne) {
    const Bytes data = Page({{7, 0x12}, {300, 0x34}, {2047, 0x01}});
    Bench bench;
    bench.Program(0, data, true);
    EXPECT_EQ(bench.Read(0), std::make_pair(ReadResult::Clean, data));
    bench.Program(0, Page({{300, 0x30}}), false);
    EXPECT_EQ(bench.Read(0), std::make_pair(ReadResult::Corrected, data));
    bench.Program(0, Page({{300, 0x10}}), false);
    EXPECT_EQ(bench.Read(0), std::make_pair(ReadResult::Uncorrectable, Page({{7, 0x12}, {300, 0x10}, {2047, 0x01}})));

    // Without ECC bytes an odd number of ones looks like one turned bit, an even one like damage beyond mending.
    bench.Program(1, Page({{7, 0xFE}, {300, 0xFC}}), false);
    EXPECT_EQ(bench.Read(1), std::make_pair(ReadResult::Uncorrectable, Page({{300, 0xFC}})));
    bench.Program(2, Page({}), false);
    EXPECT_EQ(bench.Read(2), std::make_pair(ReadResult::Clean, Page({})));

    Bench onChip(Ecc::Chip);
    onChip.Program(1, data, false);
    EXPECT_EQ(onChip.Read(1), std::make_pair(ReadResult::Clean, data));
}

TEST(NandChip, LayoutFollowsTheSizes) {
    const struct {
        NandGeometry geometry;
        std::ptrdiff_t firstEcc;
        std::size_t freeBytes;
        std::uint32_t subPage;
        Ecc ecc;
    } rows[] = {
        {{0x8000, 0x4000, 512, 16}, 0, 8, 256, Ecc::Host},
        {{0x40000, 0x20000, 2048, 64}, 40, 38, 512, Ecc::Host},
        {{0x80000, 0x40000, 4096, 128}, 80, 78, 1024, Ecc::Host},
        {{0x80000, 0x40000, 4096, 224}, 176, 174, 1024, Ecc::Host},
        {{0x40000, 0x20000, 2048, 64}, 64, 62, 2048, Ecc::Chip},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(row.geometry.Problem(row.ecc), nullptr);
        Bench bench(row.ecc, row.geometry);
        bench.Program(2, Page({{0, 0xFE}}, row.geometry.pageSize), true);
        const std::uint8_t *oob = bench.chip.Cells(2) + row.geometry.pageSize;
        EXPECT_EQ(std::find(oob, oob + row.geometry.oobSize, 0xAA) - oob, row.firstEcc);
        EXPECT_EQ(bench.chip.FreeOob().size(), row.freeBytes);
        EXPECT_EQ(bench.chip.SubPageSize(), row.subPage);
    }
    EXPECT_NE((NandGeometry{0x80000, 0x40000, 4096, 64}).Problem(Ecc::Host), nullptr);
    EXPECT_NE((NandGeometry{0x30000, 0x20000, 2048, 64}).Problem(Ecc::Chip), nullptr);
}

TEST(NandChip, MarksTellWhatBecameOfABlock) {
    const std::uint32_t pages = kGeometry.PagesPerBlock();
    Bench bench;
    bench.chip.MarkBad(3);
    EXPECT_EQ(bench.chip.Cells(3 * pages)[kGeometry.pageSize], 0);
    bench.Program(0, Page({}), false);
    EXPECT_EQ(bench.chip.Mark(0), BlockMark::WrittenWithoutErase);
    EXPECT_TRUE(bench.chip.Erase(0));
    EXPECT_EQ(bench.chip.Mark(0), BlockMark::Erased);
    bench.Program(pages - 1, Page({}), false);
    EXPECT_EQ(bench.chip.Mark(0), BlockMark::Written);
    EXPECT_EQ(bench.chip.Mark(1), BlockMark::Untouched);
    bench.chip.ForgetMarks();
    EXPECT_EQ(bench.chip.Mark(0), BlockMark::Untouched);
    EXPECT_EQ(bench.chip.Mark(3), BlockMark::Bad);
}

TEST(NandChip, WornPartsDoTheirWorkAndReportAFailure) {
    Bench bench(Ecc::Chip);
    bench.chip.MakeWeakPage(1);
    EXPECT_FALSE(bench.Program(1, Page({{9, 1}}), false).done);
    EXPECT_EQ(bench.Read(1).second, Page({{9, 1}}));
    bench.chip.MakeWeakBlock(0);
    EXPECT_FALSE(bench.chip.Erase(0));
    EXPECT_EQ(bench.Read(1).second, Page({}));
    EXPECT_FALSE(bench.Program(1, Page({}), false).done);
    EXPECT_TRUE(bench.Program(2, Page({}), false).done);
}
