#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// printf into a string of any length.
__attribute__((format(printf, 1, 2))) std::string FormatText(const char *format, ...);

/// Cuts a text at commas. An empty text has no items.
std::vector<std::string> SplitList(const std::string &text);

/// @return the words with a separator between them.
std::string JoinWords(const std::vector<std::string> &words, const char *separator);

/// @return a number of bytes in the largest unit that holds it whole: "128 KiB".
std::string SizeText(std::uint64_t bytes);

/// @return a number in hexadecimal with 0x: "0x20000", "-0x800".
std::string Hex(std::int64_t number);

/// @return a number with its noun, in the plural unless the number is 1: "1 block", "3 blocks".
std::string Count(std::int64_t number, const std::string &noun);

/// @return a text as one word for a shell, in visible characters: others as $'\x1b', which bash and ksh know.
std::string ShellWord(const std::string &text);

/// Makes any bytes one line of visible text: a tab becomes a blank; other control characters and bytes that are not
/// UTF-8 become "\x1b"; characters that steer a display, such as marks of writing direction, become "\u202e".
std::string VisibleText(const std::string &text);

/// The same for a text of lines: their ends stay, also "\r\n".
std::string VisibleLines(const std::string &text);

/// The same for a terminal, which rewrites a line after any other "\r": that stays too.
std::string LiveLines(const std::string &text);

/// The same for a log: of a rewritten line what a terminal shows in the end.
std::string SettledLines(const std::string &text);

/// @return the length of a text without the start of a character that the text ends in, if there is one.
std::size_t WholeCharacters(const std::string &text);
