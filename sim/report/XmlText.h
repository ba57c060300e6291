#pragma once

#include <cstddef>
#include <string>

/// Makes any bytes valid text of an XML file, between tags and in attributes.
/// A series of blanks becomes one blank; bytes that are not UTF-8 and control characters become "?".
/// @param columns width limit; a longer text is cut there and ends in an ellipsis
std::string XmlText(const std::string &text, std::size_t columns);

/// Makes any bytes one line of visible text: a tab becomes a blank; other control characters and bytes that are not
/// UTF-8 become "\x1b"; characters that steer a display, such as marks of writing direction, become "\u202e".
std::string VisibleText(const std::string &text);

/// Escapes the markup of XML in visible text, for use between tags and in attributes.
std::string XmlMarkupEscaped(const std::string &text);
