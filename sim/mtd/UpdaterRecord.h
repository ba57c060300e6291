#pragma once

#include "chip/NandChip.h"

#include <cstdint>
#include <string>
#include <vector>

/// Flash that was looked at during a run: by the updater's reads, or before an erase.
struct FlashLook {
    std::uint64_t offset; ///< on the chip, in bytes
    std::string bytes;    ///< read through the ECC
};

/// What a line of the record is about.
enum class RecordKind : char { Out = 'o', Err = 'e', Read = 'r', Erased = 'x', Change = 'c' };

/// One line of the record.
struct RecordEntry {
    /// @return false for a line that is none.
    bool Read(const std::string &line);

    RecordKind kind = RecordKind::Out;
    std::uint64_t offset = 0;
    std::string bytes;
};

/// One change of a chip in a run.
struct RunChange {
    AccessKind kind;     ///< Erase, Program or MarkBad
    bool isByProgram;    ///< of the updater itself, not of a program that it starts
    std::uint32_t place; ///< the page of a program, else the block
    // Of a program:
    bool withEcc = false;
    bool hasData = false;
    bool hasOob = false;

    /// @return a line for SimState::Record, and the change of such a line.
    std::string Line() const;
    static RunChange Of(const RecordEntry &entry);
};

/// What the updater itself printed and read, without the output and the reads of other programs. A run keeps it beside
/// its trace.
struct UpdaterRecord {
    UpdaterRecord() = default;
    /// @param text SimState::RecordText
    explicit UpdaterRecord(const std::string &text);

    std::string out;              ///< its standard output
    std::string err;              ///< its standard error
    std::vector<FlashLook> reads; ///< in order
    /// Blocks that any program erased and that began like a boot environment, as they were before, in order.
    std::vector<FlashLook> erased;
    std::vector<RunChange> changes; ///< page programs and block erases of all programs, in order
};

/// @return a line for SimState::Record.
/// @param offset on the chip; 0 for output; the place of a change, see RunChange
std::string RecordLine(RecordKind kind, const void *bytes, std::size_t length, std::uint64_t offset = 0);
