#pragma once

#include <cstddef>
#include <string>

/// Makes any bytes text that an XML file can hold, between tags and in attributes.
/// Blanks in a row become one; bytes that are no UTF-8 and control characters become "?".
/// @param columns that the text may take; a longer one ends in dots behind them
std::string XmlText(const std::string &text, std::size_t columns);
