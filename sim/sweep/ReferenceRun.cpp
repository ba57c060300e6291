#include "sweep/ReferenceRun.h"

#include <algorithm>

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

std::array<std::uint64_t, kRequestKinds> CountRequests(const SimState &state) {
    std::array<std::uint64_t, kRequestKinds> counts;
    for (std::uint32_t i = 0; i < kRequestKinds; ++i)
        counts[i] = state.Requests(static_cast<RequestKind>(i));
    return counts;
}
