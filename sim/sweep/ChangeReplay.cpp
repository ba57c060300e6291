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
        const RunStep &step = *m_changes[m_done++];
        Change(step, Extent::Whole);
        changed(BlockOf(step));
    }
}

std::uint32_t ChangeReplay::Tear(Extent extent) {
    const RunStep &step = *m_changes[m_done];
    m_file.Chip().SaveBlock(BlockOf(step), m_before);
    Change(step, extent);
    return BlockOf(step);
}

void ChangeReplay::Restore() { m_file.Chip().RestoreBlock(BlockOf(*m_changes[m_done]), m_before); }

std::uint32_t ChangeReplay::BlockOf(const RunStep &step) const {
    return step.kind == RunStep::Kind::Program ? step.place / Chip().Geometry().PagesPerBlock() : step.place;
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
