#pragma once

#include "chip/NandChip.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// One step of a recorded run: a request to a device or an access to the chip.
struct RunStep {
    enum class Kind : std::uint8_t { Request, AskBad, Read, Erase, Program, MarkBad };
    Kind kind;
    bool isByProgram;    ///< of the updater itself, not of a program that it starts
    std::uint32_t place; ///< RequestKind of a request, page of a read or program, else the block
    std::uint64_t hash;  ///< of the bytes and the place in the page of a program, else 0
    /// Of a program. Its bytes belong to the record; null when the record does not keep bytes.
    NandChip::PageProgram program;

    /// @return whether the step changes the chip.
    bool IsChange() const { return kind == Kind::Erase || kind == Kind::Program || kind == Kind::MarkBad; }
    bool operator==(const RunStep &other) const {
        return kind == other.kind && isByProgram == other.isByProgram && place == other.place && hash == other.hash;
    }
};

/// @return the block of a step that changes a chip.
inline std::uint32_t BlockOf(const RunStep &step, const NandGeometry &geometry) {
    return step.kind == RunStep::Kind::Program ? step.place / geometry.PagesPerBlock() : step.place;
}

/// Writes a step into a record.
/// @param program of a page program, else null
/// @param keepsBytes the record keeps the bytes of programs
/// @return the step's bytes in the record
std::vector<std::uint8_t> WriteStep(RunStep::Kind kind, bool isByProgram, std::uint32_t place,
                                    const NandChip::PageProgram *program, bool keepsBytes);

/// Reads all steps of a record. Programs of an update may have written it: every place of a step is on the chip.
/// @param bytes outlive the steps
/// @param geometry of the chip
/// @return false when the bytes are not whole steps on such a chip.
bool ReadSteps(const std::uint8_t *bytes, std::size_t length, const NandGeometry &geometry,
               std::vector<RunStep> &steps);
