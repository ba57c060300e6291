#include "RunSummary.h"

#include "ChipMap.h"

#include <cstring>
#include <map>
#include <sstream>
#include <sys/wait.h>

namespace {

/// Gathers the notes of a trace, "note: page at OFFSET TEXT", to one line a text.
std::vector<std::string> GatherNotes(const std::string &trace) {
    constexpr const char *kBefore = "note: page at ";
    struct Note {
        size_t count = 0;
        std::string firstPlace;
    };
    std::map<std::string, Note> notes;
    std::istringstream lines(trace);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(kBefore, 0) != 0)
            continue;
        const size_t placeAt = strlen(kBefore);
        const size_t textAt = line.find(' ', placeAt);
        Note &note = notes[line.substr(textAt + 1)];
        if (note.count++ == 0)
            note.firstPlace = line.substr(placeAt, textAt - placeAt);
    }
    std::vector<std::string> gathered;
    gathered.reserve(notes.size());
    for (const auto &[text, note] : notes)
        gathered.push_back(std::to_string(note.count) + (note.count == 1 ? " page " : " pages ") + text +
                           (note.count == 1 ? ", at " : ", the first at ") + note.firstPlace);
    return gathered;
}

} // namespace

RunSummary::RunSummary(const NandChip &chip, const SimState &state, const RunOutcome &outcome)
    : m_nEraseSize(chip.Geometry().eraseSize) {
    for (std::uint32_t block = 0; block < chip.Geometry().Blocks(); ++block)
        m_marks.push_back(chip.Mark(block));
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
    if (state.PowerWasCut())
        m_findings.push_back("the power went during " + state.CutPlace());
    else if (outcome.isInterrupted || outcome.status != 0)
        m_findings.push_back("the update didn't come to a good end");
    for (std::string &note : GatherNotes(state.TraceText()))
        m_findings.push_back(std::move(note));
}

std::string RunSummary::Text(size_t width, bool inColour) const {
    std::string text = ChipMap(m_marks, m_nEraseSize).Text(width, inColour);
    text += "requests:" + (m_requests.empty() ? "  none" : m_requests) + "\n" + m_ending + "\n";
    for (const std::string &finding : m_findings)
        text.append("found: ").append(finding).append("\n");
    return text + (IsClean() ? "verdict: clean\n" : "verdict: NOT clean\n");
}

int RunSummary::ShellStatus(const RunOutcome &outcome) {
    return WIFSIGNALED(outcome.status) ? 128 + WTERMSIG(outcome.status) : WEXITSTATUS(outcome.status);
}
