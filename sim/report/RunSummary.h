#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"

#include <cstddef>
#include <string>
#include <vector>

/// The summary of a finished run, for people.
class RunSummary {
public:
    /// Copies what the summary needs.
    RunSummary(const NandChip &chip, const SimState &state, const RunOutcome &outcome);

    /// @return lines with the map of the chip, the requests by kind and how the updater ended.
    /// @param width columns of the terminal
    std::string Text(size_t width, bool inColour) const;

    /// @return the exit status that a shell shows for the updater: 128 plus the number for a signal.
    static int ShellStatus(const RunOutcome &outcome);

private:
    std::string m_requests;
    std::string m_ending;
    std::vector<BlockMark> m_marks;
    std::uint32_t m_nEraseSize;
};
