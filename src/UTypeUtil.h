#pragma once

#include <string>

/// The characters that the StdString trims strip: space, LF, CR, HT, FF, VT.
extern const std::string WHITESPACE;

/// Strips HT, LF and CR from both ends of a buffer in place and moves the text to the start of the buffer.
/// Spaces stay.
/// @return 0, or -1 for a null buffer.
int trim(char *buffer);

/// Strip WHITESPACE from the left end, the right end, or both. A text of white space alone gives an empty string.
std::string StdStringLtrim(const std::string &text);
std::string StdStringRtrim(const std::string &text);
std::string StdStringTrim(const std::string &text);
