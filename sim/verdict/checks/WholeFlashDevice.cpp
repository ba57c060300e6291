#include "base/Text.h"
#include "verdict/Checks.h"

#include <algorithm>

namespace {

std::string NameOf(const SimDevice &device) { return "mtd" + std::to_string(device.number) + " (" + device.name + ")"; }

FlashRange RangeOf(const RunFacts &facts, const SimDevice &device) {
    const std::int64_t begin = facts.flash.FromChip(device.offset);
    return {begin, begin + static_cast<std::int64_t>(device.size)};
}

/// @return a device that a range covers in part, from its inside to its outside; nullptr for none.
const SimDevice *FindCrossed(const RunFacts &facts, const FlashRange &range) {
    const auto &devices = facts.record.devices;
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const SimDevice &device) {
        const FlashRange its = RangeOf(facts, device);
        return range.Overlaps(its) && !its.Holds(range) && !range.Holds(its);
    });
    return found == devices.end() ? nullptr : &*found;
}

/// @return the end of what a line needs of its range when no further block is bad.
std::int64_t NeededEnd(const RunFacts &facts, const LineVerdict &line, const FlashRange &range) {
    if (!line.imageBlocks)
        return range.end;
    const std::vector<std::uint32_t> blocks = facts.flash.GoodBlocks(range);
    const auto needed = static_cast<std::size_t>(*line.imageBlocks);
    if (needed == 0 || needed > blocks.size())
        return range.end;
    return facts.flash.FromChip((std::uint64_t{blocks[needed - 1]} + 1) * facts.chip.Geometry().eraseSize);
}

} // namespace

/// Offsets count from the start of the device that the updater picks: it has to begin where the flash begins and to end
/// where the flash ends. And what a line changes belongs into one device.
std::vector<Finding> CheckWholeFlashDevice(const RunFacts &facts) {
    std::vector<Finding> findings;
    const SimDevice *device = facts.flash.Device();
    const bool usesFlash =
        std::any_of(facts.lines.begin(), facts.lines.end(), [](const LineVerdict &line) { return line.line.hasRange; });
    if (device != nullptr && usesFlash && (device->offset != 0 || device->size != facts.chip.Geometry().size)) {
        const bool isNamed = device->name.find("all") != std::string::npos;
        findings.push_back(ForRun(FindingId::PartOfFlash,
                                  std::string("the updater takes ") + NameOf(*device) + " for the whole flash, " +
                                      (isNamed ? "the first with all in its name" : "for no name contains all") +
                                      ": it covers " + Hex(static_cast<std::int64_t>(device->offset)) + " to " +
                                      Hex(static_cast<std::int64_t>(device->offset + device->size)) + " of " +
                                      Hex(static_cast<std::int64_t>(facts.chip.Geometry().size)) +
                                      ", and every offset of the script counts from its start"));
        return findings;
    }
    if (facts.record.assumesDevices)
        return findings;
    for (const LineVerdict &line : facts.lines) {
        const std::optional<FlashRange> range = facts.RangeOf(line);
        if (!line.line.hasRange || line.result == LineResult::Skipped || !range || !facts.flash.IsOnFlash(*range))
            continue;
        const SimDevice *crossed = FindCrossed(facts, *range);
        if (crossed == nullptr)
            continue;
        const FlashRange needed = {range->begin, NeededEnd(facts, line, *range)};
        const bool isSpareOnly = FindCrossed(facts, needed) == nullptr;
        findings.push_back(
            ForLine(line.line, FindingId::CrossesDevice,
                    "its range " + Hex(range->begin) + " to " + Hex(range->end) +
                        (isSpareOnly ? " has its spare blocks in another device: it crosses the border of "
                                     : " crosses the border of ") +
                        NameOf(*crossed)));
    }
    return findings;
}
