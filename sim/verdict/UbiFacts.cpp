#include "verdict/UbiFacts.h"

#include "base/Text.h"
#include "verdict/RunFacts.h"

#include <algorithm>

namespace {

/// What a line leaves for UBI begins at the start of this device; nullptr when there is none.
const SimDevice *DeviceAt(const RunFacts &facts, const FlashRange &range) {
    const SimDevice *found = nullptr;
    for (const SimDevice &device : facts.record.devices) {
        const FlashRange all{0, facts.flash.Size()};
        const std::int64_t begin = facts.flash.FromChip(device.offset);
        const FlashRange own{begin, begin + static_cast<std::int64_t>(device.size)};
        if (begin == range.begin && !(own == all) && (found == nullptr || device.size < found->size))
            found = &device;
    }
    return found;
}

UbiPartition Attach(const RunFacts &facts, const UpdateLine &line, const FlashRange &range, const std::string &name) {
    const auto size = static_cast<std::uint64_t>(std::max<std::int64_t>(range.end - range.begin, 0));
    const PartitionPebs pebs(facts.chip, facts.flash.OnChip(range.begin), size);
    UbiSettings settings;
    settings.chipBlocks = facts.chip.Geometry().Blocks();
    return {line, name, range, pebs, AttachUbi(pebs, UbiGeometry::Of(facts.chip), settings)};
}

} // namespace

bool IsUbiImage(const RunFacts &facts, const UpdateLine &line) {
    const auto content = facts.record.contents.find(line.image);
    if (content == facts.record.contents.end() || content->second.size() < kUbiHeaderSize)
        return false;
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(content->second.data());
    return EcHeader().Parse(bytes) == UbiHeaderState::Valid;
}

std::vector<std::uint8_t> UbiImageBytes(const RunFacts &facts, const UpdateLine &line) {
    const auto content = facts.record.contents.find(line.image);
    if (content == facts.record.contents.end())
        return {};
    const std::string &file = content->second;
    if (line.kind != LineKind::WriteOob)
        return {file.begin(), file.end()};
    std::vector<std::uint8_t> bytes;
    const auto record = static_cast<std::size_t>(facts.RecordSize(line));
    for (std::size_t place = 0; place + record <= file.size(); place += record)
        bytes.insert(bytes.end(), &file[place], &file[place] + facts.chip.Geometry().pageSize);
    return bytes;
}

std::vector<UbiPartition> FindUbiPartitions(const RunFacts &facts) {
    std::vector<UbiPartition> partitions;
    for (auto line = facts.lines.rbegin(); line != facts.lines.rend(); ++line) {
        std::optional<FlashRange> range = facts.RangeOf(*line);
        const bool isForUbi =
            line->line.kind == LineKind::Ubiformat || (line->line.WritesImage() && IsUbiImage(facts, line->line));
        if (!range || !line->HasRun() || !isForUbi || range->begin < 0 || range->begin >= facts.flash.Size())
            continue;
        std::string name = Hex(range->begin) + " to " + Hex(range->end);
        if (line->line.kind == LineKind::Ubiformat) {
            name = line->line.tokens[1];
        } else if (const SimDevice *device = DeviceAt(facts, *range)) {
            range->end = range->begin + static_cast<std::int64_t>(device->size);
            name = "/dev/mtd" + std::to_string(device->number);
        }
        const auto isSame = [&](const UbiPartition &other) { return other.range.Overlaps(*range); };
        if (std::none_of(partitions.begin(), partitions.end(), isSame))
            partitions.insert(partitions.begin(), Attach(facts, line->line, *range, name));
    }
    return partitions;
}
