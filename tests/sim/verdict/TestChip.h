#pragma once

#include "chip/NandChip.h"

#include <cstdint>
#include <vector>

/// A formatted chip in memory.
struct TestChip {
    explicit TestChip(const NandGeometry &geometry, Ecc ecc = Ecc::Host)
        : cells(geometry.RawSize()), pages(geometry.Pages()), blocks(geometry.Blocks()),
          chip(geometry, ecc, {cells.data(), pages.data(), blocks.data()}) {
        chip.Format();
    }

    /// Programs the first bytes of a page and of its OOB.
    void Program(std::uint32_t page, const std::vector<std::uint8_t> &data, const std::vector<std::uint8_t> &oob = {},
                 bool withEcc = false) {
        NandChip::PageProgram program;
        program.data = data.data();
        program.length = static_cast<std::uint32_t>(data.size());
        program.oob = oob.data();
        program.oobLength = static_cast<std::uint32_t>(oob.size());
        program.withEcc = withEcc;
        chip.Program(page, program);
    }

    std::vector<std::uint8_t> cells, pages, blocks;
    NandChip chip;
};
