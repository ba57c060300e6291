#pragma once

#include "chip/NandChip.h"
#include "mtd/RunSteps.h"
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
    const NandChip &chip;       ///< as the run left it, with its marks
    std::vector<RunStep> steps; ///< what the run did, with the bytes of programs; empty when this is not reproducible
    std::string whyNoSteps;     ///< for people; empty when there are steps
    /// For each change and each request of each kind: the number of the line that made it. Empty without steps.
    std::vector<std::size_t> changeLines;
    std::array<std::vector<std::size_t>, kRequestKinds> requestLines;

    /// @return the line of the n-th change, from 1; 0 when unknown.
    std::size_t LineOfChange(std::uint64_t change) const;
    /// @return the line of a fault's request; 0 when unknown or when the fault is of all requests of a kind.
    std::size_t LineOfFault(const SimFault &fault) const;

    std::vector<std::uint8_t> record; ///< holds the bytes of the steps

    /// Takes the steps of `record`, and finds their lines.
    void TakeSteps(std::vector<RunStep> read);

    /// @return the range of a line that the run carried out on whole blocks of the flash.
    std::optional<FlashRange> DoneRange(std::size_t line) const;

    /// @return the good blocks of all ranges in which the run changed flash, ascending.
    std::vector<std::uint32_t> UsedBlocks() const;

    /// @return the text of the line with a number in the script; empty for 0.
    std::string TextOf(std::size_t number) const;
};

/// @return how many requests of each kind a run made.
std::array<std::uint64_t, kRequestKinds> CountRequests(const SimState &state);
