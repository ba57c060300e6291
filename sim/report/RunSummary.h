#pragma once

#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"

#include <cstddef>
#include <string>
#include <vector>

/// What is to be told of a finished run, for people.
class RunSummary {
public:
    /// The three are looked at once, here.
    RunSummary(const NandChip &chip, const SimState &state, const RunOutcome &outcome);

    /// The chip's map, the requests by kind and how the updater ended, as lines.
    /// @param width columns of the terminal
    std::string Text(size_t width, bool inColour) const;

    /// The exit status by which a shell would tell how the updater ended: 128 and the number for a signal.
    static int ShellStatus(const RunOutcome &outcome);

private:
    std::string m_requests;
    std::string m_ending;
    std::vector<BlockMark> m_marks;
    std::uint32_t m_nEraseSize;
};
