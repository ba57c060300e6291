#pragma once

#include "chip/NandChip.h"

#include <cstdint>

/// Is informed of what a device does to flash. Offsets are bytes on the chip.
class ChangeListener {
public:
    /// Something that succeeded and still deserves attention: "programmed over unerased bits" of the page at `offset`.
    virtual void Note(std::uint64_t offset, const char *text) = 0;
    /// A page program or block erase is about to happen at `offset`.
    /// @return how far it gets.
    virtual Extent BeginChange(std::uint64_t offset) = 0;
    /// Power is lost, after the first half of a change. Ends the program.
    [[noreturn]] virtual void PowerOff(std::uint64_t offset) = 0;

protected:
    ~ChangeListener() = default;
};
