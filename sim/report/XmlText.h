#pragma once

#include <cstddef>
#include <string>

/// Makes any bytes valid text of an XML file, between tags and in attributes.
/// A series of blanks becomes one blank; bytes that are not UTF-8 and control characters become "?".
/// @param columns width limit; a longer text is cut there and ends in an ellipsis
std::string XmlText(const std::string &text, std::size_t columns);
