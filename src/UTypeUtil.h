#pragma once

#include <string>

/// What the StdString trims take off: space, LF, CR, HT, FF, VT.
extern const std::string WHITESPACE;

/// Takes HT, LF and CR off both ends of a buffer, in place, and moves the text to the buffer's start.
/// A space is an ordinary character here and stays.
/// @return 0, or -1 for a null buffer.
int trim(char *buffer);

/// Take WHITESPACE off the left end, the right end, or both. A text of nothing else gives an empty string.
std::string StdStringLtrim(const std::string &text);
std::string StdStringRtrim(const std::string &text);
std::string StdStringTrim(const std::string &text);
