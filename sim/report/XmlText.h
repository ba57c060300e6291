#pragma once

#include <cstddef>
#include <string>

/// Makes any bytes valid text of an XML file, between tags and in attributes: VisibleText with one blank for a series.
/// @param columns width limit; a longer text is cut there and ends in an ellipsis
std::string XmlText(const std::string &text, std::size_t columns);

/// Escapes the markup of XML in visible text, for use between tags and in attributes.
std::string XmlMarkupEscaped(const std::string &text);
