#include "sweep/BootCheck.h"

#include "UEnvTool.h"
#include "base/Text.h"

#include <algorithm>

namespace {

/// A page that power loss left unstable is as good as torn.
bool IsAs(const NandChip &chip, const NandChip &other, std::uint32_t block) {
    return chip.HasCellsOf(other, block, block) && !chip.IsUnstable(block);
}

/// @return whether a normal read of a range gives its bytes, today and later.
bool IsReadable(const NandChip &chip, const WholeFlash &flash, const FlashRange &range) {
    std::vector<std::uint8_t> data(chip.Geometry().pageSize);
    const std::uint32_t pages = chip.Geometry().PagesPerBlock();
    for (const std::uint32_t block : flash.Blocks(range)) {
        if (chip.IsUnstable(block))
            return false;
        for (std::uint32_t page = block * pages; page < (block + 1) * pages; ++page) {
            if (chip.Read(page, 0, chip.Geometry().pageSize, data.data()).failed > 0)
                return false;
        }
    }
    return true;
}

void Set(std::set<std::uint32_t> &blocks, std::uint32_t block, bool isIn) {
    if (isIn)
        blocks.insert(block);
    else
        blocks.erase(block);
}

} // namespace

BootCheck::BootCheck(const BootRules &rules, const ReferenceRun &reference, const NandChip &start, const NandChip &chip)
    : m_rules(rules), m_reference(reference), m_start(start), m_flash(start, reference.devices) {
    for (const FlashRange &range : rules.kept)
        m_kept.push_back(Keep(range, chip));
    for (const BootSlot &slot : rules.slots)
        m_slots.push_back(Keep(slot.range, chip));
    ReadEnvironments(chip);
}

BootCheck::Kept BootCheck::Keep(const FlashRange &range, const NandChip &chip) const {
    Kept kept = {range, {}, {}};
    for (const std::uint32_t block : m_flash.Blocks(range))
        Look(kept, chip, block);
    return kept;
}

void BootCheck::Look(Kept &kept, const NandChip &chip, std::uint32_t block) const {
    Set(kept.notOld, block, !IsAs(chip, m_start, block));
    Set(kept.notNew, block, !IsAs(chip, m_reference.chip, block));
}

void BootCheck::Follow(const NandChip &chip, std::uint32_t block) {
    const std::int64_t offset = m_flash.FromChip(std::uint64_t{block} * chip.Geometry().eraseSize);
    for (std::vector<Kept> *all : {&m_kept, &m_slots}) {
        for (Kept &kept : *all) {
            if (kept.range.Holds(offset))
                Look(kept, chip, block);
        }
    }
    if (std::any_of(m_rules.environments.begin(), m_rules.environments.end(),
                    [&](const FlashRange &range) { return range.Holds(offset); }))
        ReadEnvironments(chip);
}

void BootCheck::ReadEnvironments(const NandChip &chip) {
    const WholeFlash flash(chip, m_reference.devices);
    m_hasEnvironment = false;
    m_entries.clear();
    for (const FlashRange &range : m_rules.environments) {
        const std::vector<char> bytes = flash.Read(range);
        if (!HasValidCrc(bytes) || !IsReadable(chip, flash, range))
            continue;
        m_hasEnvironment = true;
        m_entries = UEnvTool(bytes.data(), static_cast<int>(bytes.size())).m_vEntry;
        return;
    }
}

std::string BootCheck::Problem() const {
    for (const Kept &kept : m_kept) {
        if (kept.IsTorn())
            return "the range at " + Hex(kept.range.begin) + " is neither old nor new";
    }
    if (!m_rules.environments.empty() && !m_hasEnvironment)
        return "no environment has a valid CRC";
    for (std::size_t i = 0; i < m_slots.size(); ++i) {
        const std::string entry = m_rules.slots[i].name + "=" + m_rules.slots[i].value;
        const bool isSelected = std::find(m_entries.begin(), m_entries.end(), entry) != m_entries.end();
        if (isSelected && m_slots[i].IsTorn())
            return entry + " selects the slot at " + Hex(m_slots[i].range.begin) + ", which is neither old nor new";
    }
    return "";
}
