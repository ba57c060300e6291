#include "verdict/RunFacts.h"

#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "verdict/CheckText.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <utility>

namespace {

LineVerdict TakeLine(const UpdateLine &line, LineResult result, const RunFacts &facts) {
    LineVerdict verdict;
    verdict.line = line;
    // An erase of an empty range fails silently; a write ends the script then.
    verdict.result = result == LineResult::Clean && line.kind == LineKind::Erase && line.size.value == 0
                         ? LineResult::Failed
                         : result;
    const std::optional<FlashRange> range = facts.flash.RangeOf(line);
    const std::optional<std::int64_t> size = facts.ImageSize(line);
    if (!line.WritesImage() || !range || !size || !facts.flash.IsOnFlash(*range))
        return verdict;
    const std::int64_t blockBytes = facts.RecordSize(line) * facts.chip.Geometry().PagesPerBlock();
    verdict.rangeBlocks = (range->end - range->begin) / facts.flash.EraseSize();
    verdict.imageBlocks = (*size + blockBytes - 1) / blockBytes;
    verdict.badBlocks = static_cast<std::int64_t>(facts.flash.BadBlocks(*range).size());
    return verdict;
}

} // namespace

std::optional<std::int64_t> LineVerdict::SpareBlocks() const {
    if (!rangeBlocks || !imageBlocks)
        return std::nullopt;
    return *rangeBlocks - *imageBlocks;
}

RunFacts::RunFacts(const RunRecord &record, const NandChip &chip)
    : record(record), chip(chip), flash(chip, record.devices), calls(record.trace),
      wasCut(!record.cutPlace.empty() || WIFSIGNALED(record.status)) {
    const std::string text = VisibleScript(record.script);
    isScriptCut = text.size() < record.script.size();
    const std::vector<UpdateLine> updateLines = ReadUpdateLines(text);
    // Other programs may print anything; without a record, such as that of a script for a stand-in, all output must do.
    const bool isKnown = !record.updater.out.empty() || !record.updater.err.empty();
    story = FollowRun(updateLines, isKnown ? record.updater.out : record.out, isKnown ? record.updater.err : record.err,
                      wasCut);
    for (std::size_t i = 0; i < updateLines.size(); ++i)
        lines.push_back(TakeLine(updateLines[i], story.lines[i].result, *this));
    ubi = FindUbiPartitions(*this);
    for (const PageNote &note : calls.notes) {
        if (BeginsWith(note.text, kChangedByNote))
            changers[static_cast<std::uint32_t>(note.offset / chip.Geometry().eraseSize)].insert(
                note.text.substr(std::strlen(kChangedByNote)));
    }
}

std::optional<std::int64_t> RunFacts::ImageSize(const UpdateLine &line) const {
    const auto file = record.files.find(line.image);
    return file == record.files.end() || file->second < 0 ? std::nullopt : std::optional(file->second);
}

std::int64_t RunFacts::RecordSize(const UpdateLine &line) const {
    const NandGeometry &geometry = chip.Geometry();
    return line.kind == LineKind::WriteOob ? geometry.RawPageSize() : geometry.pageSize;
}

bool RunFacts::HasBadBlocks(const LineVerdict &line) const {
    const std::optional<FlashRange> range = RangeOf(line);
    return range && !flash.BadBlocks(*range).empty();
}

const UpdateLine *RunFacts::WriterOf(std::int64_t offset) const {
    const auto found = std::find_if(lines.rbegin(), lines.rend(), [&](const LineVerdict &line) {
        const std::optional<FlashRange> range = RangeOf(line);
        return line.HasRun() && range && range->Holds(offset);
    });
    return found == lines.rend() ? nullptr : &found->line;
}

const UpdateLine *RunFacts::ChangerOf(std::int64_t offset) const {
    const auto found = std::find_if(lines.begin(), lines.end(), [&](const LineVerdict &line) {
        const std::optional<FlashRange> range = RangeOf(line);
        return line.ChangedVariable() && range && range->Holds(offset);
    });
    return found == lines.end() ? nullptr : &found->line;
}

std::vector<std::int64_t> RunFacts::NotedPages(const std::string &text) const {
    std::vector<std::int64_t> offsets;
    for (const PageNote &note : calls.notes) {
        if (note.text == text)
            offsets.push_back(flash.FromChip(note.offset));
    }
    return offsets;
}

bool RunFacts::IsPassedOver(const LineVerdict &line) const {
    const bool isMissing = !line.line.image.empty() && record.files.count(line.line.image) == 0;
    return line.result == LineResult::Skipped || (line.result == LineResult::NeverRan && isMissing);
}

std::vector<std::vector<char>> RunFacts::WholeReads(const FlashRange &range) const {
    const auto size = static_cast<std::size_t>(range.end - range.begin);
    std::vector<std::vector<char>> blocks;
    std::vector<char> bytes;
    for (const FlashLook &read : record.updater.reads) {
        if (read.offset == flash.OnChip(range.begin))
            bytes.clear();
        else if (bytes.empty() || read.offset != flash.OnChip(range.begin) + bytes.size()) {
            bytes.clear();
            continue;
        }
        bytes.insert(bytes.end(), read.bytes.begin(), read.bytes.end());
        if (bytes.size() == size)
            blocks.push_back(std::exchange(bytes, {}));
    }
    return blocks;
}

std::vector<NotifyCall> RunFacts::NotifyCalls() const {
    const std::string start = std::string(kNotifyScript) + " ";
    std::vector<NotifyCall> notifyCalls;
    for (const ShellCall &call : calls.shellCalls) {
        if (BeginsWith(call.command, start))
            notifyCalls.push_back({std::atoi(call.command.c_str() + start.size()), call.status});
    }
    return notifyCalls;
}

std::vector<std::string> AbsentTroubles(const SimSettings &asked, const SimState &state) {
    std::vector<std::string> absent;
    const auto add = [&absent](const std::string &what, std::uint64_t count, const std::string &noun) {
        const auto number = static_cast<std::int64_t>(count);
        absent.push_back(what + ": there " + (number == 1 ? "was " : "were ") + Count(number, noun));
    };
    if (asked.cutAtChange > state.Changes())
        add("cut " + std::to_string(asked.cutAtChange), state.Changes(), "change");
    for (const SimFault &fault : asked.faults) {
        const std::uint64_t count = state.Requests(fault.kind);
        if (count == 0 || count < fault.nth)
            add("fault " + FaultText(fault), count, "such request");
    }
    return absent;
}
