#include "report/RunSummary.h"

#include "report/ChipMap.h"
#include "report/MarkLooks.h"

#include <cstring>
#include <sys/wait.h>

RunSummary::RunSummary(const NandChip &chip, const SimState &state, const RunOutcome &outcome)
    : m_marks(ChipMarks(chip)), m_nEraseSize(chip.Geometry().eraseSize) {
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind) {
        const auto request = static_cast<RequestKind>(kind);
        if (state.Requests(request) > 0)
            m_requests += std::string("  ") + RequestName(request) + " " + std::to_string(state.Requests(request));
    }

    if (outcome.isInterrupted)
        m_ending = "the run was interrupted";
    else if (WIFSIGNALED(outcome.status))
        m_ending = "the updater was ended by signal " + std::to_string(WTERMSIG(outcome.status)) + " (" +
                   strsignal(WTERMSIG(outcome.status)) + ")";
    else
        m_ending = "the updater ended with exit status " + std::to_string(WEXITSTATUS(outcome.status));
}

std::string RunSummary::Text(size_t width, bool inColour) const {
    std::string text = ChipMap(m_marks, m_nEraseSize).Text(width, inColour);
    return text + "requests:" + (m_requests.empty() ? "  none" : m_requests) + "\n" + m_ending + "\n";
}

int RunSummary::ShellStatus(const RunOutcome &outcome) {
    return WIFSIGNALED(outcome.status) ? 128 + WTERMSIG(outcome.status) : WEXITSTATUS(outcome.status);
}
