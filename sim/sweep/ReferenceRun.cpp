#include "sweep/ReferenceRun.h"

#include "verdict/LineFinder.h"

#include <algorithm>
#include <utility>

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
    LineFinder finder(chip, devices, lines, story);
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
            const AccessKind kind = step.kind == RunStep::Kind::Erase ? AccessKind::Erase : AccessKind::Program;
            changeLines.push_back(finder.Change({kind, step.isByProgram, step.place}));
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
