#pragma once

#include "chip/NandChip.h"

#include <cstdint>

/// What a device tells and asks its surroundings while it works on flash. Offsets are bytes on the chip.
class FlashEvents {
public:
    /// Something that succeeded and yet deserves attention: "programmed over unerased bits" of the page at `offset`.
    virtual void Note(std::uint64_t offset, const char *text) = 0;
    /// A page program or block erase is about to happen.
    /// @return how far it gets.
    virtual Extent BeginChange() = 0;
    /// The power is gone, behind the first half of a change. Ends the program.
    [[noreturn]] virtual void PowerOff(std::uint64_t offset) = 0;

protected:
    ~FlashEvents() = default;
};
