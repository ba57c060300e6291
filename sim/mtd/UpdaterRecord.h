#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Flash that was looked at during a run: by the updater's reads, or before an erase.
struct FlashLook {
    std::uint64_t offset; ///< on the chip, in bytes
    std::string bytes;    ///< read through the ECC
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

/// @return a line for SimState::Record.
/// @param offset on the chip; 0 for output; the place of a change, see RunChange
std::string RecordLine(RecordKind kind, const void *bytes, std::size_t length, std::uint64_t offset = 0);
