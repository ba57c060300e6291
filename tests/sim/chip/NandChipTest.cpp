#include "chip/NandChip.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>

using Bytes = std::vector<std::uint8_t>;

namespace {

/// Corrected bits and failed steps.
using EccWork = std::pair<std::uint32_t, std::uint32_t>;
constexpr EccWork kClean = {0, 0};

constexpr NandGeometry kGeometry = {0x80000, 0x20000, 2048, 64};

/// A chip in plain memory.
struct Bench {
    explicit Bench(Ecc ecc = Ecc::Host, const NandGeometry &geometry = kGeometry)
        : cells(geometry.RawSize()), pages(geometry.Pages()), blocks(geometry.Blocks()),
          sums(geometry.Pages() + geometry.Blocks()),
          chip(geometry, ecc, {cells.data(), pages.data(), blocks.data(), sums.data()}) {
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

    std::pair<EccWork, Bytes> Read(std::uint32_t page) const {
        Bytes data(chip.Geometry().pageSize);
        const EccResult result = chip.Read(page, 0, chip.Geometry().pageSize, data.data());
        EXPECT_EQ(result.mostBits, result.corrected > 0 ? 1U : 0U);
        return {{result.corrected, result.failed}, data};
    }

    Bytes cells, pages, blocks;
    std::vector<std::uint64_t> sums;
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
    EXPECT_EQ(bench.Read(0), std::make_pair(kClean, data));
    bench.Program(0, Page({{300, 0x30}}), false);
    EXPECT_EQ(bench.Read(0), std::make_pair(EccWork{1, 0}, data));
    bench.Program(0, Page({{300, 0x10}}), false);
    EXPECT_EQ(bench.Read(0), std::make_pair(EccWork{0, 1}, Page({{7, 0x12}, {300, 0x10}, {2047, 0x01}})));

    // Without ECC bytes an odd number of ones looks like one turned bit, an even one like damage beyond mending.
    bench.Program(1, Page({{7, 0xFE}, {300, 0xFC}}), false);
    EXPECT_EQ(bench.Read(1), std::make_pair(EccWork{1, 1}, Page({{300, 0xFC}})));
    bench.Program(2, Page({}), false);
    EXPECT_EQ(bench.Read(2), std::make_pair(kClean, Page({})));

    Bench onChip(Ecc::Chip);
    onChip.Program(1, data, false);
    EXPECT_EQ(onChip.Read(1), std::make_pair(kClean, data));
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
        {{0x8000, 0x4000, 256, 8}, 0, 4, 256, Ecc::Host},
        {{0x8000, 0x4000, 512, 8}, 0, 0, 256, Ecc::Host},
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
}

TEST(NandChip, RefusesSizesThatNoChipHas) {
    const struct {
        NandGeometry geometry;
        Ecc ecc;
        bool isGood;
    } rows[] = {
        {{0x40000, 0x20000, 2048, 7}, Ecc::Chip, false},      {{0x40000, 0x20000, 2048, 8}, Ecc::Chip, true},
        {{0x40000, 0x20000, 2048, 2048}, Ecc::Chip, true},    {{0x40000, 0x20000, 2048, 2049}, Ecc::Chip, false},
        {{0x40000, 0x20000, 2048, 0}, Ecc::Chip, false},      {{0x40000, 0x20000, 2048, 25}, Ecc::Host, false},
        {{0x40000, 0x20000, 2048, 27}, Ecc::Host, true},      {{0x80000, 0x40000, 4096, 64}, Ecc::Host, false},
        {{0x8000, 0x4000, 512, 8}, Ecc::Host, true},          {{0x8000, 0x4000, 1024, 8}, Ecc::Host, false},
        {{0x30000, 0x20000, 2048, 64}, Ecc::Chip, false},     {{0, 0x20000, 2048, 64}, Ecc::Chip, false},
        {{0x40000, 0x20000, 128, 64}, Ecc::Chip, false},      {{0x40000, 0x20000, 32768, 64}, Ecc::Chip, false},
        {{0x40000, 0x20000, 16384, 512}, Ecc::Host, true},    {{0x40000, 0x20000, 2000, 64}, Ecc::Chip, false},
        {{0x30000, 0x18000, 2048, 64}, Ecc::Chip, false},     {{0x2000, 0x800, 2048, 64}, Ecc::Chip, false},
        {{0x4000000000, 0x20000, 2048, 64}, Ecc::Chip, true}, {{0x4000020000, 0x20000, 2048, 64}, Ecc::Chip, false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.geometry.Problem(row.ecc) == nullptr, row.isGood)
            << std::hex << row.geometry.size << " " << row.geometry.pageSize << " " << row.geometry.oobSize;
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

TEST(NandChip, ChecksumsFitAfterEveryChangeOfItsOwnAndNotAfterOthers) {
    const std::uint32_t pages = kGeometry.PagesPerBlock();
    Bench bench;
    Bench other;
    other.Program(pages, Page({{3, 0x21}}), true);
    NandChip::BlockImage image;
    other.chip.SaveBlock(1, image);
    bench.chip.LetReadsAge();
    const std::function<void()> changes[] = {
        [&] {
            bench.Program(2, Page({{9, 1}}), true, Extent::Unstable);
        },
        [&] { bench.Read(2); }, // the bit errors come
        [&] { bench.chip.Erase(0, Extent::Unstable); },
        [&] { bench.Read(0); },
        [&] { bench.chip.CopyBlock(other.chip, 1); },
        [&] { bench.chip.Erase(1, Extent::FirstHalf); },
        [&] { bench.chip.RestoreBlock(1, image); },
        [&] { bench.chip.MakeWeakBlock(1); },
        [&] { bench.chip.MakeWeakPages(2); },
        [&] { bench.chip.MarkBad(3); },
        [&] { bench.chip.ForgetMarks(); },
    };
    for (std::size_t i = 0; i < std::size(changes); ++i) {
        const std::vector<std::uint64_t> before = bench.sums;
        changes[i]();
        EXPECT_NE(bench.sums, before) << i;
        EXPECT_EQ(bench.chip.MisfitPages(), std::vector<std::uint32_t>()) << i;
    }
    // Any byte, and any two a word apart, changed alike.
    std::uint8_t *page = &bench.cells[std::size_t{5} * kGeometry.RawPageSize()];
    const auto flip = [page](std::uint32_t byte, unsigned mask) {
        std::uint8_t &changed = page[byte % kGeometry.RawPageSize()];
        changed = static_cast<std::uint8_t>(changed ^ mask);
    };
    for (std::uint32_t byte = 0; byte < kGeometry.RawPageSize(); ++byte) {
        for (const unsigned mask : {0x01U, 0x80U, 0xFFU}) {
            flip(byte, mask);
            EXPECT_TRUE(bench.chip.HasMisfits(5 / kGeometry.PagesPerBlock())) << byte;
            flip(byte + 8, mask);
            EXPECT_TRUE(bench.chip.HasMisfits(5 / kGeometry.PagesPerBlock())) << byte;
            flip(byte, mask);
            flip(byte + 8, mask);
        }
    }
    flip(0, 1);
    EXPECT_EQ(bench.chip.MisfitPages(), std::vector<std::uint32_t>{5});
    bench.chip.Format();
    EXPECT_EQ(bench.chip.MisfitPages(), std::vector<std::uint32_t>());
}

TEST(NandChip, TakesTheKernelsEccAndNothingElseInTheOobForPlain) {
    Bench bench;
    Bench other;
    for (std::uint32_t page = 0; page < 4; ++page)
        other.Program(page, Page({{3, 0x21}}), true);
    bench.Program(0, Page({{3, 0x21}}), true);
    bench.Program(1, Page({{3, 0x21}}), false);
    EXPECT_TRUE(bench.chip.HasPlainOob(0));
    EXPECT_TRUE(bench.chip.HasPlainOob(1));
    EXPECT_FALSE(other.chip.HasDataOf(bench.chip, 0)) << "two pages are missing";
    bench.Program(2, Page({{3, 0x21}}), false);
    bench.Program(3, Page({{3, 0x21}}), false);
    EXPECT_TRUE(other.chip.HasDataOf(bench.chip, 0)) << "with ECC in addition";
    EXPECT_FALSE(bench.chip.HasDataOf(other.chip, 0)) << "the ECC is lost";
    const std::size_t oob = std::size_t{1} * kGeometry.RawPageSize() + kGeometry.pageSize;
    bench.cells[oob + 2] = 0x7F; // no place of the ECC
    EXPECT_FALSE(bench.chip.HasPlainOob(1));
    EXPECT_FALSE(other.chip.HasDataOf(bench.chip, 0));
    bench.cells[oob + 2] = 0xFF;
    bench.cells[oob + 63] = 0x7F; // one of the ECC alone
    EXPECT_FALSE(bench.chip.HasPlainOob(1));
}
