#include "sweep/ReferenceRun.h"

#include <algorithm>
#include <set>
#include <utility>

namespace {

/// Finds the line of each step of a run. Lines run in order, each changes only its own range, and none erases a block
/// twice; programs that the updater starts belong to the lines that start programs.
class LineFinder {
public:
    explicit LineFinder(const ReferenceRun &run) : m_run(run), m_flash(run.chip, run.devices) {}

    /// @return the number of the line that makes a change.
    std::size_t Change(const RunStep &step) {
        const bool isErase = step.kind == RunStep::Kind::Erase;
        const std::uint32_t block = isErase ? step.place : step.place / m_run.chip.Geometry().PagesPerBlock();
        const bool isNewLine = !MayChange(m_line, step, block) || (isErase && m_erased.count(block) != 0);
        if (isNewLine) {
            std::size_t next = m_line + 1;
            while (next < m_run.lines.size() && !MayChange(next, step, block))
                ++next;
            // Without such a line, a later one of a program that keeps on running.
            if (next < m_run.lines.size()) {
                m_line = next;
                m_erased.clear();
            }
        }
        if (isErase)
            m_erased.insert(block);
        return Number();
    }

    /// @return the number of the line of the last change; 0 before the first change.
    std::size_t Number() const { return m_line < m_run.lines.size() ? m_run.lines[m_line].number : 0; }

private:
    bool MayChange(std::size_t line, const RunStep &step, std::uint32_t block) const {
        if (line >= m_run.lines.size() || m_run.story.lines[line].result == LineResult::Skipped)
            return false;
        const UpdateLine &what = m_run.lines[line];
        const bool startsPrograms = what.kind == LineKind::HandEnv || what.kind == LineKind::Ubiformat;
        if (startsPrograms || !step.isByProgram)
            return startsPrograms && !step.isByProgram;
        const std::optional<FlashRange> range = m_flash.RangeOf(what);
        return range && range->Holds(m_flash.FromChip(std::uint64_t{block} * m_run.chip.Geometry().eraseSize));
    }

    const ReferenceRun &m_run;
    const WholeFlash m_flash;
    std::size_t m_line = static_cast<std::size_t>(-1); ///< index of the current line; the next one is 0
    std::set<std::uint32_t> m_erased;                  ///< blocks that the current line has erased
};

} // namespace

std::optional<FlashRange> ReferenceRun::DoneRange(std::size_t line) const {
    const WholeFlash flash(chip, devices);
    const std::optional<FlashRange> range = flash.RangeOf(lines[line]);
    const bool isDone = range && flash.IsOnFlash(*range) && story.lines[line].result == LineResult::Clean;
    return isDone ? range : std::nullopt;
}

std::vector<std::uint32_t> ReferenceRun::UsedBlocks() const {
    const WholeFlash flash(chip, devices);
    std::vector<std::uint32_t> used;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto range = DoneRange(i);
        const std::vector<std::uint32_t> blocks = range ? flash.GoodBlocks(*range) : std::vector<std::uint32_t>();
        if (std::any_of(blocks.begin(), blocks.end(), [&](std::uint32_t block) { return chip.IsTouched(block); }))
            used.insert(used.end(), blocks.begin(), blocks.end());
    }
    std::sort(used.begin(), used.end());
    used.erase(std::unique(used.begin(), used.end()), used.end());
    return used;
}

std::string ReferenceRun::TextOf(std::size_t number) const {
    const auto found =
        std::find_if(lines.begin(), lines.end(), [number](const UpdateLine &line) { return line.number == number; });
    return found == lines.end() ? "" : found->text;
}

std::size_t ReferenceRun::LineOfChange(std::uint64_t change) const {
    return change != 0 && change <= changeLines.size() ? changeLines[static_cast<std::size_t>(change - 1)] : 0;
}

std::size_t ReferenceRun::LineOfFault(const SimFault &fault) const {
    const std::vector<std::size_t> &known = requestLines[static_cast<std::size_t>(fault.kind)];
    return fault.nth != 0 && fault.nth <= known.size() ? known[static_cast<std::size_t>(fault.nth - 1)] : 0;
}

void ReferenceRun::TakeSteps(std::vector<RunStep> read) {
    LineFinder finder(*this);
    std::vector<std::size_t *> waiting; // requests ahead of the next change, which shows their line
    const auto settle = [&] {
        for (std::size_t *line : waiting)
            *line = finder.Number();
        waiting.clear();
    };
    // Pointers into these stay valid.
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind)
        requestLines[kind].reserve(static_cast<std::size_t>(requests[kind]));
    for (const RunStep &step : read) {
        if (step.kind == RunStep::Kind::Request) {
            // What follows the last change of a line belongs to that line, up to the next open.
            if (step.place == static_cast<std::uint32_t>(RequestKind::Open))
                settle();
            std::vector<std::size_t> &known = requestLines[step.place];
            if (known.size() == known.capacity())
                continue;
            known.push_back(0);
            waiting.push_back(&known.back());
        } else if (step.IsChange()) {
            changeLines.push_back(finder.Change(step));
            settle();
        }
    }
    settle();
    steps = std::move(read);
}

std::array<std::uint64_t, kRequestKinds> CountRequests(const SimState &state) {
    std::array<std::uint64_t, kRequestKinds> counts;
    for (std::uint32_t i = 0; i < kRequestKinds; ++i)
        counts[i] = state.Requests(static_cast<RequestKind>(i));
    return counts;
}
