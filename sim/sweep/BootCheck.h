#pragma once

#include "chip/NandChip.h"
#include "sweep/ReferenceRun.h"
#include "sweep/Sweep.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

/// Checks on a chip, after a power cut, the rules by which a device boots. The object follows a chip on which one block
/// after the other changes. The rule of a command is not checked here.
class BootCheck {
public:
    /// @param rules,reference,start outlive the object
    /// @param start the chip before the update
    /// @param chip that Follow continues with
    BootCheck(const BootRules &rules, const ReferenceRun &reference, const NandChip &start, const NandChip &chip);

    /// Takes note of a block of the chip that has changed.
    void Follow(const NandChip &chip, std::uint32_t block);

    /// @return why the device does not boot, for people; empty when it does.
    std::string Problem() const;

private:
    /// A range that must be as before or as after the update.
    struct Kept {
        FlashRange range;
        std::set<std::uint32_t> notOld; ///< blocks that differ from the start
        std::set<std::uint32_t> notNew; ///< blocks that differ from the reference

        bool IsTorn() const { return !notOld.empty() && !notNew.empty(); }
    };

    Kept Keep(const FlashRange &range, const NandChip &chip) const;
    void Look(Kept &kept, const NandChip &chip, std::uint32_t block) const;
    void ReadEnvironments(const NandChip &chip);

    const BootRules &m_rules;
    const ReferenceRun &m_reference;
    const NandChip &m_start;
    WholeFlash m_flash;
    std::vector<Kept> m_kept;
    std::vector<Kept> m_slots;          ///< as the slots of the rules
    std::vector<std::string> m_entries; ///< NAME=VALUE of the first environment with a valid CRC
    bool m_hasEnvironment = false;      ///< one has a valid CRC
};
