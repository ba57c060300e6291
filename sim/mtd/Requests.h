#pragma once

#include <cstdint>
#include <string>

/// What a program can request of an MTD device; Requests.def has a row for each.
enum class RequestKind : std::uint32_t {
#define REQUEST(kind, name, number, error, describe) kind,
#include "mtd/Requests.def"
#undef REQUEST
    End ///< their number
};

constexpr auto kRequestKinds = static_cast<std::uint32_t>(RequestKind::End);

/// A row of Requests.def.
struct RequestRow {
    const char *name;
    unsigned long number; ///< of the ioctl; 0 for other calls
    int usualError;       ///< errno value of a device that fails
    /// @param argument of the ioctl, not null except for one that is a number
    /// @return the fields as " name=value" each.
    std::string (*describe)(const void *argument);
};

const RequestRow &RowOf(RequestKind kind);

/// @return the name of a kind as traces and faults spell it: "open", "MEMERASE64".
inline const char *RequestName(RequestKind kind) { return RowOf(kind).name; }

/// Finds the kind of an ioctl.
/// @return false when the table has none.
bool FindRequest(unsigned long number, RequestKind &kind);
/// Finds a kind by name.
/// @return false when the table has none.
bool FindRequest(const std::string &name, RequestKind &kind);
