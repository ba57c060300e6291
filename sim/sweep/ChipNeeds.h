#pragma once

#include "chip/NandChip.h"
#include "mtd/RunSteps.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

/// What a recorded run needs of a chip to be the same run again.
///
/// A run depends on a chip only through the answers that it gets. The answers of a block depend on the block as it was
/// at the start: on its traits, and on the pages that the run looks at, or programs, before it erases the block. When
/// these are equal, so are all answers, and so is the run. The object follows a chip on which one block after the
/// other changes.
class ChipNeeds {
public:
    /// @param steps of the run; without bad-block marks
    /// @param before the chip at the run's start, which Follow continues with
    ChipNeeds(const std::vector<RunStep> &steps, const NandChip &before);

    /// Takes note of a block of the chip that has changed.
    void Follow(const NandChip &chip, std::uint32_t block);

    /// @return whether a run from the chip would be the recorded one.
    bool AreMet() const { return m_nUnmet == 0; }

    /// @return whether the run changes a block. The block is then the same after each run for which the needs are met.
    bool Changes(std::uint32_t block) const { return m_isChanged[block]; }

private:
    struct Needs {
        std::uint8_t traits = 0;
        std::map<std::uint32_t, std::uint64_t> pages; ///< hashes by page
        bool isMet = true;
    };

    std::unordered_map<std::uint32_t, Needs> m_needs; ///< by block
    std::vector<bool> m_isChanged;                    ///< by block
    std::size_t m_nUnmet = 0;                         ///< blocks
};
