#include "verdict/UsedChip.h"

#include "UEnvTool.h"
#include "verdict/FlashRanges.h"

#include <cstring>

namespace {

constexpr struct {
    const char *name;
    const char *value;
} kVariables[] = {
    {"bootcmd", "nand read 0x80000 kernel; bootm"},
    {"bootdelay", "3"},
    {"ethaddr", "02:00:00:00:00:01"},
    {"serial", "0001"},
};
constexpr const char *kOldValue = "before-the-update";

/// Bytes that differ from page to page.
void FillPage(std::uint32_t page, std::vector<std::uint8_t> &bytes) {
    std::uint64_t state = page;
    for (std::size_t done = 0; done < bytes.size(); done += sizeof state) {
        // SplitMix64.
        state += 0x9E3779B97F4A7C15;
        std::uint64_t mixed = state;
        mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
        mixed ^= mixed >> 31;
        std::memcpy(bytes.data() + done, &mixed, sizeof mixed);
    }
}

void WritePage(NandChip &chip, std::uint32_t page, const std::uint8_t *data) {
    NandChip::PageProgram program;
    program.data = data;
    program.length = chip.Geometry().pageSize;
    program.withEcc = true;
    chip.Program(page, program);
}

void WriteEnvironment(NandChip &chip, const WholeFlash &flash, const FlashRange &range,
                      const std::vector<UpdateLine> &lines) {
    const std::vector<char> empty(static_cast<std::size_t>(range.end - range.begin));
    UEnvTool environment(empty.data(), static_cast<int>(empty.size()));
    environment.m_vEntry.clear(); // zeros read as one entry without a text
    for (const auto &variable : kVariables)
        environment.SetEnv(variable.name, variable.value);
    for (const UpdateLine &line : lines) {
        if (line.kind == LineKind::SetEnv && flash.RangeOf(line) == range)
            environment.SetEnv(line.Name().c_str(), kOldValue);
    }
    const NandGeometry &geometry = chip.Geometry();
    for (std::int64_t at = range.begin; at < range.end; at += geometry.eraseSize)
        chip.Erase(static_cast<std::uint32_t>(flash.OnChip(at) / geometry.eraseSize));
    const auto *data = reinterpret_cast<const std::uint8_t *>(environment.m_pBlock);
    for (std::int64_t at = range.begin; at < range.end; at += geometry.pageSize)
        WritePage(chip, static_cast<std::uint32_t>(flash.OnChip(at) / geometry.pageSize), data + (at - range.begin));
}

} // namespace

void UseUp(NandChip &chip, const std::vector<SimDevice> &devices, const std::vector<UpdateLine> &lines) {
    chip.Format();
    std::vector<std::uint8_t> data(chip.Geometry().pageSize);
    for (std::uint32_t page = 0; page < chip.Geometry().Pages(); ++page) {
        FillPage(page, data);
        WritePage(chip, page, data.data());
    }
    const WholeFlash flash(chip, devices);
    for (const UpdateLine &line : lines) {
        const std::optional<FlashRange> range = flash.RangeOf(line);
        if (line.kind == LineKind::SetEnv && range && flash.IsOnFlash(*range))
            WriteEnvironment(chip, flash, *range, lines);
    }
    chip.ForgetMarks();
}
