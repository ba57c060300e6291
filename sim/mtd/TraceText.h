#pragma once

#include "mtd/SimState.h"

#include <cstdint>
#include <string>

/// How a result is written.
enum class Base { Decimal, Hex };

/// An ioctl of the MTD interface that a run counts.
struct MtdRequest {
    unsigned long number;
    RequestKind kind;
    /// @param argument the request's structure
    /// @return the request with its fields: "MEMERASE mtd0 start=0x20000 length=0x20000"
    std::string (*describe)(int device, const void *argument);
};

/// @return nullptr for an ioctl that is none of these.
const MtdRequest *FindMtdRequest(unsigned long number);

/// @return the end of a line: " = 2048", or " = -1 EIO" for a negative errno value.
std::string ResultText(std::int64_t result, Base base = Base::Decimal);

/// @return the text on one line and in quotes; "null" without them for a null pointer.
std::string QuotedText(const char *text);

/// @return the flags of open by their names: "O_RDWR|O_CLOEXEC".
std::string OpenFlagsText(int flags);
