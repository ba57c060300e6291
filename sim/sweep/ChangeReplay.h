#pragma once

#include "chip/ChipFile.h"
#include "mtd/RunSteps.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

/// A chip that goes through the changes of a recorded run, one by one, without the updater.
class ChangeReplay {
public:
    /// @param start path of the chip's files, which are not changed
    /// @param steps of the run, with the bytes of programs; they outlive the replay
    ChangeReplay(const std::string &start, const std::vector<RunStep> &steps);

    const NandChip &Chip() const { return m_file.Chip(); }

    /// Makes the chip what it is before a change, with all earlier ones done. Goes forward only.
    /// @param change from 1
    /// @param changed gets each block that was changed, once or more
    void AdvanceTo(std::uint64_t change, const std::function<void(std::uint32_t block)> &changed);

    /// Makes the next change as far as a power cut lets it get.
    /// @return the block of the change
    std::uint32_t Tear(Extent extent);
    /// Makes blocks what they are on another chip.
    void Put(const NandChip &other, const std::vector<std::uint32_t> &blocks);
    /// Takes back what Tear or Put did.
    void Restore();

private:
    std::uint32_t BlockOfNext() const { return BlockOf(*m_changes[m_done], Chip().Geometry()); }
    void Save(std::uint32_t block);
    void Change(const RunStep &step, Extent extent);

    ChipFile m_file;
    std::vector<const RunStep *> m_changes;
    std::size_t m_done = 0;
    std::vector<std::pair<std::uint32_t, NandChip::BlockImage>> m_before;
};
