#include "sweep/ChangeReplay.h"

ChangeReplay::ChangeReplay(const std::string &start, const std::vector<RunStep> &steps)
    : m_file(ChipFile::OpenPrivate(start)) {
    for (const RunStep &step : steps) {
        if (step.IsChange())
            m_changes.push_back(&step);
    }
}

void ChangeReplay::AdvanceTo(std::uint64_t change, const std::function<void(std::uint32_t block)> &changed) {
    while (m_done + 1 < change) {
        const std::uint32_t block = BlockOfNext();
        Change(*m_changes[m_done++], Extent::Whole);
        changed(block);
    }
}

std::uint32_t ChangeReplay::Tear(Extent extent) {
    const std::uint32_t block = BlockOfNext();
    Save(block);
    Change(*m_changes[m_done], extent);
    return block;
}

void ChangeReplay::Put(const NandChip &other, const std::vector<std::uint32_t> &blocks) {
    for (const std::uint32_t block : blocks) {
        Save(block);
        m_file.Chip().CopyBlock(other, block);
    }
}

void ChangeReplay::Restore() {
    for (const auto &[block, image] : m_before)
        m_file.Chip().RestoreBlock(block, image);
    m_before.clear();
}

void ChangeReplay::Save(std::uint32_t block) {
    m_before.emplace_back(block, NandChip::BlockImage());
    m_file.Chip().SaveBlock(block, m_before.back().second);
}

void ChangeReplay::Change(const RunStep &step, Extent extent) {
    if (step.kind == RunStep::Kind::Program) {
        NandChip::PageProgram program = step.program;
        program.extent = extent;
        m_file.Chip().Program(step.place, program);
    } else {
        m_file.Chip().Erase(step.place, extent);
    }
}
