#pragma once

#include "UbiCases.h"

#include "ubi/UbiAttach.h"

#include <algorithm>
#include <cstdint>
#include <vector>

/// Sizes of the chip that the images of make-images are for.
constexpr UbiGeometry kUbiChip{128 * 1024, 2048, 512};

/// A chip in memory that is one partition.
struct MemoryChip {
    NandGeometry geometry;
    std::vector<std::uint8_t> cells;
    std::vector<std::uint8_t> pages;
    std::vector<std::uint8_t> blocks;
    NandChip chip;

    explicit MemoryChip(std::uint32_t count, Ecc ecc = Ecc::Host)
        : geometry{std::uint64_t{count} * kUbiChip.pebSize, kUbiChip.pebSize, kUbiChip.pageSize, 64},
          cells(geometry.RawSize()), pages(geometry.Pages()), blocks(count),
          chip(geometry, ecc, {cells.data(), pages.data(), blocks.data()}) {
        chip.Format();
    }

    /// Writes an image to the good blocks from one on, as `nandwrite` does.
    void Write(const std::vector<std::uint8_t> &image, bool withEcc = true, std::uint32_t block = 0) {
        for (std::size_t place = 0; place < image.size(); place += geometry.pageSize) {
            while (place % geometry.eraseSize == 0 && chip.IsBad(block))
                ++block;
            std::vector<std::uint8_t> page(geometry.pageSize, 0xFF);
            std::copy_n(&image[place], std::min<std::size_t>(page.size(), image.size() - place), page.begin());
            NandChip::PageProgram program;
            program.data = page.data();
            program.length = geometry.pageSize;
            program.withEcc = withEcc;
            const auto pageInBlock = static_cast<std::uint32_t>(place % geometry.eraseSize / geometry.pageSize);
            chip.Program(block * geometry.PagesPerBlock() + pageInBlock, program);
            block += pageInBlock + 1 == geometry.PagesPerBlock() ? 1 : 0;
        }
    }

    void Erase() {
        for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
            if (!chip.IsBad(block))
                chip.Erase(block);
        }
    }

    PartitionPebs Pebs() const { return PartitionPebs(chip, 0, geometry.size); }
    UbiAttachment Attach() const { return AttachUbi(Pebs(), kUbiChip, {2048, 20}); }
};
