#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"
#include "verdict/FlashRanges.h"
#include "verdict/RunStory.h"
#include "verdict/UpdateLines.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// The run without trouble that all runs of a sweep are compared with.
struct ReferenceRun {
    std::vector<SimDevice> devices;
    std::vector<UpdateLine> lines;
    std::map<std::string, std::int64_t> files; ///< of the update, with their sizes in bytes
    RunOutcome outcome;
    RunStory story;
    std::array<std::uint64_t, kRequestKinds> requests;
    std::uint64_t changes;
    const NandChip &chip; ///< as the run left it, with its marks

    /// @return the range of a line that the run carried out on whole blocks of the flash.
    std::optional<FlashRange> DoneRange(std::size_t line) const;

    /// @return the good blocks of all ranges in which the run changed flash, ascending.
    std::vector<std::uint32_t> UsedBlocks() const;

    /// @return the text of the line with a number in the script; empty for 0.
    std::string TextOf(std::size_t number) const;
};

/// @return how many requests of each kind a run made.
std::array<std::uint64_t, kRequestKinds> CountRequests(const SimState &state);
