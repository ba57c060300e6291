#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// A number at the start of a text.
struct LeadingNumber {
    std::uint64_t value = 0;
    std::size_t length = 0; ///< characters that belong to the number
};

/// Reads the number at the start of a text: decimal digits, or hexadecimal ones after 0x or 0X. Signs and blanks are
/// never part of a number.
/// @return nothing if the text does not start with a digit or the number exceeds 64 bits.
std::optional<LeadingNumber> ReadLeadingNumber(const std::string &text);

/// Reads a text that is wholly a number of up to 18 decimal digits.
/// @return nothing for any other text.
std::optional<std::uint64_t> ParseDecimal(const std::string &text);
